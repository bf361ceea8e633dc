// Tests of voxelizePoints: the sphere-union distance against a brute-force union of spheres in
// double precision (one point, two overlapping points, a random cloud with random radii), both
// routes and both trees; property transfer through the closest point; ties; 1 thread against all
// threads; cancellation; the routes' edge cases; bad input.
#include "support/cancel_on_timer.h"
#include "support/sanitized.h"
#include "support/typed_traits.h"
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <hexmold/analysis/grade_tile_tree.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/quillon/job.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/platform/tavrel/math_support.h>
#include <hexmold/platform/testing/recording_services.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/commands.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/voxelize/points/voxelize_points.h>
#include <iostream>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <unordered_map>
#include <vector>

using namespace TVL::TileTree3D;
using namespace VolumeGL::TileTree3D;
namespace Geo = Tavrel::Geometry;

namespace {

float3 f3(double x, double y, double z)
{
    return {float(x), float(y), float(z)};
}

/// A cloud: centres, radii (one shared or one per point) and the geometry object of the points.
struct Cloud {
    Quillon::Array<float3> positions;
    Quillon::Array<float> radii;
    Quillon::MutablePtr<Tavrel::Object> object() const { return Geo::createPointCloud(positions); }
    double radius(std::size_t i) const { return radii.size() == 1 ? radii[0] : radii[i]; }
};

/// The brute-force truth: min over points of |x - p| - r in double, through a grid of cells of
/// width at least the largest radius plus a margin; exact wherever the result is below the
/// margin (every point beyond the 27 cells around x is farther than that).
class SphereUnion {
public:
    SphereUnion(Cloud const& c, double margin) : mCloud(c)
    {
        double rmax = 0.0;
        for (std::size_t i = 0; i < c.positions.size(); ++i)
            rmax = std::max(rmax, c.radius(i));
        mCell = rmax + margin;
        mMargin = margin;
        for (std::size_t i = 0; i < c.positions.size(); ++i)
            mCells[key(cellOf(c.positions[i]))].push_back(i);
    }
    /// The distance, and whether it is exact (below the margin).
    double operator()(double const x[3], bool* exact = nullptr,
                      std::size_t* nearest = nullptr) const
    {
        std::int64_t const c[3] = {std::int64_t(std::floor(x[0] / mCell)),
                                   std::int64_t(std::floor(x[1] / mCell)),
                                   std::int64_t(std::floor(x[2] / mCell))};
        double best = std::numeric_limits<double>::max();
        std::size_t who = 0;
        for (int dz = -1; dz <= 1; ++dz)
            for (int dy = -1; dy <= 1; ++dy)
                for (int dx = -1; dx <= 1; ++dx) {
                    auto it = mCells.find(key({c[0] + dx, c[1] + dy, c[2] + dz}));
                    if (it == mCells.end())
                        continue;
                    for (std::size_t i : it->second) {
                        float3 const& p = mCloud.positions[i];
                        double const d =
                            std::sqrt((x[0] - p.x) * (x[0] - p.x) + (x[1] - p.y) * (x[1] - p.y) +
                                      (x[2] - p.z) * (x[2] - p.z)) -
                            mCloud.radius(i);
                        if (d < best || (d == best && i < who))
                            best = d, who = i;
                    }
                }
        if (exact)
            *exact = best < mMargin;
        if (nearest)
            *nearest = who;
        return best;
    }

private:
    std::array<std::int64_t, 3> cellOf(float3 const& p) const
    {
        return {std::int64_t(std::floor(p.x / mCell)), std::int64_t(std::floor(p.y / mCell)),
                std::int64_t(std::floor(p.z / mCell))};
    }
    static std::uint64_t key(std::array<std::int64_t, 3> const& c)
    {
        return (std::uint64_t(c[0] + (1 << 20)) << 42) ^ (std::uint64_t(c[1] + (1 << 20)) << 21) ^
               std::uint64_t(c[2] + (1 << 20));
    }
    Cloud const& mCloud;
    double mCell = 1.0, mMargin = 1.0;
    std::unordered_map<std::uint64_t, std::vector<std::size_t>> mCells;
};

struct Options {
    Adaptivity adaptivity = AdaptivityMaxRelativeError;
    float maxRelativeError = 0.0f;
    float grading = 1.0f;
    std::string properties;
    std::vector<ResolutionField> fields;
    Quillon::Array<float> detailSizes;
    bool useDetailSizes = false;
    TopologyType topologyType = TopologyTypeBuildTiles;
    std::string channel = "voxel_signed_distance";
};

/// The non-adaptive route: resolution fields without a field.
Options nonAdaptive()
{
    Options o;
    o.adaptivity = AdaptivityResolutionFields;
    return o;
}

template <typename Tr> struct PointVolume {
    static constexpr int kMax = Tr::kMaxDepth;
    static constexpr int W = Tr::kTileWidth;
    float h;
    float far = 1e30f;
    Quillon::Ptr<TVL::Object> object;
    Quillon::Testing::RecordingServices services;
    std::string out, debug;
    bool result = false;
    std::string channel = "voxel_signed_distance";

    explicit PointVolume(float voxel, std::string const& channelName = "voxel_signed_distance")
        : h(voxel), channel(channelName)
    {
        object = Command::createVoxelTVL<Tr>("tree", "topology", voxel, kVoxelOffsetCenter);
        auto topology = object->template component<VoxelTopology<Tr>>("topology");
        Command::createChannel<float, Tr::kRatio, W, W, 0>(
            channel, *topology, *object, far, kDataElementInitializerDefaultValue, 0, kMax);
    }
    Container<Tr> const& container() const
    {
        return *object->template component<Container<Tr>>("tree");
    }
    VoxelChannel<Tr, float> const& level() const
    {
        return *object->template component<VoxelChannel<Tr, float>>(channel);
    }
    template <typename T> Quillon::Ptr<VoxelChannel<Tr, T>> channelOf(std::string const& name) const
    {
        return object->template component<VoxelChannel<Tr, T>>(name);
    }

    void build(Cloud const& c, Options const& o = {}, int verbose = 0,
               Tavrel::Object const* geometry = nullptr)
    {
        auto const made = c.object();
        Tavrel::Object const& g = geometry ? *geometry : *made;
        int const saved = CoreGL::Logger::verboseLevel();
        CoreGL::Logger::setVerboseLevel(verbose);
        std::ostringstream cout, dbg;
        std::streambuf* old = std::cout.rdbuf(cout.rdbuf());
        CoreGL::Logger::setDebugFileStream(&dbg);
        Quillon::Array<ResolutionField> fields(o.fields.begin(), o.fields.end());
        auto restore = [&] {
            std::cout.rdbuf(old);
            CoreGL::Logger::setDebugFileStream(&std::clog);
            CoreGL::Logger::setVerboseLevel(saved);
        };
        try {
            result = voxelizePoints<Tr>(
                g, c.positions, c.radii, o.useDetailSizes ? &o.detailSizes : nullptr, o.adaptivity,
                o.maxRelativeError, o.fields.empty() ? nullptr : &fields, o.grading, o.properties,
                "tree", "topology", channel, *object, o.topologyType, services);
        } catch (...) {
            restore();
            throw;
        }
        restore();
        out = cout.str();
        debug = dbg.str();
    }
    /// World position of the sample of voxel n of tile t.
    void sample(Tile<Tr> const& t, int n, double p[3]) const
    {
        std::int64_t const s = t.voxelDataWidth();
        int3 const c = t.tijk();
        int const ijk[3] = {n % W, (n / W) % W, n / (W * W)};
        for (int a = 0; a < 3; ++a)
            p[a] = (double(c[a]) + double(s) * (ijk[a] + 0.5)) * double(h);
    }
    /// Calls f(tile, n, value) for every leaf voxel of the finest depth.
    template <typename F> void forEachFinestVoxel(F&& f) const
    {
        auto const& tree = container();
        auto const& lv = level();
        for (std::int64_t t = 0; t < tree.tileCount(kMax); ++t) {
            auto const dd = lv.tileData(t, kMax);
            for (int n = 0; n < W * W * W; ++n)
                f(tree.tile(t, kMax), n, dd[std::size_t(n)]);
        }
    }
};

struct Accuracy {
    std::int64_t near = 0, crossing = 0, signMismatches = 0, missing = 0;
    double mean = 0.0, max = 0.0;         ///< zero-crossing voxels, in voxels
    double bandMean = 0.0, bandMax = 0.0; ///< all voxels within the band, in voxels
};

/// Finest voxels within @p band voxels of the union: the error against the truth, bounded on the
/// zero-crossing voxels (a face neighbour's sample lies on the other side of the union's
/// surface), where the grid resolves the surface; over the whole band it is printed, since a
/// cavity narrower than a voxel holds no sample and no grid can show it. Finest voxels farther
/// than half a voxel from the surface: the sign.
template <typename Tr>
Accuracy measure(PointVolume<Tr> const& v, Cloud const& c, char const* name, double band = 1.0)
{
    SphereUnion const truth(c, 3.0 * v.h);
    Accuracy a;
    double sum = 0.0, bandSum = 0.0;
    bool const debug = std::getenv("HEXMOLD_POINTS_DEBUG") != nullptr;
    v.forEachFinestVoxel([&](Tile<Tr> const& t, int n, float value) {
        double p[3];
        v.sample(t, n, p);
        bool exact = false;
        double const d = truth(p, &exact);
        if (std::abs(d) > 0.5 * v.h && (d < 0) != (value < 0.0f)) {
            ++a.signMismatches;
            if (debug)
                std::cout << "sign at " << p[0] << " " << p[1] << " " << p[2] << " value " << value
                          << " truth " << d << "\n";
        }
        if (!exact || std::abs(d) > band * v.h)
            return;
        if (std::abs(value) >= 0.5 * v.far) {
            ++a.missing;
            return;
        }
        double const e = std::abs(double(value) - d) / v.h;
        ++a.near;
        bandSum += e;
        a.bandMax = std::max(a.bandMax, e);
        bool crossing = false;
        for (int q = 0; q < 6 && !crossing; ++q) {
            double x[3] = {p[0], p[1], p[2]};
            x[q / 2] += (q % 2 ? 1.0 : -1.0) * v.h;
            crossing = (truth(x) < 0) != (d < 0);
        }
        if (!crossing)
            return;
        if (e > a.max && debug)
            std::cout << "worst so far " << e << " at " << p[0] << " " << p[1] << " " << p[2]
                      << " value " << value << " truth " << d << "\n";
        ++a.crossing;
        sum += e;
        a.max = std::max(a.max, e);
    });
    a.mean = a.crossing ? sum / double(a.crossing) : 0.0;
    a.bandMean = a.near ? bandSum / double(a.near) : 0.0;
    std::cout << "[ accuracy ] " << name << ": " << a.crossing
              << " zero-crossing voxels: mean error " << a.mean << ", max " << a.max << " voxel; "
              << a.near << " voxels within " << band << " voxel: mean " << a.bandMean << ", max "
              << a.bandMax << "; far values there " << a.missing
              << "; sign mismatches beyond 0.5 voxel " << a.signMismatches << "\n";
    return a;
}

/// The non-adaptive route keeps the stamped distances of zero-crossing voxels, exact to float
/// rounding but where a closest point arrived by propagation.
constexpr double kCrossingMeanTol = 0.01;
/// The adaptive route recomputes the crossing voxels too (first order on a graded tree).
constexpr double kAdaptiveCrossingMeanTol = 0.15;
/// No crossing voxel of the non-adaptive route is off by a whole voxel; the adaptive route's
/// recomputed crossings of a dense cloud stay within two.
constexpr double kCrossingMaxTol = 1.0;
constexpr double kAdaptiveCrossingMaxTol = 2.0;

void expectAccurate(Accuracy const& a, char const* name)
{
    bool const adaptive = std::string(name).rfind("adaptive", 0) == 0;
    EXPECT_GT(a.crossing, 0) << name;
    EXPECT_LE(a.mean, adaptive ? kAdaptiveCrossingMeanTol : kCrossingMeanTol) << name;
    EXPECT_LE(a.max, adaptive ? kAdaptiveCrossingMaxTol : kCrossingMaxTol) << name;
    EXPECT_EQ(a.signMismatches, 0) << name;
    EXPECT_EQ(a.missing, 0) << name;
}

Cloud randomCloud(std::size_t n, double rmin, double rmax, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(-0.5, 0.5), r(rmin, rmax);
    Cloud c;
    for (std::size_t i = 0; i < n; ++i) {
        c.positions.push_back(f3(u(rng), u(rng), u(rng)));
        c.radii.push_back(float(r(rng)));
    }
    return c;
}

template <typename T> class VoxelizePoints : public ::testing::Test {
};
TYPED_TEST_SUITE(VoxelizePoints, testtraits::TraitsTypes, testtraits::TraitsNames);

/// Both routes with their names.
std::vector<std::pair<char const*, Options>> routes()
{
    return {{"adaptive", Options{}}, {"non-adaptive", nonAdaptive()}};
}

} // namespace

TYPED_TEST(VoxelizePoints, OnePointGivesTheExactSphereDistance)
{
    using Tr = TypeParam;
    Cloud c;
    c.positions.push_back(f3(0.013, -0.021, 0.007));
    c.radii.push_back(0.3f);
    for (auto const& [name, o] : routes()) {
        PointVolume<Tr> v(1.0f / 64);
        v.build(c, o);
        EXPECT_TRUE(v.result) << name;
        Accuracy const a = measure(v, c, name, 2.0);
        expectAccurate(a, name);
    }
}

TYPED_TEST(VoxelizePoints, TwoOverlappingPointsMatchTheUnionOfSpheres)
{
    using Tr = TypeParam;
    Cloud c;
    c.positions.push_back(f3(-0.11, 0.02, 0.0));
    c.positions.push_back(f3(0.12, -0.01, 0.03));
    c.radii.push_back(0.2f);
    c.radii.push_back(0.25f);
    for (auto const& [name, o] : routes()) {
        PointVolume<Tr> v(1.0f / 64);
        v.build(c, o);
        expectAccurate(measure(v, c, name, 2.0), name);
    }
}

TYPED_TEST(VoxelizePoints, TwoClustersFarApartMatchTheUnionOfSpheres)
{
    // The clusters' common box holds too many tiles for the dense grid of the non-adaptive
    // route, which then collects its tiles in hash sets.
    using Tr = TypeParam;
    float const h = 1.0f / 64;
    Cloud c = randomCloud(300, 0.5 * h, 2.5 * h, 13);
    Cloud const far = randomCloud(300, 0.5 * h, 2.5 * h, 17);
    for (std::size_t i = 0; i < far.positions.size(); ++i) {
        auto const& p = far.positions[i];
        c.positions.push_back(f3(p.x + 500.0, p.y - 300.0, p.z + 400.0));
        c.radii.push_back(far.radii[i]);
    }
    PointVolume<Tr> v(h);
    v.build(c, nonAdaptive());
    expectAccurate(measure(v, c, "non-adaptive"), "non-adaptive");
}

TYPED_TEST(VoxelizePoints, RandomCloudWithRandomRadiiMatchesTheUnionOfSpheres)
{
    using Tr = TypeParam;
    std::size_t const n = testbuild::unlessSanitized<std::size_t>(10000, 3000);
    float const h = 1.0f / 96;
    Cloud const c = randomCloud(n, 0.5 * h, 2.5 * h, 7);
    for (auto const& [name, o] : routes()) {
        PointVolume<Tr> v(h);
        v.build(c, o);
        expectAccurate(measure(v, c, name), name);
    }
}

TYPED_TEST(VoxelizePoints, AdaptiveAndNonAdaptiveRoutesAgreeNearTheSurface)
{
    using Tr = TypeParam;
    float const h = 1.0f / 64;
    Cloud const c = randomCloud(300, 2.0 * h, 5.0 * h, 11);
    PointVolume<Tr> a(h), b(h);
    a.build(c, Options{});
    b.build(c, nonAdaptive());
    // Finest voxels of both trees within one voxel of the surface (by the non-adaptive values).
    std::map<std::tuple<int, int, int, int>, float> adaptive;
    a.forEachFinestVoxel([&](Tile<Tr> const& t, int n, float v) {
        adaptive[{t.ti(), t.tj(), t.tk(), n}] = v;
    });
    std::int64_t compared = 0;
    double sum = 0.0, worst = 0.0;
    b.forEachFinestVoxel([&](Tile<Tr> const& t, int n, float v) {
        if (std::abs(v) > h)
            return;
        auto it = adaptive.find({t.ti(), t.tj(), t.tk(), n});
        if (it == adaptive.end())
            return;
        double const e = std::abs(double(it->second) - double(v)) / h;
        ++compared;
        sum += e;
        worst = std::max(worst, e);
    });
    std::cout << "[ agreement ] " << compared << " voxels within a voxel: mean difference "
              << sum / double(std::max<std::int64_t>(1, compared)) << ", max " << worst
              << " voxel\n";
    EXPECT_GT(compared, 1000);
    EXPECT_LE(sum / double(std::max<std::int64_t>(1, compared)), kAdaptiveCrossingMeanTol);
    EXPECT_LE(worst, kAdaptiveCrossingMaxTol);
}

TYPED_TEST(VoxelizePoints, PerPointVelocityArrivesAsTheClosestPointsValue)
{
    using Tr = TypeParam;
    float const h = 1.0f / 64;
    Cloud const c = randomCloud(200, 2.0 * h, 4.0 * h, 5);
    auto cloud = c.object();
    Quillon::Array<float3> velocity;
    for (std::size_t i = 0; i < c.positions.size(); ++i)
        velocity.push_back(f3(double(i), -2.0 * double(i), 0.5));
    ASSERT_TRUE(
        Geo::setDataGeoProperty<float3>(*cloud, "v", Geo::sPointComp, velocity, f3(0, 0, 0)));
    SphereUnion const truth(c, 3.0 * h);
    for (auto [name, o] : routes()) {
        o.properties = "v";
        PointVolume<Tr> v(h);
        v.build(c, o, 0, cloud.get());
        auto const ch = v.template channelOf<float3>("voxel_v");
        ASSERT_TRUE(ch) << name;
        auto const& tree = v.container();
        std::int64_t checked = 0, wrong = 0;
        for (std::int64_t t = 0; t < tree.tileCount(Tr::kMaxDepth); ++t) {
            auto const vd = ch->tileData(t, Tr::kMaxDepth);
            auto const ld = v.level().tileData(t, Tr::kMaxDepth);
            for (int n = 0; n < Tr::kTileSize; ++n) {
                double p[3];
                v.sample(tree.tile(t, Tr::kMaxDepth), n, p);
                bool exact = false;
                std::size_t who = 0;
                double const d = truth(p, &exact, &who);
                // Near the surface, where the closest point is not a near tie.
                if (!exact || std::abs(d) > h)
                    continue;
                std::size_t second = who;
                double other = 1e30;
                for (std::size_t i = 0; i < c.positions.size(); ++i) {
                    if (i == who)
                        continue;
                    auto const& q = c.positions[i];
                    double const e =
                        std::sqrt((p[0] - q.x) * (p[0] - q.x) + (p[1] - q.y) * (p[1] - q.y) +
                                  (p[2] - q.z) * (p[2] - q.z)) -
                        c.radius(i);
                    if (e < other)
                        other = e, second = i;
                }
                (void)second;
                if (other - d < 0.05 * h)
                    continue;
                ++checked;
                float3 const got = vd[std::size_t(n)];
                if (got.x != velocity[who].x || got.y != velocity[who].y ||
                    got.z != velocity[who].z) {
                    ++wrong;
                    if (std::getenv("HEXMOLD_POINTS_DEBUG") && wrong < 5)
                        std::cout << "wrong at " << p[0] << " " << p[1] << " " << p[2] << " got "
                                  << got.x << " want " << who << " d " << d << " level "
                                  << ld[std::size_t(n)] << "\n";
                }
                (void)ld;
            }
        }
        std::cout << "[ property ] " << name << ": " << checked << " voxels checked, " << wrong
                  << " wrong\n";
        EXPECT_GT(checked, 500) << name;
        EXPECT_EQ(wrong, 0) << name;
    }
}

TYPED_TEST(VoxelizePoints, TwoPointsAtTheSameDistanceGiveTheLowerIndexWhateverTheirOrder)
{
    using Tr = TypeParam;
    float const h = 1.0f / 32;
    // Two spheres mirrored about the sample plane x = 0.5 h: its voxels are equally far from both.
    double const x0 = 0.5 * h;
    for (int order = 0; order < 2; ++order) {
        Cloud c;
        double const s = order == 0 ? 1.0 : -1.0;
        c.positions.push_back(f3(x0 + s * 3.0 * h, 0.013, -0.007));
        c.positions.push_back(f3(x0 - s * 3.0 * h, 0.013, -0.007));
        c.radii.push_back(float(4.0 * h));
        auto cloud = c.object();
        Quillon::Array<float> id{0.0f, 1.0f};
        ASSERT_TRUE(Geo::setDataGeoProperty<float>(*cloud, "id", Geo::sPointComp, id, -1.0f));
        for (auto [name, o] : routes()) {
            o.properties = "id";
            PointVolume<Tr> v(h);
            v.build(c, o, 0, cloud.get());
            auto const ch = v.template channelOf<float>("voxel_id");
            ASSERT_TRUE(ch);
            auto const& tree = v.container();
            std::int64_t onPlane = 0;
            for (std::int64_t t = 0; t < tree.tileCount(Tr::kMaxDepth); ++t)
                for (int n = 0; n < Tr::kTileSize; ++n) {
                    double p[3];
                    v.sample(tree.tile(t, Tr::kMaxDepth), n, p);
                    if (p[0] != x0)
                        continue;
                    float const lv = v.level().tileData(t, Tr::kMaxDepth)[std::size_t(n)];
                    if (std::abs(lv) > 1.5f * h)
                        continue;
                    ++onPlane;
                    EXPECT_EQ(ch->tileData(t, Tr::kMaxDepth)[std::size_t(n)], 0.0f)
                        << name << " order " << order;
                }
            EXPECT_GT(onPlane, 0) << name;
        }
    }
}

TYPED_TEST(VoxelizePoints, SameTilesAndBitsOnOneThreadAndOnAll)
{
    using Tr = TypeParam;
    float const h = 1.0f / 64;
    Cloud const c = randomCloud(2000, 0.5 * h, 3.0 * h, 3);
    for (auto [name, o] : routes()) {
        auto build = [&](int threads) {
            TVL::Parallel::global_control limit(
                TVL::Parallel::global_control::max_allowed_parallelism, threads);
            auto v = std::make_unique<PointVolume<Tr>>(h);
            v->build(c, o);
            return v;
        };
        auto const one = build(1);
        auto const all = build(4);
        auto const& a = one->container();
        auto const& b = all->container();
        ASSERT_EQ(a.tileCount(-1), b.tileCount(-1)) << name;
        for (int d = 0; d <= Tr::kMaxDepth; ++d)
            for (std::int64_t t = 0; t < a.tileCount(d); ++t) {
                ASSERT_EQ(a.tile(t, d).tijk(), b.tile(t, d).tijk()) << name;
                auto const x = one->level().tileData(t, d);
                auto const y = all->level().tileData(t, d);
                ASSERT_EQ(x.size(), y.size());
                ASSERT_EQ(std::memcmp(x.data(), y.data(), x.size() * sizeof(float)), 0)
                    << name << " depth " << d;
            }
    }
}

TYPED_TEST(VoxelizePoints, NonAdaptiveLevelSetIsTheSameWithAndWithoutProperties)
{
    // Without properties the non-adaptive route stamps the level set alone and leaves out the
    // closest points; with one it carries the closest points across the band. The redistanced
    // level sets must not tell the two apart.
    using Tr = TypeParam;
    float const h = 1.0f / 64;
    for (double grading : {1.0, 0.5}) {
        Cloud const c = randomCloud(1500, 0.5 * h, 3.0 * h, 11);
        auto cloud = c.object();
        Quillon::Array<float> id(c.positions.size());
        for (std::size_t i = 0; i < id.size(); ++i)
            id[i] = float(i);
        ASSERT_TRUE(Geo::setDataGeoProperty<float>(*cloud, "id", Geo::sPointComp, id, -1.0f));
        Options o = nonAdaptive();
        o.grading = float(grading);
        PointVolume<Tr> plain(h), with(h);
        plain.build(c, o, 0, cloud.get());
        o.properties = "id";
        with.build(c, o, 0, cloud.get());
        auto const& a = plain.container();
        auto const& b = with.container();
        ASSERT_EQ(a.tileCount(-1), b.tileCount(-1));
        std::int64_t differ = 0;
        for (int d = 0; d <= Tr::kMaxDepth; ++d)
            for (std::int64_t t = 0; t < a.tileCount(d); ++t) {
                ASSERT_EQ(a.tile(t, d).tijk(), b.tile(t, d).tijk());
                auto const x = plain.level().tileData(t, d);
                auto const y = with.level().tileData(t, d);
                ASSERT_EQ(x.size(), y.size());
                for (std::size_t n = 0; n < x.size(); ++n)
                    differ += x[n] == y[n] ? 0 : 1;
            }
        EXPECT_EQ(differ, 0) << "grading " << grading;
    }
}

TYPED_TEST(VoxelizePoints, CancellationThrowsAndLeavesTheVolumeWhole)
{
    using Tr = TypeParam;
    float const h = 1.0f / 64;
    Cloud const c = randomCloud(500, 1.0 * h, 3.0 * h, 9);
    std::vector<std::pair<char const*, Options>> cases = {
        {".non_adaptive", nonAdaptive()},
        {".adaptive.refine_coarser_levels", Options{}},
        {".adaptive.refine_adaptively", Options{}},
        {".adaptive.redistance", Options{}}};
    for (auto const& [stage, o] : cases) {
        PointVolume<Tr> v(h);
        bool thrown = false;
        {
            testcancel::CancelOnTimer const cancel(stage);
            try {
                v.build(c, o);
            } catch (std::runtime_error const& e) {
                thrown = true;
                EXPECT_EQ(std::string(e.what()), TVL::exceptionMessage);
            }
            EXPECT_GE(cancel.reports(), 1) << stage;
        }
        EXPECT_TRUE(thrown) << stage;
        // The components are back in the object, and it can be built into again.
        EXPECT_TRUE(v.object->template component<Container<Tr>>("tree")) << stage;
        EXPECT_TRUE(v.object->template component<VoxelTopology<Tr>>("topology")) << stage;
        EXPECT_TRUE((v.object->template component<VoxelChannel<Tr, float>>(v.channel))) << stage;
        v.build(c, o);
        EXPECT_TRUE(v.result) << stage;
    }
}

TYPED_TEST(VoxelizePoints, BadInputIsLeftOutOrRefusedWithoutACrash)
{
    using Tr = TypeParam;
    float const h = 1.0f / 32;
    float const nan = std::numeric_limits<float>::quiet_NaN(),
                inf = std::numeric_limits<float>::infinity();
    for (auto const& [name, o] : routes()) {
        // An empty cloud: a warning, false, nothing changed.
        {
            PointVolume<Tr> v(h);
            Cloud c;
            c.radii.push_back(0.1f);
            v.build(c, o);
            EXPECT_FALSE(v.result);
            EXPECT_EQ(v.container().tileCount(-1), 0);
            EXPECT_TRUE(v.services.contains(Quillon::RuntimeMessageCategory::kWarning,
                                            "No points to voxelize."));
        }
        // Non-finite positions and bad radii are left out; the good points still make spheres.
        {
            Cloud c;
            c.positions = {f3(0, 0, 0),   f3(nan, 0, 0), f3(inf, 0, 0),    f3(0.3, 0, 0),
                           f3(0, 0.3, 0), f3(0, 0, 0.3), f3(0.2, 0.2, 0.2)};
            c.radii = {0.1f, 0.1f, 0.1f, -0.1f, nan, inf, 0.0f};
            PointVolume<Tr> v(h);
            v.build(c, o);
            EXPECT_TRUE(v.result) << name;
            EXPECT_TRUE(
                v.services.contains(Quillon::RuntimeMessageCategory::kWarning, "5 of 7 points"))
                << name;
            Cloud good;
            good.positions = {f3(0, 0, 0), f3(0.2, 0.2, 0.2)};
            good.radii = {0.1f, 0.0f};
            Accuracy const a = measure(v, good, name);
            EXPECT_EQ(a.signMismatches, 0) << name;
        }
        // Radii that are neither one nor one per point: refused.
        {
            Cloud c;
            c.positions = {f3(0, 0, 0), f3(0.1, 0, 0), f3(0.2, 0, 0)};
            c.radii = {0.1f, 0.1f};
            PointVolume<Tr> v(h);
            v.build(c, o);
            EXPECT_FALSE(v.result) << name;
            EXPECT_EQ(v.container().tileCount(-1), 0) << name;
        }
        // A property shorter than the cloud: its channel keeps the default, with a warning.
        {
            Cloud c;
            c.positions = {f3(0, 0, 0), f3(0.1, 0, 0)};
            c.radii = {0.05f};
            auto cloud = Geo::createPointCloud(Quillon::Array<float3>{f3(0, 0, 0)});
            ASSERT_TRUE(Geo::setDataGeoProperty<float>(*cloud, "t", Geo::sPointComp,
                                                       Quillon::Array<float>{3.0f}, 7.0f));
            Options p = o;
            p.properties = "t";
            PointVolume<Tr> v(h);
            v.build(c, p, 0, cloud.get());
            EXPECT_TRUE(v.result) << name;
            auto const ch = v.template channelOf<float>("voxel_t");
            ASSERT_TRUE(ch) << name;
            for (int d = 0; d <= Tr::kMaxDepth; ++d)
                for (std::int64_t t = 0; t < v.container().tileCount(d); ++t)
                    for (float x : ch->tileData(t, d))
                        ASSERT_EQ(x, 7.0f) << name;
            EXPECT_TRUE(v.services.contains(Quillon::RuntimeMessageCategory::kWarning,
                                            "has 1 values for 2 points"))
                << name;
        }
    }
}

// ---- the edge cases of the two routes ----------------------------------------------------------

namespace {

std::vector<std::string>& timerNames()
{
    static std::vector<std::string> names;
    return names;
}
void recordTimer(Quillon::StringView name, double)
{
    timerNames().emplace_back(name);
}

/// Warnings and errors among the recorded messages (timers report at the info category).
int problems(Quillon::Testing::RecordingServices const& s)
{
    int n = 0;
    for (auto const& m : s.messages())
        n += m.category == Quillon::RuntimeMessageCategory::kWarning ||
             m.category == Quillon::RuntimeMessageCategory::kError;
    return n;
}

/// The corners of every tile, per depth.
template <typename Tr> std::vector<std::vector<int3>> tileCorners(Container<Tr> const& c)
{
    std::vector<std::vector<int3>> out(Tr::kMaxDepth + 1);
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < c.tileCount(d); ++t)
            out[std::size_t(d)].push_back(c.tile(t, d).tijk());
    return out;
}

} // namespace

TYPED_TEST(VoxelizePoints,
           ResolutionFieldsWithoutAFieldTakeTheNonAdaptiveRouteWhateverTheTopologyType)
{
    using Tr = TypeParam;
    Cloud c;
    c.positions.push_back(f3(0.01, 0.02, 0.03));
    c.radii.push_back(0.2f);
    for (TopologyType type : {TopologyTypeBuildTiles, TopologyTypeKeepTiles}) {
        Options o = nonAdaptive();
        o.topologyType = type;
        PointVolume<Tr> v(1.0f / 32);
        timerNames().clear();
        CoreGL::Logger::setTimerObserver(&recordTimer);
        v.build(c, o);
        CoreGL::Logger::setTimerObserver(nullptr);
        bool nonAdaptiveRan = false, adaptiveRan = false;
        for (auto const& n : timerNames()) {
            nonAdaptiveRan =
                nonAdaptiveRan || n == "Geometry::Converters::points_to_level_set.non_adaptive";
            adaptiveRan = adaptiveRan || n == "Geometry::Converters::points_to_level_set.adaptive";
        }
        EXPECT_TRUE(nonAdaptiveRan) << int(type);
        EXPECT_FALSE(adaptiveRan) << int(type);
        EXPECT_GT(v.container().tileCount(Tr::kMaxDepth), 0) << int(type);
    }
}

TYPED_TEST(VoxelizePoints, KeepingTheTilesAddsAndRemovesNone)
{
    using Tr = TypeParam;
    float const h = 1.0f / 32;
    Cloud a;
    a.positions.push_back(f3(0.0, 0.0, 0.0));
    a.radii.push_back(0.25f);
    PointVolume<Tr> v(h);
    v.build(a);
    auto const before = tileCorners(v.container());
    Cloud b = a;
    b.positions[0] = f3(0.05, -0.03, 0.02);
    b.radii[0] = 0.2f;
    Options keep;
    keep.topologyType = TopologyTypeKeepTiles;
    v.build(b, keep);
    EXPECT_TRUE(v.result);
    auto const after = tileCorners(v.container());
    ASSERT_EQ(before.size(), after.size());
    for (std::size_t d = 0; d < before.size(); ++d) {
        ASSERT_EQ(before[d].size(), after[d].size()) << d;
        for (std::size_t t = 0; t < before[d].size(); ++t)
            EXPECT_EQ(before[d][t], after[d][t]);
    }
    // The kept tiles hold the new sphere: its centre is inside.
    auto acc = v.container().tileAccessor();
    auto const& centre = acc.tile(int(std::floor(0.05 / h)), int(std::floor(-0.03 / h)),
                                  int(std::floor(0.02 / h)), Tr::kMaxDepth);
    ASSERT_TRUE(centre.valid());
    int i, j, k;
    centre.childDataIJK(int(std::floor(0.05 / h)), int(std::floor(-0.03 / h)),
                        int(std::floor(0.02 / h)), i, j, k);
    EXPECT_LT(v.level().tileData(centre.treeIndex())(i, j, k), 0.0f);
}

TYPED_TEST(VoxelizePoints, ZeroSharedRadiusGivesThePlainDistanceToTheNearestPoint)
{
    using Tr = TypeParam;
    float const h = 1.0f / 32;
    Cloud c;
    c.positions = {f3(0.013, 0.0, 0.0), f3(-0.21, 0.1, 0.05)};
    c.radii.push_back(0.0f);
    for (auto const& [name, o] : routes()) {
        PointVolume<Tr> v(h);
        v.build(c, o);
        std::int64_t near = 0;
        double worst = 0.0;
        v.forEachFinestVoxel([&](Tile<Tr> const& t, int n, float value) {
            EXPECT_GE(value, 0.0f) << name;
            double p[3];
            v.sample(t, n, p);
            double d = 1e30;
            for (auto const& q : c.positions)
                d = std::min(d,
                             std::sqrt((p[0] - q.x) * (p[0] - q.x) + (p[1] - q.y) * (p[1] - q.y) +
                                       (p[2] - q.z) * (p[2] - q.z)));
            if (d > 1.0 * h)
                return;
            ++near;
            worst = std::max(worst, std::abs(double(value) - d) / h);
        });
        EXPECT_GT(near, 0) << name;
        EXPECT_LE(worst, 1e-4) << name;
    }
}

TYPED_TEST(VoxelizePoints, APropertyNamedLikeTheLevelSetGetsAPrefixedChannel)
{
    using Tr = TypeParam;
    Cloud c;
    c.positions.push_back(f3(0.0, 0.01, 0.0));
    c.radii.push_back(0.2f);
    auto cloud = c.object();
    ASSERT_TRUE(Geo::setDataGeoProperty<float>(*cloud, "signed_distance", Geo::sPointComp,
                                               Quillon::Array<float>{42.0f}, 0.0f));
    Options o;
    o.properties = "signed_distance";
    PointVolume<Tr> v(1.0f / 64);
    v.build(c, o, 0, cloud.get());
    auto const renamed = v.template channelOf<float>("voxel_voxel_signed_distance");
    ASSERT_TRUE(renamed);
    EXPECT_EQ(renamed->tileData(0, Tr::kMaxDepth)[0], 42.0f);
    expectAccurate(measure(v, c, "adaptive level set beside its property"),
                   "adaptive level set beside its property");
}

TYPED_TEST(VoxelizePoints, APropertyWithNoValuesGetsAChannelOfDefaults)
{
    using Tr = TypeParam;
    Cloud c;
    c.positions.push_back(f3(0.0, 0.01, 0.0));
    c.radii.push_back(0.2f);
    // The property's object has no points: its value array is empty.
    auto cloud = Geo::createPointCloud(Quillon::Array<float3>{});
    ASSERT_TRUE(Geo::setDataGeoProperty<float>(*cloud, "heat", Geo::sPointComp,
                                               Quillon::Array<float>{}, 5.0f));
    for (auto [name, o] : routes()) {
        o.properties = "heat";
        PointVolume<Tr> v(1.0f / 32);
        v.build(c, o, 0, cloud.get());
        EXPECT_TRUE(v.result);
        auto const ch = v.template channelOf<float>("voxel_heat");
        ASSERT_TRUE(ch) << name;
        for (int d = 0; d <= Tr::kMaxDepth; ++d)
            for (std::int64_t t = 0; t < v.container().tileCount(d); ++t)
                for (float x : ch->tileData(t, d))
                    ASSERT_EQ(x, 5.0f) << name;
        EXPECT_EQ(problems(v.services), 0) << name;
    }
}

TYPED_TEST(VoxelizePoints, APointThatReachesNoKeptTileContributesNothing)
{
    using Tr = TypeParam;
    float const h = 1.0f / 32;
    Cloud a;
    a.positions.push_back(f3(0.0, 0.0, 0.0));
    a.radii.push_back(0.2f);
    Options keep;
    keep.topologyType = TopologyTypeKeepTiles;
    PointVolume<Tr> one(h), two(h);
    one.build(a);
    two.build(a);
    one.build(a, keep);
    Cloud b = a;
    b.positions.push_back(f3(1e4, 1e4, 1e4)); // far beyond every tile
    b.radii.push_back(0.2f);
    two.build(b, keep);
    EXPECT_TRUE(two.result);
    EXPECT_EQ(problems(two.services), 0);
    auto const& ta = one.container();
    ASSERT_EQ(ta.tileCount(-1), two.container().tileCount(-1));
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < ta.tileCount(d); ++t) {
            auto const x = one.level().tileData(t, d);
            auto const y = two.level().tileData(t, d);
            ASSERT_EQ(std::memcmp(x.data(), y.data(), x.size() * sizeof(float)), 0) << d;
        }
}

TYPED_TEST(VoxelizePoints, ATileDeepInsideOneBigSphereIsNotRefined)
{
    using Tr = TypeParam;
    float const h = 1.0f / 64;
    Cloud c;
    c.positions.push_back(f3(0.003, -0.002, 0.001));
    c.radii.push_back(0.4f);
    PointVolume<Tr> v(h);
    v.build(c);
    auto const& tree = v.container();
    double const tileWidth = double(Container<Tr>::tileVoxelWidth(Tr::kMaxDepth)) * h;
    std::int64_t deep = 0;
    for (std::int64_t t = 0; t < tree.tileCount(Tr::kMaxDepth); ++t) {
        int3 const k = tree.tile(t, Tr::kMaxDepth).tijk();
        double const x = (k.x + 0.5 * tileWidth / h) * h - 0.003,
                     y = (k.y + 0.5 * tileWidth / h) * h + 0.002,
                     z = (k.z + 0.5 * tileWidth / h) * h - 0.001;
        if (std::sqrt(x * x + y * y + z * z) - 0.4 < -2.0 * tileWidth)
            ++deep;
    }
    EXPECT_GT(tree.tileCount(Tr::kMaxDepth), 0);
    EXPECT_EQ(deep, 0);
}

TEST(VoxelizePointsTraits24, AGapBetweenSmallSpheresThatNoNodeSeesIsRefinedByTheScan)
{
    using Tr = Traits24;
    float const h = 1.0f / 64;
    // Spheres on the odd voxel corners, which are the nodes of the second finest depth: every node
    // of that depth in the block lies inside, while the finest samples between them lie outside.
    Cloud c;
    for (int k = -6; k < 6; ++k)
        for (int j = -6; j < 6; ++j)
            for (int i = -6; i < 6; ++i)
                c.positions.push_back(f3((2 * i + 1) * h, (2 * j + 1) * h, (2 * k + 1) * h));
    c.radii.push_back(0.8f * h);
    PointVolume<Tr> v(h);
    v.build(c);
    auto acc = v.container().tileAccessor();
    auto const& tile = acc.tile(0, 0, 0, Tr::kMaxDepth);
    ASSERT_TRUE(tile.valid());
    EXPECT_EQ(tile.depth(), Tr::kMaxDepth);
    if (tile.depth() == Tr::kMaxDepth) {
        int i, j, k;
        tile.childDataIJK(0, 0, 0, i, j, k);
        EXPECT_GT(v.level().tileData(tile.treeIndex())(i, j, k), 0.0f);
    }
}

TYPED_TEST(VoxelizePoints, NoErrorToleranceRefinesEveryTileNearTheSurfaceToTheFinestDepth)
{
    using Tr = TypeParam;
    float const h = 1.0f / 64;
    Cloud c;
    c.positions.push_back(f3(0.01, 0.0, -0.01));
    c.radii.push_back(0.3f);
    PointVolume<Tr> v(h);
    v.build(c);
    auto acc = v.container().tileAccessor();
    std::mt19937 rng(1);
    std::normal_distribution<double> g;
    int missing = 0;
    for (int q = 0; q < 2000; ++q) {
        double d[3] = {g(rng), g(rng), g(rng)};
        double const n = std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
        double const p[3] = {0.01 + 0.3 * d[0] / n, 0.3 * d[1] / n, -0.01 + 0.3 * d[2] / n};
        auto const& t =
            acc.tile(std::int64_t(std::floor(p[0] / h)), std::int64_t(std::floor(p[1] / h)),
                     std::int64_t(std::floor(p[2] / h)), Tr::kMaxDepth);
        if (!t.valid() || t.depth() != Tr::kMaxDepth) {
            ++missing;
            if (std::getenv("HEXMOLD_POINTS_DEBUG"))
                std::cout << "missing at " << p[0] / h << " " << p[1] / h << " " << p[2] / h
                          << " depth " << t.depth() << " corner " << t.ti() << " " << t.tj() << " "
                          << t.tk() << "\n";
        }
    }
    EXPECT_EQ(missing, 0);
}

TYPED_TEST(VoxelizePoints, DetailSizesStopRefinementAtTheDepthTheyAskFor)
{
    using Tr = TypeParam;
    float const h = 1.0f / 64;
    float const detail = float(Tr::kRatio * Tr::kRatio) * h; // two depths above the finest
    // Spheres this large are refined along their surface, and the lists decide the depth.
    Cloud c;
    c.positions = {f3(0.0, 0.0, 0.0), f3(0.1, 0.05, -0.02)};
    c.radii.push_back(20.0f * h);
    Options o;
    o.adaptivity = AdaptivityDetailSizes;
    o.detailSizes = Quillon::Array<float>{detail, detail};
    o.useDetailSizes = true;
    PointVolume<Tr> v(h);
    v.build(c, o, 1);
    EXPECT_TRUE(v.result);
    EXPECT_NE(v.out.find("allocateAdaptivelyAlongSurface = 1"), std::string::npos) << v.out;
    auto const& tree = v.container();
    int deepest = -1;
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        if (tree.tileCount(d) > 0)
            deepest = d;
    EXPECT_EQ(deepest, Tr::kMaxDepth - 2);
}

/// The number printed after @p label in @p text, -1 when absent.
long long countAfter(std::string const& text, std::string const& label)
{
    auto const at = text.find(label);
    return at == std::string::npos ? -1 : std::atoll(text.c_str() + at + label.size());
}

TYPED_TEST(VoxelizePoints, DetailSizesOfSmallSpheresCoarsenAwayFromTheSurfaceAndGrade)
{
    using Tr = TypeParam;
    constexpr int kMax = Tr::kMaxDepth;
    constexpr int W = Tr::kTileWidth;
    float const h = 1.0f / 64;
    // Spheres small enough for the per-tile route, wider than a finest tile: the points' tiles
    // are dilated by whole blocks of tiles, then the tree is coarsened against the redistanced
    // level set and graded, which removes the tiles of the blocks far from the spheres.
    Cloud c = randomCloud(40, 5.0 * h, 7.0 * h, 7);
    for (auto& p : c.positions)
        p = f3(0.6 * p.x, 0.6 * p.y, 0.6 * p.z);
    Options o;
    o.adaptivity = AdaptivityDetailSizes;
    o.detailSizes = Quillon::Array<float>(c.positions.size(), h);
    o.useDetailSizes = true;
    PointVolume<Tr> v(h);
    v.build(c, o, 2);
    ASSERT_TRUE(v.result);
    ASSERT_NE(v.out.find("allocateAdaptivelyAlongSurface = 0"), std::string::npos) << v.out;
    ASSERT_GE(countAfter(v.out, "tileDilation = "), 2) << v.out;
    auto const& tree = v.container();
    EXPECT_EQ(tree.tileCount(-1), countAfter(v.out, "tileCount after coarsening and grading = "));
    EXPECT_TRUE(CoreGL::TileTree3D::checkGraded(tree, 0, kMax));

    auto const truth = [&c](double const x[3]) {
        double best = std::numeric_limits<double>::max();
        for (std::size_t i = 0; i < c.positions.size(); ++i) {
            float3 const& p = c.positions[i];
            best =
                std::min(best, std::sqrt((x[0] - p.x) * (x[0] - p.x) + (x[1] - p.y) * (x[1] - p.y) +
                                         (x[2] - p.z) * (x[2] - p.z)) -
                                   c.radius(i));
        }
        return best;
    };
    // A finest tile stays only when the level set at its centre lies within twice its width
    // (the band above the depth the points ask for is two widths): nothing coarser leans on a
    // finest tile for grading. The level set is exact there to a voxel. The dilated blocks
    // reach farther (three tiles around a point's tile, more than four widths from its sphere).
    double const width = double(Container<Tr>::tileVoxelWidth(kMax)) * h;
    for (std::int64_t t = 0; t < tree.tileCount(kMax); ++t) {
        double centre[3];
        for (int a = 0; a < 3; ++a)
            centre[a] = double(tree.tile(t, kMax).tijk()[a]) * h + 0.5 * width;
        EXPECT_LE(std::abs(truth(centre)), 2.0 * width + h) << "a finest tile far from the surface";
    }

    // The level set still holds the surface: every finest voxel farther than a voxel from the
    // union has the union's sign.
    std::int64_t checked = 0, wrong = 0;
    v.forEachFinestVoxel([&](Tile<Tr> const& tile, int n, float value) {
        double p[3];
        v.sample(tile, n, p);
        double const d0 = truth(p);
        if (std::abs(d0) <= h)
            return;
        ++checked;
        wrong += (d0 < 0.0) != (value < 0.0f);
    });
    EXPECT_GT(checked, 0);
    EXPECT_EQ(wrong, 0);
}

TYPED_TEST(VoxelizePoints, APointOutsideEveryResolutionFieldAllocatesNoTile)
{
    using Tr = TypeParam;
    float const h = 1.0f / 64;
    Cloud c;
    c.positions = {f3(-0.3, 0.0, 0.0), f3(0.3, 0.0, 0.0)};
    c.radii.push_back(0.05f);
    Options o;
    o.adaptivity = AdaptivityResolutionFields;
    o.fields.push_back(ResolutionField{{-0.45f, -0.15f, -0.15f}, {-0.15f, 0.15f, 0.15f}, 0});
    PointVolume<Tr> v(h);
    v.build(c, o);
    auto const& tree = v.container();
    std::int64_t nearA = 0, nearB = 0;
    for (std::int64_t t = 0; t < tree.tileCount(Tr::kMaxDepth); ++t) {
        double const x = tree.tile(t, Tr::kMaxDepth).ti() * double(h);
        (x < 0.0 ? nearA : nearB) += 1;
    }
    EXPECT_GT(nearA, 0);
    EXPECT_EQ(nearB, 0);
}

TYPED_TEST(VoxelizePoints, ZeroTileDilationLeavesTheTilesAtTheirDefault)
{
    using Tr = TypeParam;
    float const h = 1.0f / 32;
    Cloud a;
    a.positions.push_back(f3(0.0, 0.0, 0.0));
    a.radii.push_back(0.2f);
    PointVolume<Tr> v(h);
    v.build(a);
    // A point of no radius at the centre of a finest tile reaches no neighbour: no tile gets
    // candidates.
    auto const& tree = v.container();
    ASSERT_GT(tree.tileCount(Tr::kMaxDepth), 0);
    int3 const k = tree.tile(0, Tr::kMaxDepth).tijk();
    double const half = 0.5 * double(Tr::kTileWidth);
    Cloud b;
    b.positions.push_back(f3((k.x + half) * h, (k.y + half) * h, (k.z + half) * h));
    b.radii.push_back(0.0f);
    Options keep;
    keep.topologyType = TopologyTypeKeepTiles;
    v.build(b, keep, 1);
    EXPECT_NE(v.out.find("tileDilation = 0"), std::string::npos);
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < tree.tileCount(d); ++t)
            for (float x : v.level().tileData(t, d))
                ASSERT_EQ(std::abs(x), v.far);
}
