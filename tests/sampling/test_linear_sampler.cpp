// Linear sampler: linear fields reproduced at random positions across tile borders and resolution
// jumps for cell-centred and other offset types, the integer instances, positions outside all
// tiles, a zero voxel size, a voxel's own position beside huge values, the thread-safe wrapper,
// determinism; and ensureSamplerAssumptions.
#include <gtest/gtest.h>

#include "fixtures/trees.h"
#include "support/linked.h"
#include "support/random_trees.h"
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <hexmold/platform/quillon/job.h>
#include <hexmold/platform/tavrel/math_support.h>
#include <hexmold/sampling/linear_sampler.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/topology.h>
#include <limits>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

using namespace TVL::TileTree3D;
using Tavrel::Math::double3;
using Tavrel::Math::float3;

namespace {

struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<typename T::Traits, Traits24> ? "Traits24" : "Traits55";
    }
};

template <typename Tr> struct Of {
    using Traits = Tr;
};
using TraitsCases = ::testing::Types<Of<Traits24>, Of<Traits55>>;

template <typename C> class LinearSampler : public ::testing::Test {
};
TYPED_TEST_SUITE(LinearSampler, TraitsCases, TraitsNames);
template <typename C> class SamplerAssumptions : public ::testing::Test {
};
TYPED_TEST_SUITE(SamplerAssumptions, TraitsCases, TraitsNames);

/// Depth of the tiles that cover the sampled region in the random trees, so that no cell there is
/// wider than a few hundred finest voxels (values of linear fields stay of the region's size).
template <typename Tr>
constexpr int kBackground = std::is_same_v<Tr, Traits24> ? Tr::kMaxDepth - 8 : Tr::kMaxDepth - 4;

/// The sample offset of an offset type, in voxels: 0.5 on each axis whose bit is set.
double3 offsetOf(VoxelOffsetType type)
{
    return {(type & 1) ? 0.5 : 0.0, (type & 2) ? 0.5 : 0.0, (type & 4) ? 0.5 : 0.0};
}

/// Where the sampler puts the sample of the voxel of width w at corner c, for depth D: at c for
/// cell-centred channels, else at c + (w - wD) * offset.
template <typename Tr> double3 samplePoint(double3 c, std::int64_t w, VoxelOffsetType type, int D)
{
    if (type == kVoxelOffsetCenter)
        return c;
    double3 const o = offsetOf(type);
    double const shift = double(w - Tr::voxelDataWidth(D));
    return {c.x + shift * o.x, c.y + shift * o.y, c.z + shift * o.z};
}

/// a . p + b.
struct Linear {
    double3 a;
    double b;
    double operator()(double3 const& p) const { return a.x * p.x + a.y * p.y + a.z * p.z + b; }
    double magnitude(double3 const& p, double reach) const
    {
        return std::abs(a.x) * (std::abs(p.x) + reach) + std::abs(a.y) * (std::abs(p.y) + reach) +
               std::abs(a.z) * (std::abs(p.z) + reach) + std::abs(b);
    }
};

/// A channel over all depths whose every voxel holds f at its sample point for depth D.
template <typename Tr, typename T, typename F>
Quillon::Ptr<VoxelChannel<Tr, T>> fillChannel(Container<Tr> const& c, VoxelOffsetType type, int D,
                                              F const& f, T fill = T{})
{
    constexpr int W = Tr::kTileWidth;
    auto ch = Quillon::makePtr<VoxelChannel<Tr, T>>(
        "field", &fill, kDataElementInitializerDefaultValue, false, true, 0, Tr::kMaxDepth);
    ch->update(c);
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < c.tileCount(d); ++t) {
            auto const& tile = c.tile(t, d);
            auto b = ch->tileData(t, d);
            std::int64_t const w = tile.voxelDataWidth();
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i) {
                        double3 const corner{double(tile.ti() + i * w), double(tile.tj() + j * w),
                                             double(tile.tk() + k * w)};
                        b(i, j, k) = f(samplePoint<Tr>(corner, w, type, D));
                    }
        }
    return ch;
}

template <typename Tr> VoxelTopology<Tr> topologyOf(Container<Tr> const& c, VoxelOffsetType type)
{
    VoxelTopology<Tr> t("voxels", "tree", c.voxelSize(), type);
    t.update(c);
    return t;
}

/// Random positions: half in the refined region, half right next to tile borders there.
template <typename Tr>
std::vector<double3> positions(Container<Tr> const& c, int spread, int count, std::uint32_t seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(-spread, spread);
    std::uniform_real_distribution<double> nudge(-1.5, 1.5);
    std::vector<double3> out;
    for (int n = 0; n < count / 2; ++n)
        out.push_back({u(rng), u(rng), u(rng)});
    std::uniform_int_distribution<int> depth(Tr::kMaxDepth - 4, Tr::kMaxDepth);
    while (int(out.size()) < count) {
        int const d = depth(rng);
        if (c.tileCount(d) == 0)
            continue;
        std::uniform_int_distribution<std::int64_t> pick(0, c.tileCount(d) - 1);
        auto const& t = c.tile(pick(rng), d);
        out.push_back({t.ti() + nudge(rng), t.tj() + nudge(rng), t.tk() + nudge(rng)});
    }
    return out;
}

/// A bound on the distance from @p p of the cell corners a sample there may read: twice the
/// widest tile holding p or a point one tile away.
template <typename Tr> double reachAt(testtrees::TileSet<Tr> const& tiles, double3 const& p, int D)
{
    std::int64_t const x = std::int64_t(std::floor(p.x)), y = std::int64_t(std::floor(p.y)),
                       z = std::int64_t(std::floor(p.z));
    auto const* t = tiles.deepest(x, y, z, D);
    if (!t)
        return 0.0;
    std::int64_t const tw = Tr::tileVoxelWidth(t->depth());
    std::int64_t widest = tw;
    for (int dz = -1; dz <= 1; ++dz)
        for (int dy = -1; dy <= 1; ++dy)
            for (int dx = -1; dx <= 1; ++dx)
                if (auto const* n = tiles.deepest(x + dx * tw, y + dy * tw, z + dz * tw, D))
                    widest = std::max(widest, Tr::tileVoxelWidth(n->depth()));
    return 2.0 * double(widest);
}

/// The position moved as the sampler moves it for a voxel of width w below depth D: the voxel's
/// sample sits at c + (w - wD) * offset, so the cell holding it is that of p - (w - wD) * offset.
template <typename Tr> double3 shiftedFor(double3 const& p, std::int64_t w, double3 const& o, int D)
{
    double const shift = double(Tr::voxelDataWidth(D) - w);
    return {p.x + shift * o.x, p.y + shift * o.y, p.z + shift * o.z};
}

template <typename Tr>
void expectLinearFieldReproduced(Container<Tr> const& c, VoxelOffsetType type, int D,
                                 std::uint32_t seed, std::string const& what)
{
    Linear const f{{0.75, -1.25, 0.5}, 3.0};
    auto const topology = topologyOf(c, type);
    testtrees::TileSet<Tr> const tiles(c);
    auto const dch = fillChannel<Tr, double>(c, type, D, f);
    auto const fch =
        fillChannel<Tr, float>(c, type, D, [&](double3 const& p) { return float(f(p)); });
    auto const vch = fillChannel<Tr, float3>(c, type, D, [&](double3 const& p) {
        return float3{float(f(p)), float(-f(p)), 1.0f};
    });
    VoxelSamplerLinear<Tr, double, Tr::kTileWidth, 2, double3> ds(c, topology, *dch);
    VoxelSamplerLinear<Tr, float, Tr::kTileWidth, 2, double3> fs(c, topology, *fch);
    VoxelSamplerLinear<Tr, float3, Tr::kTileWidth, 2, double3> vs(c, topology, *vch);
    EXPECT_EQ(ds.readsHaloCopy(), type == kVoxelOffsetCenter);
    int bad = 0;
    for (double3 const& p : positions(c, 100, 400, seed)) {
        double const expected = f(p);
        double const mag = f.magnitude(p, reachAt(tiles, p, D));
        double const got = ds.valueAtTileSpace(p, D);
        // Rounding of a few operations on values of the size of the cell's corners.
        double const tolD = 64 * std::numeric_limits<double>::epsilon() * mag;
        double const tolF = 64 * std::numeric_limits<float>::epsilon() * mag;
        if (std::abs(got - expected) > tolD && ++bad < 5)
            ADD_FAILURE() << what << ": at (" << p.x << ", " << p.y << ", " << p.z << ") got "
                          << got << " expected " << expected;
        EXPECT_NEAR(fs.valueAtTileSpace(p, D), expected, tolF) << what;
        float3 const v = vs.valueAtTileSpace(p, D);
        EXPECT_NEAR(v.x, expected, tolF) << what;
        EXPECT_NEAR(v.y, -expected, tolF) << what;
        EXPECT_NEAR(v.z, 1.0, 4 * std::numeric_limits<float>::epsilon()) << what;
    }
    EXPECT_EQ(bad, 0) << what;
}

} // namespace

TYPED_TEST(LinearSampler, LinearFieldsAreReproducedOnUngradedTrees)
{
    using Tr = typename TypeParam::Traits;
    Container<Tr> c("tree", 0.25f);
    testtrees::growRandomTree(c, 21, 8, 100, Tr::kMaxDepth - 7, 0.5, kBackground<Tr>);
    for (VoxelOffsetType type :
         {kVoxelOffsetCenter, kVoxelOffsetCorner, kVoxelOffsetFaceX, VoxelOffsetType(6)}) {
        std::string const what = "offset type " + std::to_string(int(type));
        expectLinearFieldReproduced(c, type, Tr::kMaxDepth, 100 + type, what);
        expectLinearFieldReproduced(c, type, Tr::kMaxDepth - 2, 200 + type,
                                    what + ", depth limit - 2");
    }
}

TYPED_TEST(LinearSampler, LinearFieldsAreReproducedOnGradedTrees)
{
    using Tr = typename TypeParam::Traits;
    Container<Tr> c("tree", 0.25f);
    testtrees::growRandomTree(c, 22, 6, 100, Tr::kMaxDepth - 5, 0.3, kBackground<Tr>);
    CoreGL::TileTree3D::ensureSamplerAssumptions(c, nullptr);
    for (VoxelOffsetType type : {kVoxelOffsetCenter, kVoxelOffsetFaceZ, VoxelOffsetType(3)})
        expectLinearFieldReproduced(c, type, Tr::kMaxDepth, 300 + type,
                                    "graded, offset type " + std::to_string(int(type)));
}

/// In the deepest tiles, where a cell's corners all lie in tiles of that depth, a cell-centred
/// sample is the blend a (1 - t) + b t along x, then y, then z of the eight voxels, with the
/// fractions taken in double precision and converted to float: the value the test computes here
/// from the channel itself, to the bit, for random data.
TYPED_TEST(LinearSampler, DeepestCellsGiveTheBlendOfTheirVoxelsToTheBit)
{
    using Tr = typename TypeParam::Traits;
    constexpr int W = Tr::kTileWidth;
    int const D = Tr::kMaxDepth;
    Container<Tr> c("tree", 0.25f);
    constexpr double kRadius = 20.0;
    testtrees::buildGradedSphere(c, kRadius, Tr::kMaxDepth, 1.0);
    auto const topology = topologyOf(c, kVoxelOffsetCenter);
    std::mt19937 rng(31);
    std::uniform_real_distribution<float> value(-10.0f, 10.0f);
    auto const ch = fillChannel<Tr, float>(c, kVoxelOffsetCenter, D,
                                           [&](double3 const&) { return value(rng); });
    VoxelSamplerLinear<Tr, float, W, 2, double3> sampler(c, topology, *ch);
    auto acc = c.tileAccessor();
    auto voxel = [&](std::int64_t x, std::int64_t y, std::int64_t z, bool& ok) {
        Tile<Tr> const& t = acc.tile(x, y, z, D);
        if (t.depth() != D) {
            ok = false;
            return 0.0f;
        }
        return std::as_const(*ch).tileData(t.treeIndex())(int(x - t.ti()), int(y - t.tj()),
                                                          int(z - t.tk()));
    };
    int compared = 0;
    // Positions within two voxels of the sphere, where the deepest tiles are.
    std::vector<double3> near;
    std::normal_distribution<double> g(0.0, 1.0);
    std::uniform_real_distribution<double> shell(kRadius - 2.0, kRadius + 2.0);
    while (near.size() < 4000) {
        double const x = g(rng), y = g(rng), z = g(rng), n = std::sqrt(x * x + y * y + z * z);
        double const r = shell(rng);
        if (n > 0)
            near.push_back({x / n * r, y / n * r, z / n * r});
    }
    for (double3 const& p : near) {
        std::int64_t const f[3] = {std::int64_t(std::floor(p.x)), std::int64_t(std::floor(p.y)),
                                   std::int64_t(std::floor(p.z))};
        bool ok = true;
        float v[8];
        for (int e = 0; e < 8; ++e)
            v[e] = voxel(f[0] + (e & 1), f[1] + ((e >> 1) & 1), f[2] + (e >> 2), ok);
        if (!ok)
            continue;
        float const t[3] = {float(p.x - double(f[0])), float(p.y - double(f[1])),
                            float(p.z - double(f[2]))};
        auto blend = [](float a, float b, float s) { return a * (1.0f - s) + b * s; };
        float const x0 = blend(v[0], v[1], t[0]), x1 = blend(v[2], v[3], t[0]),
                    x2 = blend(v[4], v[5], t[0]), x3 = blend(v[6], v[7], t[0]);
        float const expected = blend(blend(x0, x1, t[1]), blend(x2, x3, t[1]), t[2]);
        float const got = sampler.valueAtTileSpace(p, D);
        EXPECT_EQ(std::memcmp(&got, &expected, sizeof(float)), 0) << got << " vs " << expected;
        ++compared;
    }
    EXPECT_GT(compared, 1000);
}

TYPED_TEST(LinearSampler, WorldPositionsUseTheTopologysTransform)
{
    using Tr = typename TypeParam::Traits;
    float const h = 0.125f; // a power of two keeps the transform exact
    Container<Tr> c("tree", h);
    testtrees::growRandomTree(c, 23, 5, 80, Tr::kMaxDepth - 5, 0.3, kBackground<Tr>);
    Linear const f{{-0.5, 2.0, 1.0}, -7.0};
    for (VoxelOffsetType type : {kVoxelOffsetCenter, kVoxelOffsetFaceY}) {
        auto const topology = topologyOf(c, type);
        testtrees::TileSet<Tr> const tiles(c);
        auto const ch = fillChannel<Tr, double>(c, type, Tr::kMaxDepth, f);
        VoxelSamplerLinear<Tr, double, Tr::kTileWidth, 2, double3> s(c, topology, *ch);
        EXPECT_EQ(s.inverseVoxelSize(), 8.0);
        double3 const o = offsetOf(type);
        for (double3 const& p : positions(c, 80, 200, 24)) {
            double3 const world{(p.x + o.x) * h, (p.y + o.y) * h, (p.z + o.z) * h};
            double const tol = 64 * std::numeric_limits<double>::epsilon() *
                               f.magnitude(p, reachAt(tiles, p, Tr::kMaxDepth));
            EXPECT_NEAR(s.value(world), f(p), tol);
        }
    }
}

TYPED_TEST(LinearSampler, IntegerInstancesReturnTheVoxelHoldingThePosition)
{
    using Tr = typename TypeParam::Traits;
    Container<Tr> c("tree", 1.0f);
    testtrees::growRandomTree(c, 25, 6, 80, Tr::kMaxDepth - 6, 0.4);
    testtrees::TileSet<Tr> const tiles(c);
    // A value that names the voxel: its corner and depth, mixed.
    auto label = [](double3 const& corner, int d) {
        return int((std::int64_t(corner.x) * 7 + std::int64_t(corner.y) * 131 +
                    std::int64_t(corner.z) * 1031 + d) %
                   30011);
    };
    constexpr int W = Tr::kTileWidth;
    for (VoxelOffsetType type :
         {kVoxelOffsetCenter, kVoxelOffsetCorner, kVoxelOffsetFaceX, VoxelOffsetType(7 - 1)}) {
        int fill = -1;
        auto ch = Quillon::makePtr<VoxelChannel<Tr, int>>(
            "ids", &fill, kDataElementInitializerDefaultValue, false, true, 0, Tr::kMaxDepth);
        ch->update(c);
        for (int d = 0; d <= Tr::kMaxDepth; ++d)
            for (std::int64_t t = 0; t < c.tileCount(d); ++t) {
                auto const& tile = c.tile(t, d);
                auto b = ch->tileData(t, d);
                std::int64_t const w = tile.voxelDataWidth();
                for (int k = 0; k < W; ++k)
                    for (int j = 0; j < W; ++j)
                        for (int i = 0; i < W; ++i)
                            b(i, j, k) =
                                label({double(tile.ti() + i * w), double(tile.tj() + j * w),
                                       double(tile.tk() + k * w)},
                                      d);
            }
        auto const topology = topologyOf(c, type);
        VoxelSamplerLinear<Tr, int, Tr::kTileWidth, 2, double3> s(c, topology, *ch);
        int const D = Tr::kMaxDepth;
        double3 const o = offsetOf(type);
        for (double3 const& p : positions(c, 80, 300, 26 + type)) {
            // The tile holding the position, moved down while the shifted position leaves it.
            auto const* tile =
                tiles.deepest(std::int64_t(std::floor(p.x)), std::int64_t(std::floor(p.y)),
                              std::int64_t(std::floor(p.z)), D);
            ASSERT_NE(tile, nullptr);
            double3 q = p;
            for (;;) {
                std::int64_t const w = Tr::voxelDataWidth(tile->depth());
                q = (type == kVoxelOffsetCenter || tile->depth() == D) ? p
                                                                       : shiftedFor<Tr>(p, w, o, D);
                std::int64_t const qi[3] = {std::int64_t(std::floor(q.x)),
                                            std::int64_t(std::floor(q.y)),
                                            std::int64_t(std::floor(q.z))};
                if (tile->contains(qi[0], qi[1], qi[2]))
                    break;
                tile = tiles.deepest(qi[0], qi[1], qi[2], tile->depth());
                ASSERT_NE(tile, nullptr);
            }
            std::int64_t const w = Tr::voxelDataWidth(tile->depth());
            double3 const corner{
                double(tile->ti() + (std::int64_t(std::floor(q.x)) - tile->ti()) / w * w),
                double(tile->tj() + (std::int64_t(std::floor(q.y)) - tile->tj()) / w * w),
                double(tile->tk() + (std::int64_t(std::floor(q.z)) - tile->tk()) / w * w)};
            EXPECT_EQ(s.valueAtTileSpace(p, D), label(corner, tile->depth()))
                << "offset type " << int(type);
        }
    }
}

TYPED_TEST(LinearSampler, PositionsOutsideAllTilesGiveTheDefault)
{
    using Tr = typename TypeParam::Traits;
    Container<Tr> c("tree", 1.0f);
    testtrees::growRandomTree(c, 27, 2, 40, Tr::kMaxDepth - 2, 0.0);
    auto const topology = topologyOf(c, kVoxelOffsetCenter);
    auto const ch = fillChannel<Tr, float>(
        c, kVoxelOffsetCenter, Tr::kMaxDepth, [](double3 const&) { return 1.0f; }, -5.0f);
    VoxelSamplerLinear<Tr, float> s(c, topology, *ch);
    double const beyond = 2.0 * double(Tr::kCentreOffset) + 10.0;
    EXPECT_EQ(s.valueAtTileSpace(float3{float(beyond), 0.0f, 0.0f}, Tr::kMaxDepth), -5.0f);
    EXPECT_EQ(s.valueAtTileSpace(float3{0.0f, -float(beyond), 0.0f}, Tr::kMaxDepth), -5.0f);
    EXPECT_EQ(s.value(float3{0.0f, 0.0f, float(1e12)}), -5.0f);
    EXPECT_EQ(s.value(float3{std::numeric_limits<float>::quiet_NaN(), 0.0f, 0.0f}), -5.0f);
    // An empty tree has no tile anywhere.
    Container<Tr> empty("tree", 1.0f);
    auto const emptyTopology = topologyOf(empty, kVoxelOffsetCorner);
    auto const none = fillChannel<Tr, float>(
        empty, kVoxelOffsetCorner, Tr::kMaxDepth, [](double3 const&) { return 1.0f; }, 2.5f);
    VoxelSamplerLinear<Tr, float> e(empty, emptyTopology, *none);
    EXPECT_EQ(e.value(float3{0.0f, 0.0f, 0.0f}), 2.5f);
    // Tiles above the channel's depths hold nothing either.
    float fill = 9.0f;
    VoxelChannel<Tr, float> deep("deep", &fill, kDataElementInitializerDefaultValue, false, true,
                                 Tr::kMaxDepth, Tr::kMaxDepth);
    deep.update(c);
    for (std::int64_t t = 0; t < c.tileCount(Tr::kMaxDepth); ++t)
        deep.tileData(t, Tr::kMaxDepth).set(1.0f);
    VoxelSamplerLinear<Tr, float> d(c, topology, deep);
    EXPECT_EQ(d.valueAtTileSpace(float3{float(Tr::kCentreOffset) / 2, 0.0f, 0.0f}, Tr::kMaxDepth),
              9.0f);
}

TYPED_TEST(LinearSampler, ZeroVoxelSizeKeepsAZeroInverse)
{
    using Tr = typename TypeParam::Traits;
    Container<Tr> c("tree", 0.0f);
    testtrees::growRandomTree(c, 28, 1, 10, Tr::kMaxDepth - 1, 0.0);
    auto const topology = topologyOf(c, kVoxelOffsetCorner);
    auto const ch = fillChannel<Tr, float>(c, kVoxelOffsetCorner, Tr::kMaxDepth,
                                           [](double3 const& p) { return float(p.x + 2 * p.y); });
    VoxelSamplerLinear<Tr, float> s(c, topology, *ch);
    EXPECT_EQ(s.inverseVoxelSize(), 0.0);
    // Every world position maps to the tile-space origin.
    EXPECT_EQ(s.value(float3{3.0f, -7.0f, 11.0f}),
              s.valueAtTileSpace(float3{0.0f, 0.0f, 0.0f}, Tr::kMaxDepth));
}

TYPED_TEST(LinearSampler, NamesOfTheLinearSamplerAndItsBase)
{
    using Tr = typename TypeParam::Traits;
    Container<Tr> c("tree", 1.0f);
    testtrees::growRandomTree(c, 29, 1, 10, 3, 0.0);
    auto const topology = topologyOf(c, kVoxelOffsetCenter);
    auto const ch = fillChannel<Tr, float>(c, kVoxelOffsetCenter, Tr::kMaxDepth,
                                           [](double3 const&) { return 1.0f; });
    VoxelSamplerLinear<Tr, float> linear(c, topology, *ch);
    VoxelSampler<Tr, float>& asBase = linear;
    EXPECT_STREQ(asBase.name(), "kLinear");
    VoxelSampler<Tr, float> none(4.0f);
    EXPECT_STREQ(none.name(), "kNone");
    EXPECT_EQ(none.value(float3{1.0f, 2.0f, 3.0f}), 4.0f);
    EXPECT_EQ(none.valueAtTileSpace(float3{1.0f, 2.0f, 3.0f}, 5), 4.0f);
    LinearVolumeSampler<Tr, float> shared(c, topology, *ch);
    Geometry::Volume::Sampler<float> const& generic = shared;
    EXPECT_STREQ(generic.name(), "kLinear");
    EXPECT_EQ(int(Geometry::Volume::kSamplerInterpretationFraction), 1);
}

TYPED_TEST(LinearSampler, AVoxelsOwnPositionGivesItsValueEvenBesideHugeValues)
{
    using Tr = typename TypeParam::Traits;
    Container<Tr> c("tree", 1.0f);
    testtrees::addBlock(c, Tr::kMaxDepth, {0, 0, 0}, {1, 1, 1});
    for (VoxelOffsetType type : {kVoxelOffsetCenter, kVoxelOffsetFaceX}) {
        auto const topology = topologyOf(c, type);
        // Alternating +-FLT_MAX with one ordinary voxel: blending would overflow.
        auto const ch = fillChannel<Tr, float>(c, type, Tr::kMaxDepth, [](double3 const& p) {
            if (p.x == 1 && p.y == 2 && p.z == 3)
                return 0.5f;
            return (std::int64_t(p.x + p.y + p.z) % 2) ? FLT_MAX : -FLT_MAX;
        });
        VoxelSamplerLinear<Tr, float, Tr::kTileWidth, 2, double3> s(c, topology, *ch);
        EXPECT_EQ(s.valueAtTileSpace(double3{1.0, 2.0, 3.0}, Tr::kMaxDepth), 0.5f);
        EXPECT_EQ(s.valueAtTileSpace(double3{2.0, 2.0, 3.0}, Tr::kMaxDepth), FLT_MAX);
        EXPECT_EQ(s.valueAtTileSpace(double3{3.0, 2.0, 3.0}, Tr::kMaxDepth), -FLT_MAX);
        // Halfway between two opposite extremes: no overflow to infinity or NaN.
        float const mid = s.valueAtTileSpace(double3{2.5, 2.0, 3.0}, Tr::kMaxDepth);
        EXPECT_TRUE(std::isfinite(mid)) << mid;
    }
}

TYPED_TEST(LinearSampler, CellCentredChannelsReadCoarseVoxelsAtTheirCorner)
{
    // The cell-centred path treats a voxel of any depth as sitting at its corner point, where the
    // tree's voxel loops put it: a sample there gives the coarse voxel's value.
    using Tr = typename TypeParam::Traits;
    Container<Tr> c("tree", 1.0f);
    int const d = Tr::kMaxDepth - 3;
    testtrees::addBlock(c, d, {0, 0, 0}, {1, 1, 1});
    auto const topology = topologyOf(c, kVoxelOffsetCenter);
    auto const ch =
        fillChannel<Tr, double>(c, kVoxelOffsetCenter, Tr::kMaxDepth,
                                [](double3 const& p) { return p.x + 10 * p.y + 100 * p.z; });
    VoxelSamplerLinear<Tr, double, Tr::kTileWidth, 2, double3> s(c, topology, *ch);
    std::int64_t const w = Tr::voxelDataWidth(d);
    double3 const corner{double(w), double(2 * w), double(3 * w)};
    EXPECT_EQ(s.valueAtTileSpace(corner, Tr::kMaxDepth), corner.x + 10 * corner.y + 100 * corner.z);
}

TYPED_TEST(LinearSampler, CopiesAndTheThreadSafeWrapperAgree)
{
    using Tr = typename TypeParam::Traits;
    Container<Tr> c("tree", 0.5f);
    testtrees::growRandomTree(c, 30, 6, 80, Tr::kMaxDepth - 6, 0.4);
    auto const topology = topologyOf(c, kVoxelOffsetCenter);
    auto const ch =
        fillChannel<Tr, float>(c, kVoxelOffsetCenter, Tr::kMaxDepth, [](double3 const& p) {
            return float(std::sin(0.05 * p.x) + p.y * 0.01 - p.z * p.z * 1e-4);
        });
    VoxelSamplerLinear<Tr, float> s(c, topology, *ch);
    std::vector<float3> world;
    for (double3 const& p : positions(c, 80, 2000, 31))
        world.push_back(
            {float((p.x + 0.5) * 0.5), float((p.y + 0.5) * 0.5), float((p.z + 0.5) * 0.5)});
    std::vector<float> expected;
    for (float3 const& w : world)
        expected.push_back(s.value(w));
    VoxelSamplerLinear<Tr, float> copy(s);
    for (std::size_t n = 0; n < world.size(); n += 7)
        EXPECT_EQ(copy.value(world[n]), expected[n]);
    LinearVolumeSampler<Tr, float> const shared(c, topology, *ch);
    std::vector<float> got(world.size());
    TVL::Parallel::parallel_for(TVL::Parallel::blocked_range<std::size_t>(0, world.size(), 16),
                                [&](TVL::Parallel::blocked_range<std::size_t> const& r) {
                                    for (std::size_t n = r.begin(); n != r.end(); ++n)
                                        got[n] = shared.sample(world[n]);
                                });
    EXPECT_EQ(got, expected);
}

TYPED_TEST(LinearSampler, OneAndAllThreadsGiveTheSameValues)
{
    using Tr = typename TypeParam::Traits;
    Container<Tr> c("tree", 1.0f);
    testtrees::growRandomTree(c, 32, 8, 100, Tr::kMaxDepth - 6, 0.5);
    auto const topology = topologyOf(c, kVoxelOffsetCenter);
    auto const ch =
        fillChannel<Tr, float>(c, kVoxelOffsetCenter, Tr::kMaxDepth,
                               [](double3 const& p) { return float(std::cos(0.1 * p.x) * p.y); });
    auto const points = positions(c, 100, 1000, 33);
    auto run = [&] {
        VoxelSamplerLinear<Tr, float, Tr::kTileWidth, 2, double3> s(c, topology, *ch);
        std::vector<float> out;
        for (double3 const& p : points)
            out.push_back(s.valueAtTileSpace(p, Tr::kMaxDepth));
        return out;
    };
    std::vector<float> one;
    {
        TVL::Parallel::global_control limit(TVL::Parallel::global_control::max_allowed_parallelism,
                                            1);
        one = run();
    }
    EXPECT_EQ(run(), one);
}

TYPED_TEST(LinearSampler, BuildingIsCancelled)
{
    using Tr = typename TypeParam::Traits;
    Container<Tr> c("tree", 1.0f);
    testtrees::growRandomTree(c, 34, 3, 40, Tr::kMaxDepth - 3, 0.3);
    auto const topology = topologyOf(c, kVoxelOffsetCenter);
    auto const ch = fillChannel<Tr, float>(c, kVoxelOffsetCenter, Tr::kMaxDepth,
                                           [](double3 const&) { return 0.0f; });
    Quillon::requestJobCancellation();
    EXPECT_THROW((VoxelSamplerLinear<Tr, float>(c, topology, *ch)), std::runtime_error);
    Quillon::clearJobCancellation();
}

// ---- ensureSamplerAssumptions
// --------------------------------------------------------------------

namespace {

/// Every tile with a child has its 26 neighbours of its depth (inside the domain).
template <typename Tr> std::int64_t missingNeighbours(Container<Tr> const& c)
{
    testtrees::TileSet<Tr> const tiles(c);
    std::int64_t missing = 0;
    for (int d = 1; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < c.tileCount(d); ++t) {
            auto const& tile = c.tile(t, d);
            if (tile.isLeaf())
                continue;
            std::int64_t const tw = Tr::tileVoxelWidth(d);
            for (int dz = -1; dz <= 1; ++dz)
                for (int dy = -1; dy <= 1; ++dy)
                    for (int dx = -1; dx <= 1; ++dx) {
                        std::int64_t const x = tile.ti() + dx * tw, y = tile.tj() + dy * tw,
                                           z = tile.tk() + dz * tw;
                        if (!Container<Tr>::inDomain(x, y, z))
                            continue;
                        if (!tiles.at(x, y, z, d))
                            ++missing;
                    }
        }
    return missing;
}

template <typename Tr> std::set<VoxelCoord> cornerSet(Container<Tr> const& c)
{
    std::set<VoxelCoord> s;
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < c.tileCount(d); ++t)
            s.insert(c.tile(t, d).voxelCoord());
    return s;
}

} // namespace

TYPED_TEST(SamplerAssumptions, RefinedTilesGetTheirTwentySixNeighbours)
{
    using Tr = typename TypeParam::Traits;
    for (std::uint32_t seed : {41u, 42u}) {
        Container<Tr> c("tree", 1.0f);
        testtrees::growRandomTree(c, seed, 6, 100, Tr::kMaxDepth - 6, 0.4);
        ASSERT_GT(missingNeighbours(c), 0) << "the random tree is not closed already";
        std::int64_t const before = c.tileCount(-1);
        TileCornerLists<Tr> created;
        CoreGL::TileTree3D::ensureSamplerAssumptions(c, &created);
        EXPECT_EQ(missingNeighbours(c), 0);
        std::int64_t listed = 0;
        testtrees::TileSet<Tr> const tiles(c);
        for (int d = 0; d <= Tr::kMaxDepth; ++d)
            for (int3 const& corner : created[d]) {
                ++listed;
                EXPECT_NE(tiles.at(corner.x, corner.y, corner.z, d), nullptr);
            }
        EXPECT_EQ(listed, c.tileCount(-1) - before);
        // Closed already: nothing more.
        std::int64_t const after = c.tileCount(-1);
        CoreGL::TileTree3D::ensureSamplerAssumptions(c, nullptr);
        EXPECT_EQ(c.tileCount(-1), after);
    }
}

TYPED_TEST(SamplerAssumptions, OneAndAllThreadsGiveTheSameTree)
{
    using Tr = typename TypeParam::Traits;
    Container<Tr> a("tree", 1.0f), b("tree", 1.0f);
    testtrees::growRandomTree(a, 43, 8, 120, Tr::kMaxDepth - 6, 0.5);
    testtrees::growRandomTree(b, 43, 8, 120, Tr::kMaxDepth - 6, 0.5);
    {
        TVL::Parallel::global_control limit(TVL::Parallel::global_control::max_allowed_parallelism,
                                            1);
        CoreGL::TileTree3D::ensureSamplerAssumptions(a, nullptr);
    }
    CoreGL::TileTree3D::ensureSamplerAssumptions(b, nullptr);
    EXPECT_EQ(cornerSet(a), cornerSet(b));
}

TYPED_TEST(SamplerAssumptions, CancellationThrows)
{
    using Tr = typename TypeParam::Traits;
    Container<Tr> c("tree", 1.0f);
    testtrees::growRandomTree(c, 44, 4, 60, Tr::kMaxDepth - 4, 0.3);
    std::int64_t const before = c.tileCount(-1);
    Quillon::requestJobCancellation();
    try {
        CoreGL::TileTree3D::ensureSamplerAssumptions(c, nullptr);
        ADD_FAILURE() << "no exception";
    } catch (std::runtime_error const& e) {
        EXPECT_EQ(std::string(e.what()), TVL::exceptionMessage);
    }
    Quillon::clearJobCancellation();
    EXPECT_EQ(c.tileCount(-1), before) << "nothing merged before the first depth finished";
}

// A link-time check (support/linked.h): a missing instantiation fails the link.
TEST(LinearSamplerExports, EveryInstanceIsExported)
{
#define HEXMOLD_TAKE(TR, T)                                                                        \
    testlinked::requireLinked(                                                                     \
        &VoxelSamplerLinear<TR, T, TR::kTileWidth, 2, float3>::valueAtTileSpace,                   \
        &VoxelSamplerLinear<TR, T, TR::kTileWidth, 2, double3>::value,                             \
        &LinearVolumeSampler<TR, T>::sample);
    HEXMOLD_FOR_EACH_SAMPLER_ELEMENT(HEXMOLD_TAKE, Traits24)
    HEXMOLD_FOR_EACH_SAMPLER_ELEMENT(HEXMOLD_TAKE, Traits55)
#undef HEXMOLD_TAKE
    testlinked::requireLinked(&CoreGL::TileTree3D::ensureSamplerAssumptions<Traits24>,
                              &CoreGL::TileTree3D::ensureSamplerAssumptions<Traits55>);
}
