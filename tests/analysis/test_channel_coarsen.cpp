// Channel coarsening against a brute-force model written from world positions (the parent's
// samples, means under non-leaf voxels, the trilinear reading in the parent's samples with a rim
// from same-depth neighbours, or the linear extension where the neighbour is coarser, the
// bottom-up rule that a tile keeping a child stays), on sphere trees of both tree types: linear
// fields, reproduction within the tolerance, a zero error, a minimum detail size, a zero box side,
// a missing, mismatched or empty input and NaN arguments, the band, the error channel,
// levelSetCoarsen's lists and box, bad input, determinism, cancellation and the exports.
#include <gtest/gtest.h>

#include "fixtures/trees.h"
#include "support/analysis_scene.h"
#include "support/linked.h"
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <hexmold/analysis/channel_coarsen.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/quillon/job.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/platform/tavrel/math_support.h>
#include <hexmold/platform/tavrel/object.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/scene_conversion.h>
#include <limits>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

using namespace TVL::TileTree3D;
using VolumeGL::TileTree3D::channelCoarsen;
using VolumeGL::TileTree3D::LevelSet::levelSetCoarsen;

namespace {

using Key = testtrees::TileKey;
using testtrees::tileSet;
namespace G = Tavrel::Geometry;

template <typename Tr> class ChannelCoarsen : public ::testing::Test {
};
template <typename Tr> class LevelSetCoarsen : public ::testing::Test {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(ChannelCoarsen, TraitsTypes, TraitsNames);
TYPED_TEST_SUITE(LevelSetCoarsen, TraitsTypes, TraitsNames);

constexpr float kVoxel = 0.25f; ///< finest voxel, world units
constexpr double kRadius = 6.0; ///< sphere radius, finest voxels
/// Rounding of a linear field in double precision at positions up to ~1e8 world units (the
/// coarsest voxels of the tree lie that far out): a few ulps of values of that size.
constexpr double kLinearTol = 1e-6;
/// Slack of the reproduction check: the model forms the means under non-leaf voxels on its own,
/// which may differ from the library's in the last bit of a float.
constexpr double kMeanSlack = 1e-5;

template <typename Tr> testscene::Scene<Tr> sphereScene()
{
    testscene::Scene<Tr> s(kVoxel);
    s.buildGradedSphere(kRadius, 1.0);
    return s;
}

template <typename Tr> Container<Tr> const& treeOf(TVL::Object const& o)
{
    return *o.component<Container<Tr>>(G::sVoxelTileTree);
}

/// The tree and one scalar channel as they stand before a call, the non-leaf voxels holding the
/// mean of the voxels below them, and the decisions of coarsening made from world positions.
template <typename Tr, typename T> struct Model {
    static constexpr int W = Tr::kTileWidth;
    static constexpr int R = Tr::kRatio;
    static constexpr int VPS = Tr::kVoxelsPerSlot;
    Container<Tr> tree;
    double h;
    std::vector<std::vector<std::vector<double>>> values; ///< [depth][tile][voxel]

    static int at(int i, int j, int k) { return i + W * (j + W * k); }

    Model(testscene::Scene<Tr> const& s, char const* name) : tree(s.tree()), h(s.tree().voxelSize())
    {
        auto const& ch = s.template channel<T>(name);
        values.resize(Tr::kDepthCount);
        for (int d = 0; d <= Tr::kMaxDepth; ++d)
            for (std::int64_t t = 0; t < tree.tileCount(d); ++t) {
                auto const td = ch.tileData(t, d);
                std::vector<double> v(std::size_t(W) * W * W);
                for (int n = 0; n < W * W * W; ++n)
                    v[n] = double(td(std::size_t(n)));
                values[d].push_back(std::move(v));
            }
        for (int d = Tr::kMaxDepth - 1; d >= 0; --d)
            for (std::int64_t t = 0; t < tree.tileCount(d); ++t) {
                auto const& tile = tree.tile(t, d);
                for (int k = 0; k < W; ++k)
                    for (int j = 0; j < W; ++j)
                        for (int i = 0; i < W; ++i) {
                            std::int64_t const c = tile.childIndex(i / VPS, j / VPS, k / VPS);
                            if (c < 0)
                                continue;
                            double sum = 0.0;
                            for (int qk = 0; qk < R; ++qk)
                                for (int qj = 0; qj < R; ++qj)
                                    for (int qi = 0; qi < R; ++qi)
                                        sum += values[d + 1][c]
                                                     [at((i % VPS) * R + qi, (j % VPS) * R + qj,
                                                         (k % VPS) * R + qk)];
                            values[d][t][at(i, j, k)] =
                                double(static_cast<T>(sum / double(R * R * R)));
                        }
            }
    }

    /// Squared difference between voxel (i, j, k) of child tile @p c of depth @p d and the parent's
    /// trilinear reading at the voxel's centre.
    double errorSquared(int d, std::int64_t c, int i, int j, int k) const
    {
        auto const& child = tree.tile(c, d);
        auto const& parent = tree.tile(child.parent(), d - 1);
        double const wc = double(Tr::voxelDataWidth(d)), wp = double(Tr::voxelDataWidth(d - 1));
        int const ijk[3] = {i, j, k};
        int const cc[3] = {child.ti(), child.tj(), child.tk()};
        int const pc[3] = {parent.ti(), parent.tj(), parent.tk()};
        int cell[3];
        double f[3];
        for (int a = 0; a < 3; ++a) {
            double const x = double(cc[a]) + (ijk[a] + 0.5) * wc;
            double const u = (x - double(pc[a])) / wp - 0.5;
            cell[a] = std::clamp(int(std::floor(u)), -1, W - 1);
            f[a] = u - cell[a];
        }
        auto v = [&](int x, int y, int z) { return parentSample(d - 1, parent.index(), x, y, z); };
        auto lerp = [](double a, double b, double t) { return a + t * (b - a); };
        double const y0 =
            lerp(lerp(v(0 + cell[0], cell[1], cell[2]), v(1 + cell[0], cell[1], cell[2]), f[0]),
                 lerp(v(cell[0], 1 + cell[1], cell[2]), v(1 + cell[0], 1 + cell[1], cell[2]), f[0]),
                 f[1]);
        double const y1 =
            lerp(lerp(v(cell[0], cell[1], 1 + cell[2]), v(1 + cell[0], cell[1], 1 + cell[2]), f[0]),
                 lerp(v(cell[0], 1 + cell[1], 1 + cell[2]),
                      v(1 + cell[0], 1 + cell[1], 1 + cell[2]), f[0]),
                 f[1]);
        double const diff = lerp(y0, y1, f[2]) - values[d][c][at(i, j, k)];
        return diff * diff;
    }

    /// The same-depth tile next to tile @p t of depth @p d in direction (dx, dy, dz), or -1.
    std::int64_t neighbour(int d, std::int64_t t, int dx, int dy, int dz) const
    {
        auto const& tile = tree.tile(t, d);
        std::int64_t const w = Tr::tileVoxelWidth(d);
        for (std::int64_t n = 0; n < tree.tileCount(d); ++n) {
            auto const& o = tree.tile(n, d);
            if (o.ti() == tile.ti() + dx * w && o.tj() == tile.tj() + dy * w &&
                o.tk() == tile.tk() + dz * w)
                return n;
        }
        return -1;
    }

    /// Sample (x, y, z) of tile @p t, each coordinate in [-1, W]: the tile's own, a same-depth
    /// neighbour's, or where there is none the linear extension of the tile's samples, one axis
    /// after the other (x, y, z).
    double parentSample(int d, std::int64_t t, int x, int y, int z) const
    {
        int const p[3] = {x, y, z};
        int s[3];
        for (int a = 0; a < 3; ++a)
            s[a] = p[a] < 0 ? -1 : p[a] >= W ? 1 : 0;
        if (s[0] == 0 && s[1] == 0 && s[2] == 0)
            return values[d][t][at(x, y, z)];
        std::int64_t const n = neighbour(d, t, s[0], s[1], s[2]);
        if (n >= 0)
            return values[d][n][at(x - s[0] * W, y - s[1] * W, z - s[2] * W)];
        // The last axis that leaves the tile is extended, from samples that may leave it on the
        // earlier axes only.
        int axis = 2;
        while (s[axis] == 0)
            --axis;
        int q0[3] = {x, y, z}, q1[3] = {x, y, z};
        q0[axis] = s[axis] < 0 ? 0 : W - 1;
        q1[axis] = s[axis] < 0 ? 1 : W - 2;
        return 2.0 * parentSample(d, t, q0[0], q0[1], q0[2]) -
               parentSample(d, t, q1[0], q1[1], q1[2]);
    }
    double maxErrorSquared(int d, std::int64_t c) const
    {
        double m = 0.0;
        for (int k = 0; k < W; ++k)
            for (int j = 0; j < W; ++j)
                for (int i = 0; i < W; ++i)
                    m = std::max(m, errorSquared(d, c, i, j, k));
        return m;
    }

    static double squared(double tol) { return tol >= 0.0 ? tol * tol : -1.0; }

    /// The tiles that survive the interpolation test of channelCoarsen.
    std::set<Key> afterTest(double tol, double minDetailSize) const
    {
        std::vector<std::vector<char>> candidate(Tr::kDepthCount), removed(Tr::kDepthCount);
        for (int d = 0; d <= Tr::kMaxDepth; ++d) {
            candidate[d].assign(std::size_t(tree.tileCount(d)), 1);
            removed[d].assign(std::size_t(tree.tileCount(d)), 0);
        }
        for (int d = Tr::kMaxDepth - 1; d >= 0; --d)
            for (std::int64_t t = 0; t < tree.tileCount(d); ++t)
                for (int s = 0; s < Tr::kChildCount; ++s) {
                    std::int64_t const c = tree.tile(t, d).childIndex(s);
                    if (c < 0)
                        continue;
                    if (minDetailSize > double(Tr::voxelDataWidth(d + 1)) * double(float(h))) {
                        removed[d + 1][c] = 1;
                        continue;
                    }
                    if (candidate[d + 1][c] && maxErrorSquared(d + 1, c) <= squared(tol))
                        removed[d + 1][c] = 1;
                    else
                        candidate[d][t] = 0;
                }
        return survivors(removed);
    }

    /// The tiles that survive the band: flagged by a voxel of magnitude below the limit, or by a
    /// flagged descendant.
    std::set<Key> afterBand(double bandWidth, bool inVoxels) const
    {
        std::vector<std::vector<char>> flag(Tr::kDepthCount), removed(Tr::kDepthCount);
        for (int d = Tr::kMaxDepth; d >= 0; --d) {
            flag[d].assign(std::size_t(tree.tileCount(d)), 0);
            removed[d].assign(std::size_t(tree.tileCount(d)), 0);
            double const limit = bandWidth * (inVoxels ? double(Tr::voxelDataWidth(d)) : 1.0);
            for (std::int64_t t = 0; t < tree.tileCount(d); ++t) {
                for (double v : values[d][t])
                    flag[d][t] = flag[d][t] || std::abs(v) < limit;
                for (int s = 0; s < Tr::kChildCount && d < Tr::kMaxDepth; ++s) {
                    std::int64_t const c = tree.tile(t, d).childIndex(s);
                    if (c >= 0 && flag[d + 1][c])
                        flag[d][t] = 1;
                }
                removed[d][t] = !flag[d][t];
            }
        }
        return survivors(removed);
    }

    /// Per depth, the children whose parents reproduce them (levelSetCoarsen's lists).
    std::vector<std::vector<std::int64_t>> reproducedChildren(double tol) const
    {
        std::vector<std::vector<std::int64_t>> lists(29);
        for (int d = 1; d <= Tr::kMaxDepth; ++d)
            for (std::int64_t c = 0; c < tree.tileCount(d); ++c)
                if (maxErrorSquared(d, c) <= squared(tol))
                    lists[d].push_back(c);
        return lists;
    }

    /// Largest side, in finest voxels, of the box of the voxels whose value is not positive.
    std::int64_t interiorSide() const
    {
        std::int64_t lo[3] = {INT64_MAX, INT64_MAX, INT64_MAX},
                     hi[3] = {INT64_MIN, INT64_MIN, INT64_MIN};
        for (int d = 0; d <= Tr::kMaxDepth; ++d)
            for (std::int64_t t = 0; t < tree.tileCount(d); ++t) {
                auto const& tile = tree.tile(t, d);
                std::int64_t const w = Tr::voxelDataWidth(d);
                for (int k = 0; k < W; ++k)
                    for (int j = 0; j < W; ++j)
                        for (int i = 0; i < W; ++i) {
                            if (values[d][t][at(i, j, k)] > 0.0)
                                continue;
                            std::int64_t const c[3] = {tile.ti() + i * w, tile.tj() + j * w,
                                                       tile.tk() + k * w};
                            for (int a = 0; a < 3; ++a) {
                                lo[a] = std::min(lo[a], c[a]);
                                hi[a] = std::max(hi[a], c[a] + w);
                            }
                        }
            }
        if (lo[0] > hi[0])
            return 0;
        return std::max({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]});
    }

private:
    std::set<Key> survivors(std::vector<std::vector<char>> removed) const
    {
        std::set<Key> out;
        for (int d = 0; d <= Tr::kMaxDepth; ++d)
            for (std::int64_t t = 0; t < tree.tileCount(d); ++t) {
                auto const& tile = tree.tile(t, d);
                if (d > 0 && removed[d - 1][tile.parent()])
                    removed[d][t] = 1;
                if (!removed[d][t])
                    out.emplace(d, tile.ti(), tile.tj(), tile.tk());
            }
        return out;
    }
};

/// Reports the first differences of two tile sets.
void expectSameTiles(std::set<Key> const& got, std::set<Key> const& expected)
{
    EXPECT_EQ(got.size(), expected.size());
    int shown = 0;
    for (Key const& k : expected)
        if (!got.count(k) && shown++ < 5)
            ADD_FAILURE() << "missing " << std::get<0>(k) << " " << std::get<1>(k) << " "
                          << std::get<2>(k) << " " << std::get<3>(k);
    for (Key const& k : got)
        if (!expected.count(k) && shown++ < 10)
            ADD_FAILURE() << "extra " << std::get<0>(k) << " " << std::get<1>(k) << " "
                          << std::get<2>(k) << " " << std::get<3>(k);
}

/// The topology and the channels named follow the tree.
template <typename Tr>
void expectInStep(TVL::Object const& o, std::vector<char const*> const& floatChannels)
{
    auto const& tree = treeOf<Tr>(o);
    auto const& topology = *o.component<VoxelTopology<Tr>>(G::sVoxelComp);
    for (int d = 0; d <= Tr::kMaxDepth; ++d) {
        EXPECT_EQ(topology.tileCount(d), tree.tileCount(d)) << d;
        for (char const* name : floatChannels) {
            auto const ch = o.component<VoxelChannel<Tr, float>>(name);
            ASSERT_TRUE(ch) << name;
            EXPECT_EQ(ch->tileCount(d), tree.tileCount(d)) << name << " at depth " << d;
        }
    }
}

double bump(double x, double y, double z)
{
    return 1.0 / (1.0 + (x * x + y * y + z * z) / 4.0);
}

/// A float channel "bump" and the sphere's distance "phi" on the sphere tree.
template <typename Tr> testscene::Scene<Tr> bumpScene()
{
    auto s = sphereScene<Tr>();
    s.template addScalar<float>("bump", bump, false);
    double const r = kRadius * kVoxel;
    s.template addScalar<float>(
        "phi", [r](double x, double y, double z) { return std::sqrt(x * x + y * y + z * z) - r; },
        false);
    return s;
}

} // namespace

TYPED_TEST(ChannelCoarsen, LinearFieldCoarsensAwayCompletely)
{
    using Tr = TypeParam;
    auto s = sphereScene<Tr>();
    s.template addScalar<double>(
        "ramp", [](double x, double y, double z) { return 0.3 * x - 0.2 * y + 0.1 * z + 2.0; },
        false);
    s.template addScalar<float>(
        "other", [](double, double, double) { return 1.0; }, false);
    ASSERT_GT(s.tree().tileCount(Tr::kMaxDepth), 0);
    EXPECT_TRUE(channelCoarsen("ramp", 0.0f, float(kLinearTol), false, 0.0f, *s.object, "test."));
    auto const& tree = treeOf<Tr>(*s.object);
    EXPECT_EQ(tree.tileCount(-1), 1); // the root alone
    EXPECT_EQ(tree.tileCount(0), 1);
    auto const ramp = s.object->template component<VoxelChannel<Tr, double>>("ramp");
    ASSERT_TRUE(ramp);
    EXPECT_EQ(ramp->tileCount(0), 1);
    EXPECT_EQ(ramp->tileCount(1), 0);
    expectInStep<Tr>(*s.object, {"other"});
}

TYPED_TEST(ChannelCoarsen, VectorAndIntegerElementsCoarsenToo)
{
    using Tr = TypeParam;
    // A linear double3 field: the error sums the squares over the components.
    auto a = sphereScene<Tr>();
    a.template add<double3>("ramp3", [&](Tile<Tr> const& t, int i, int j, int k) {
        auto const p = a.position(t, i, j, k, false);
        return double3{p.x + 1.0, 2.0 * p.y, -p.z};
    });
    EXPECT_TRUE(channelCoarsen("ramp3", 0.0f, float(kLinearTol), false, 0.0f, *a.object, "test."));
    EXPECT_EQ(treeOf<Tr>(*a.object).tileCount(-1), 1);
    // A constant integer field is reproduced exactly.
    auto b = sphereScene<Tr>();
    b.template add<Int32>("count", [](Tile<Tr> const&, int, int, int) { return 7; });
    EXPECT_TRUE(channelCoarsen("count", 0.0f, 0.0f, false, 0.0f, *b.object, "test."));
    EXPECT_EQ(treeOf<Tr>(*b.object).tileCount(-1), 1);
    // A vector with one component off in one voxel keeps that voxel's tile.
    auto c = sphereScene<Tr>();
    c.template add<float3>("flow", [](Tile<Tr> const& t, int i, int j, int k) {
        bool const odd = t.depth() == Tr::kMaxDepth && t.index() == 0 && i + j + k == 0;
        return float3{1.0f, odd ? 2.0f : 1.0f, 1.0f};
    });
    auto const& first = c.tree().tile(0, Tr::kMaxDepth);
    Key const odd{Tr::kMaxDepth, first.ti(), first.tj(), first.tk()};
    std::size_t const before = tileSet(c.tree()).size();
    EXPECT_TRUE(channelCoarsen("flow", 0.0f, 0.5f, false, 0.0f, *c.object, "test."));
    auto const after = tileSet(treeOf<Tr>(*c.object));
    EXPECT_EQ(after.count(odd), 1u);
    EXPECT_LT(after.size(), before);
}

TYPED_TEST(ChannelCoarsen, RemovedTilesAreReproducedByTheirParentsWithinTheTolerance)
{
    using Tr = TypeParam;
    auto s = bumpScene<Tr>();
    constexpr double kTol = 0.01;
    Model<Tr, float> const model(s, "bump");
    auto const before = tileSet(s.tree());
    EXPECT_TRUE(channelCoarsen("bump", 0.0f, float(kTol), false, 0.0f, *s.object, "test."));
    auto const after = tileSet(treeOf<Tr>(*s.object));
    EXPECT_LT(after.size(), before.size());
    EXPECT_GT(after.size(), 1u);
    // Every removed tile against its parent's values before the call.
    std::size_t checked = 0;
    for (int d = 1; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t c = 0; c < model.tree.tileCount(d); ++c) {
            auto const& tile = model.tree.tile(c, d);
            if (after.count(Key{d, tile.ti(), tile.tj(), tile.tk()}))
                continue;
            EXPECT_LE(std::sqrt(model.maxErrorSquared(d, c)), kTol + kMeanSlack)
                << "depth " << d << " tile " << c;
            ++checked;
        }
    EXPECT_EQ(checked, before.size() - after.size());
    expectSameTiles(after, model.afterTest(kTol, 0.0));
    expectInStep<Tr>(*s.object, {"bump", "phi"});
}

TYPED_TEST(ChannelCoarsen, ZeroErrorRemovesOnlyChildrenTheParentReproducesExactly)
{
    using Tr = TypeParam;
    auto s = sphereScene<Tr>();
    s.template addScalar<float>(
        "flat", [](double, double, double) { return 3.0; }, false);
    {
        // One finest voxel differs.
        auto flat = s.object->template component<VoxelChannel<Tr, float>>("flat");
        flat->tileData(0, Tr::kMaxDepth)(0, 0, 0) = 4.0f;
    }
    auto const& deepest = s.tree().tile(0, Tr::kMaxDepth);
    Key const odd{Tr::kMaxDepth, deepest.ti(), deepest.tj(), deepest.tk()};
    Model<Tr, float> const model(s, "flat");
    auto const before = tileSet(s.tree());
    EXPECT_TRUE(channelCoarsen("flat", 0.0f, 0.0f, false, 0.0f, *s.object, "test."));
    auto const after = tileSet(treeOf<Tr>(*s.object));
    EXPECT_EQ(after.count(odd), 1u);
    EXPECT_LT(after.size(), before.size());
    for (int d = 1; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t c = 0; c < model.tree.tileCount(d); ++c) {
            auto const& tile = model.tree.tile(c, d);
            if (!after.count(Key{d, tile.ti(), tile.tj(), tile.tk()}))
                EXPECT_EQ(model.maxErrorSquared(d, c), 0.0);
        }
    expectSameTiles(after, model.afterTest(0.0, 0.0));
}

TYPED_TEST(ChannelCoarsen, MinDetailSizeRemovesChildrenWhereTheErrorIsLarge)
{
    using Tr = TypeParam;
    auto s = sphereScene<Tr>();
    std::mt19937 random(7);
    std::uniform_real_distribution<float> noise(-1.0f, 1.0f);
    s.template add<float>("noise", [&](Tile<Tr> const&, int, int, int) { return noise(random); });
    Model<Tr, float> const model(s, "noise");
    auto before = tileSet(s.tree());
    // Finer than asked for: only the deepest tiles, whose voxels are kVoxel wide.
    float const minDetailSize = 1.5f * kVoxel;
    EXPECT_TRUE(channelCoarsen("noise", minDetailSize, 0.0f, false, 0.0f, *s.object, "test."));
    auto const after = tileSet(treeOf<Tr>(*s.object));
    EXPECT_EQ(treeOf<Tr>(*s.object).tileCount(Tr::kMaxDepth), 0);
    std::erase_if(before, [](Key const& k) { return std::get<0>(k) == Tr::kMaxDepth; });
    expectSameTiles(after, before); // the noise keeps every other tile
    expectSameTiles(after, model.afterTest(0.0, minDetailSize));
}

TYPED_TEST(ChannelCoarsen, BandDropsExactlyTheTilesOutsideTheBand)
{
    using Tr = TypeParam;
    auto s = bumpScene<Tr>();
    constexpr double kBand = 2.0; // world units: "phi" is not the signed distance by name
    Model<Tr, float> const model(s, "phi");
    auto const before = tileSet(s.tree());
    int const saved = CoreGL::Logger::verboseLevel();
    CoreGL::Logger::setVerboseLevel(2);
    ::testing::internal::CaptureStdout();
    bool const done = channelCoarsen("phi", 0.0f, -1.0f, false, float(kBand), *s.object, "test.");
    std::string const out = ::testing::internal::GetCapturedStdout();
    CoreGL::Logger::setVerboseLevel(saved);
    EXPECT_TRUE(done);
    auto const after = tileSet(treeOf<Tr>(*s.object));
    EXPECT_LT(after.size(), before.size());
    expectSameTiles(after, model.afterBand(kBand, false));
    expectInStep<Tr>(*s.object, {"bump", "phi"});
    for (char const* line :
         {"isSDF = 0", "Num Voxels before coarsening based on narrow band width = ", "Removing ",
          " tiles at depth 0", "numVoxels after pruning = "})
        EXPECT_NE(out.find(line), std::string::npos) << line;
}

TYPED_TEST(ChannelCoarsen, BandCountsTileVoxelsForTheSignedDistance)
{
    using Tr = TypeParam;
    auto s = sphereScene<Tr>();
    double const r = kRadius * kVoxel;
    s.template addScalar<float>(
        G::sVoxelSignedDistance.c_str(),
        [r](double x, double y, double z) { return std::sqrt(x * x + y * y + z * z) - r; }, false);
    constexpr double kBand = 0.1; // the limit is 0.1 times the tile's voxel width in finest voxels
    Model<Tr, float> const model(s, G::sVoxelSignedDistance.c_str());
    int const saved = CoreGL::Logger::verboseLevel();
    CoreGL::Logger::setVerboseLevel(2);
    ::testing::internal::CaptureStdout();
    bool const done = channelCoarsen(G::sVoxelSignedDistance, 0.0f, -1.0f, false, float(kBand),
                                     *s.object, "test.");
    std::string const out = ::testing::internal::GetCapturedStdout();
    CoreGL::Logger::setVerboseLevel(saved);
    EXPECT_TRUE(done);
    EXPECT_NE(out.find("isSDF = 1"), std::string::npos);
    auto const expected = model.afterBand(kBand, true);
    EXPECT_LT(expected.size(), tileSet(model.tree).size());
    expectSameTiles(tileSet(treeOf<Tr>(*s.object)), expected);
}

TYPED_TEST(ChannelCoarsen, StoredErrorIsTheRootOfTheErrorOfEveryRemainingTestedChild)
{
    using Tr = TypeParam;
    constexpr int W = Tr::kTileWidth;
    auto s = bumpScene<Tr>();
    constexpr double kTol = 0.01;
    Model<Tr, float> const model(s, "bump");
    EXPECT_TRUE(channelCoarsen("bump", 0.0f, float(kTol), true, 0.0f, *s.object, "test."));
    expectInStep<Tr>(*s.object, {"bump", "phi", G::sVoxelSamplingError.c_str()});
    auto const& tree = treeOf<Tr>(*s.object);
    auto const error =
        s.object->template component<VoxelChannel<Tr, float>>(G::sVoxelSamplingError);
    ASSERT_TRUE(error);
    // Tiles keep their order in a removal: match the survivors to the model's tiles by corner.
    std::size_t checked = 0;
    for (int d = 1; d <= Tr::kMaxDepth; ++d) {
        std::int64_t m = 0;
        for (std::int64_t t = 0; t < tree.tileCount(d); ++t) {
            auto const& tile = tree.tile(t, d);
            while (model.tree.tile(m, d).tijk() != tile.tijk())
                ++m;
            auto const e = error->tileData(t, d);
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i) {
                        double const expected = std::sqrt(model.errorSquared(d, m, i, j, k));
                        EXPECT_NEAR(e(i, j, k), expected, kMeanSlack + 1e-6 * expected);
                    }
            ++checked;
        }
    }
    EXPECT_GT(checked, 0u);
    for (float v : error->tileData(0, 0))
        EXPECT_EQ(v, 0.0f);
}

TYPED_TEST(ChannelCoarsen, OneAndAllThreadsGiveTheSameTilesAndBits)
{
    using Tr = TypeParam;
    auto a = bumpScene<Tr>();
    auto b = bumpScene<Tr>();
    {
        TVL::Parallel::global_control limit(TVL::Parallel::global_control::max_allowed_parallelism,
                                            1);
        EXPECT_TRUE(channelCoarsen("bump", 0.0f, 0.01f, true, 0.2f, *a.object, "test."));
    }
    EXPECT_TRUE(channelCoarsen("bump", 0.0f, 0.01f, true, 0.2f, *b.object, "test."));
    auto const& ta = treeOf<Tr>(*a.object);
    auto const& tb = treeOf<Tr>(*b.object);
    EXPECT_LT(ta.tileCount(-1), a.tree().tileCount(-1) + 1);
    for (char const* name : {"bump", "phi", G::sVoxelSamplingError.c_str()}) {
        auto const ca = a.object->template component<VoxelChannel<Tr, float>>(name);
        auto const cb = b.object->template component<VoxelChannel<Tr, float>>(name);
        ASSERT_TRUE(ca && cb) << name;
        for (int d = 0; d <= Tr::kMaxDepth; ++d) {
            ASSERT_EQ(ta.tileCount(d), tb.tileCount(d));
            for (std::int64_t t = 0; t < ta.tileCount(d); ++t) {
                EXPECT_EQ(ta.tile(t, d).tijk(), tb.tile(t, d).tijk());
                auto const da = ca->tileData(t, d), db = cb->tileData(t, d);
                ASSERT_EQ(da.size(), db.size());
                EXPECT_EQ(std::memcmp(da.data(), db.data(), da.size() * sizeof(float)), 0) << name;
            }
        }
    }
}

namespace {
std::atomic<int> gCoarsenTimerReports{0};
void countCoarsenTimer(Quillon::StringView name, double)
{
    if (name == "test.coarsen")
        ++gCoarsenTimerReports;
}
} // namespace

TYPED_TEST(ChannelCoarsen, CancellationThrowsAndLeavesTheObjectUsable)
{
    using Tr = TypeParam;
    auto s = bumpScene<Tr>();
    auto fresh = bumpScene<Tr>();
    auto const names = s.object->componentRange();
    auto const before = tileSet(s.tree());
    gCoarsenTimerReports = 0;
    CoreGL::Logger::setTimerObserver(&countCoarsenTimer);
    Quillon::requestJobCancellation();
    auto const t0 = std::chrono::steady_clock::now();
    bool thrown = false;
    try {
        channelCoarsen("bump", 0.0f, 0.01f, true, 0.2f, *s.object, "test.");
    } catch (std::runtime_error const& e) {
        thrown = true;
        EXPECT_EQ(std::string(e.what()), TVL::exceptionMessage);
    }
    double const seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    Quillon::clearJobCancellation();
    CoreGL::Logger::setTimerObserver(nullptr);
    EXPECT_TRUE(thrown);
    EXPECT_LT(seconds, 5.0);
    EXPECT_EQ(gCoarsenTimerReports.load(), 1); // the stage timer ends while unwinding too
    // Every component is back, in step with the tree, and a later call runs as on a fresh object.
    for (auto const& name : names)
        EXPECT_TRUE(s.object->hasComponentFromName(name)) << name;
    expectSameTiles(tileSet(treeOf<Tr>(*s.object)), before);
    expectInStep<Tr>(*s.object, {"bump", "phi"});
    EXPECT_TRUE(channelCoarsen("bump", 0.0f, 0.01f, true, 0.2f, *s.object, "test."));
    EXPECT_TRUE(channelCoarsen("bump", 0.0f, 0.01f, true, 0.2f, *fresh.object, "test."));
    expectSameTiles(tileSet(treeOf<Tr>(*s.object)), tileSet(treeOf<Tr>(*fresh.object)));
}

TYPED_TEST(ChannelCoarsen, GeometryObjectFormMovesTheVolumeInAndBack)
{
    using Tr = TypeParam;
    auto s = bumpScene<Tr>();
    auto reference = bumpScene<Tr>();
    EXPECT_TRUE(channelCoarsen("bump", 0.0f, 0.01f, false, 0.0f, *reference.object, "test."));
    auto geometry = Quillon::MutablePtr<Tavrel::Object>(
        new Tavrel::Object(G::move_tvl_volume_to_object(*s.object)));
    geometry->setProperty("note", Quillon::Any(3));
    EXPECT_TRUE(channelCoarsen("bump", 0.0f, 0.01f, false, 0.0f, geometry, "test."));
    EXPECT_TRUE(geometry->hasProperty("note"));
    TVL::Object back = G::move_object_to_tvl_volume(*geometry);
    ASSERT_TRUE(back.component<Container<Tr>>(G::sVoxelTileTree));
    expectSameTiles(tileSet(treeOf<Tr>(back)), tileSet(treeOf<Tr>(*reference.object)));
    expectInStep<Tr>(back, {"bump", "phi"});
}

TYPED_TEST(LevelSetCoarsen, ListsHoldExactlyTheChildrenTheirParentsReproduce)
{
    using Tr = TypeParam;
    auto s = bumpScene<Tr>();
    Model<Tr, float> const model(s, "phi");
    // A box side that puts the tolerance between the errors of the middle two children.
    std::vector<double> errors;
    for (int d = 1; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t c = 0; c < model.tree.tileCount(d); ++c)
            errors.push_back(std::sqrt(model.maxErrorSquared(d, c)));
    std::sort(errors.begin(), errors.end());
    ASSERT_GT(errors.size(), 2u);
    double const middle = 0.5 * (errors[errors.size() / 2] + errors[errors.size() / 2 + 1]);
    constexpr float kRelative = 0.01f;
    float const kSide = float(middle / (double(kRelative) * kVoxel));
    TVL::ComponentGuard<Container<Tr>> tree(*s.object, G::sVoxelTileTree);
    TVL::ComponentGuard<VoxelTopology<Tr>> topology(*s.object, G::sVoxelComp);
    TVL::ComponentGuard<VoxelChannel<Tr, float>> phi(*s.object, "phi");
    auto const before = tileSet(*tree);
    int const saved = CoreGL::Logger::verboseLevel();
    CoreGL::Logger::setVerboseLevel(1);
    ::testing::internal::CaptureStdout();
    auto const lists = levelSetCoarsen<Tr>(0.0f, kRelative, *tree, *topology, *phi, nullptr, kSide);
    std::string const out = ::testing::internal::GetCapturedStdout();
    CoreGL::Logger::setVerboseLevel(saved);
    ASSERT_EQ(lists.size(), 29u);
    auto const expected =
        model.reproducedChildren(double(kRelative) * double(kVoxel) * double(kSide));
    std::size_t listed = 0, total = 0;
    for (int d = 0; d < 29; ++d) {
        EXPECT_EQ(lists[d], expected[d]) << "depth " << d;
        EXPECT_TRUE(std::is_sorted(lists[d].begin(), lists[d].end()));
        listed += lists[d].size();
    }
    for (int d = 1; d <= Tr::kMaxDepth; ++d)
        total += std::size_t(tree->tileCount(d));
    EXPECT_GT(listed, 0u);
    EXPECT_LT(listed, total);
    EXPECT_EQ(tileSet(*tree), before); // nothing is removed here
    for (char const* line : {"levelset_coarsen.begin", "in_voxelSize = 0.25",
                             "in_maxRelativeError = 0.01", "in_bboxMaxSideLength = ",
                             "Num Voxels before adaptive coarsening = ", "levelset_coarsen.end"})
        EXPECT_NE(out.find(line), std::string::npos) << line;
}

TYPED_TEST(LevelSetCoarsen, ZeroBoxSideMeasuresTheInteriorBox)
{
    using Tr = TypeParam;
    auto s = bumpScene<Tr>();
    Model<Tr, float> const model(s, "phi");
    TVL::ComponentGuard<Container<Tr>> tree(*s.object, G::sVoxelTileTree);
    TVL::ComponentGuard<VoxelTopology<Tr>> topology(*s.object, G::sVoxelComp);
    TVL::ComponentGuard<VoxelChannel<Tr, float>> phi(*s.object, "phi");
    int const saved = CoreGL::Logger::verboseLevel();
    CoreGL::Logger::setVerboseLevel(2);
    ::testing::internal::CaptureStdout();
    auto const measured = levelSetCoarsen<Tr>(0.0f, 0.01f, *tree, *topology, *phi, nullptr, 0.0f);
    std::string const out = ::testing::internal::GetCapturedStdout();
    CoreGL::Logger::setVerboseLevel(saved);
    float const side = float(model.interiorSide()) * kVoxel;
    EXPECT_GT(side, 0.0f);
    auto const at = out.find("\nSideLength = "); // not the argument line "in_bboxMaxSideLength = "
    ASSERT_NE(at, std::string::npos) << out;
    EXPECT_FLOAT_EQ(std::stof(out.substr(at + 14)), side);
    auto const given = levelSetCoarsen<Tr>(0.0f, 0.01f, *tree, *topology, *phi, nullptr, side);
    EXPECT_EQ(measured, given);
}

TYPED_TEST(LevelSetCoarsen, StoredMaximumRelativeErrorOnlyGrows)
{
    using Tr = TypeParam;
    auto s = bumpScene<Tr>();
    TVL::ComponentGuard<Container<Tr>> tree(*s.object, G::sVoxelTileTree);
    TVL::ComponentGuard<VoxelTopology<Tr>> topology(*s.object, G::sVoxelComp);
    TVL::ComponentGuard<VoxelChannel<Tr, float>> phi(*s.object, "phi");
    tree->setMaxRelativeRefinementError(0.5f);
    levelSetCoarsen<Tr>(0.0f, 0.1f, *tree, *topology, *phi, nullptr, 10.0f);
    EXPECT_EQ(tree->maxRelativeRefinementError(), 0.5f);
    levelSetCoarsen<Tr>(0.0f, 0.7f, *tree, *topology, *phi, nullptr, 10.0f);
    EXPECT_EQ(tree->maxRelativeRefinementError(), 0.7f);
    levelSetCoarsen<Tr>(0.0f, 0.2f, *tree, *topology, *phi, nullptr, 10.0f);
    EXPECT_EQ(tree->maxRelativeRefinementError(), 0.7f);
}

TYPED_TEST(LevelSetCoarsen, ErrorChannelReceivesTheRootOfTheErrorOfEveryChild)
{
    using Tr = TypeParam;
    constexpr int W = Tr::kTileWidth;
    auto s = bumpScene<Tr>();
    Model<Tr, float> const model(s, "phi");
    VoxelChannel<Tr, float> error("error", nullptr, kDataElementInitializerDefaultValue, false,
                                  true, 0, Tr::kMaxDepth);
    error.update(s.topology());
    TVL::ComponentGuard<Container<Tr>> tree(*s.object, G::sVoxelTileTree);
    TVL::ComponentGuard<VoxelTopology<Tr>> topology(*s.object, G::sVoxelComp);
    TVL::ComponentGuard<VoxelChannel<Tr, float>> phi(*s.object, "phi");
    auto const lists = levelSetCoarsen<Tr>(0.0f, 0.01f, *tree, *topology, *phi, &error, 10.0f);
    for (int d = 1; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t c = 0; c < tree->tileCount(d); ++c) {
            auto const e = error.tileData(c, d);
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i) {
                        double const expected = std::sqrt(model.errorSquared(d, c, i, j, k));
                        EXPECT_NEAR(e(i, j, k), expected, kMeanSlack + 1e-6 * expected);
                    }
        }
    // With an error channel every node is measured; the lists are those without one.
    auto const plain = levelSetCoarsen<Tr>(0.0f, 0.01f, *tree, *topology, *phi, nullptr, 10.0f);
    EXPECT_EQ(lists, plain);
}

// ---- bad input ---------------------------------------------------------------------------------

namespace {

/// Runs @p call with the error stream captured; returns what it wrote.
template <typename F> std::string capturedErrors(F const& call)
{
    ::testing::internal::CaptureStderr();
    call();
    return ::testing::internal::GetCapturedStderr();
}

} // namespace

TEST(ChannelCoarsenBadInput, MissingChannelIsReportedAndNothingChanges)
{
    auto s = bumpScene<Traits24>();
    auto const before = tileSet(s.tree());
    bool done = true;
    std::string const err = capturedErrors(
        [&] { done = channelCoarsen("absent", 0.0f, 0.01f, true, 1.0f, *s.object, ""); });
    EXPECT_FALSE(done);
    EXPECT_NE(err.find("channelCoarsen: no voxel channel"), std::string::npos) << err;
    EXPECT_EQ(tileSet(treeOf<Traits24>(*s.object)), before);
    EXPECT_FALSE(s.object->hasComponentFromName(G::sVoxelSamplingError));

    auto empty = TVL::createEmptyTVL();
    std::string const none = capturedErrors(
        [&] { done = channelCoarsen("bump", 0.0f, 0.01f, false, 0.0f, *empty, ""); });
    EXPECT_FALSE(done);
    EXPECT_NE(none.find("no tile tree"), std::string::npos) << none;
    EXPECT_EQ(empty->componentCount(), 0u);
}

TEST(ChannelCoarsenBadInput, MismatchedChannelsAreReportedAndNothingChanges)
{
    auto s = bumpScene<Traits24>();
    // A channel of the other tree type under the name asked for.
    auto other = Quillon::makePtr<VoxelChannel<Traits55, float>>(
        "alien", nullptr, kDataElementInitializerDefaultValue, false, true, 0, Traits55::kMaxDepth);
    s.object->addComponent(other);
    other = nullptr;
    auto const before = tileSet(s.tree());
    bool done = true;
    std::string err = capturedErrors(
        [&] { done = channelCoarsen("alien", 0.0f, 0.01f, false, 0.0f, *s.object, ""); });
    EXPECT_FALSE(done);
    EXPECT_NE(err.find("channelCoarsen:"), std::string::npos) << err;
    // A channel that has not followed the tree.
    {
        TVL::ComponentGuard<Container<Traits24>> tree(*s.object, G::sVoxelTileTree);
        auto acc = tree->tileAccessor();
        acc.addTile(int(40 * Traits24::voxelDataWidth(Traits24::kMaxDepth)), 0, 0,
                    Traits24::kMaxDepth);
    }
    auto const grown = tileSet(s.tree());
    ASSERT_GT(grown.size(), before.size());
    err = capturedErrors(
        [&] { done = channelCoarsen("bump", 0.0f, 0.01f, false, 1.0f, *s.object, ""); });
    EXPECT_FALSE(done);
    EXPECT_NE(err.find("out of step"), std::string::npos) << err;
    EXPECT_EQ(tileSet(s.tree()), grown);
    EXPECT_TRUE(s.object->hasComponentFromName("bump"));
}

TEST(ChannelCoarsenBadInput, EmptyTreeIsReported)
{
    testscene::Scene<Traits24> s(kVoxel);
    auto ch = Command::createChannel<float, 2, 4, 4, 0>("bump", s.topology(), *s.object, 0.0f,
                                                        kDataElementInitializerDefaultValue, 0,
                                                        Traits24::kMaxDepth);
    ch = nullptr;
    bool done = true;
    std::string const err = capturedErrors(
        [&] { done = channelCoarsen("bump", 0.0f, 0.01f, true, 1.0f, *s.object, ""); });
    EXPECT_FALSE(done);
    EXPECT_NE(err.find("empty"), std::string::npos) << err;
    EXPECT_EQ(s.tree().tileCount(-1), 0);
}

TEST(ChannelCoarsenBadInput, NaNArgumentsAreReportedAndNothingChanges)
{
    auto s = bumpScene<Traits24>();
    auto const before = tileSet(s.tree());
    float const nan = std::numeric_limits<float>::quiet_NaN();
    for (int which = 0; which < 3; ++which) {
        bool done = true;
        std::string const err = capturedErrors([&] {
            done = channelCoarsen("bump", which == 0 ? nan : 0.0f, which == 1 ? nan : 0.01f, false,
                                  which == 2 ? nan : 1.0f, *s.object, "");
        });
        EXPECT_FALSE(done) << which;
        EXPECT_NE(err.find("NaN"), std::string::npos) << err;
    }
    EXPECT_EQ(tileSet(s.tree()), before);
}

TEST(ChannelCoarsenBadInput, NullGeometryObjectGivesFalse)
{
    Quillon::MutablePtr<Tavrel::Object> none;
    bool done = true;
    std::string const err =
        capturedErrors([&] { done = channelCoarsen("bump", 0.0f, 0.01f, false, 0.0f, none, ""); });
    EXPECT_FALSE(done);
    EXPECT_NE(err.find("channelCoarsen:"), std::string::npos);
}

TEST(ChannelCoarsenExports, EveryFormIsExported)
{
    using ObjectForm = bool (*)(Quillon::String const&, float, float, bool, float, TVL::Object&,
                                Quillon::String const&);
    using GeometryForm = bool (*)(Quillon::String const&, float, float, bool, float,
                                  Quillon::MutablePtr<Tavrel::Object>&, Quillon::String const&);
    ObjectForm const a = &channelCoarsen;
    GeometryForm const b = &channelCoarsen;
    // A link-time check (support/linked.h): a missing form fails the link.
    testlinked::requireLinked(a, b, &levelSetCoarsen<Traits24>, &levelSetCoarsen<Traits55>);
}
