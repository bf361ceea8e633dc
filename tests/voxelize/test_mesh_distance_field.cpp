// Tests of createMeshDistanceField: unsigned distances against brute force in long double on
// made meshes and the bunny, coverage of every triangle by finest tiles, the sparse build against
// the adaptive one, determinism over thread counts, cancellation, the choice of the coarse depth,
// the density switch, resolution fields, detail sizes, hole radius, thickening and inversion, and
// bad input.
#include "support/cancel_on_timer.h"
#include "support/meshes.h"
#include "support/typed_traits.h"
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/quillon/job.h>
#include <hexmold/platform/tavrel/math_support.h>
#include <hexmold/substrate/cancel.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/voxelize/mesh/mesh_distance_field.h>
#include <hexmold/voxelize/mesh/triangle_distance_kernel.h>
#include <iostream>
#include <limits>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

using namespace TVL::TileTree3D;
using namespace VolumeGL::TileTree3D;
using testmeshes::Real;
using testmeshes::TriangleMesh;

namespace {

/// Options of one build, with the voxelizer's defaults for an unsigned shell.
struct BuildOptions {
    bool adaptive = true;
    Adaptivity adaptivity = AdaptivityMaxRelativeError;
    float maxRelativeError = 0.0f;
    float holeRadius = 0.0f;
    float thickening = 0.0f;
    bool invert = false;
    bool wantClosest = true;
    int halfWidth = 5;
    Quillon::Array<float> const* detailSizes = nullptr;
    Quillon::Array<ResolutionField> const* fields = nullptr;
};

/// A tree, topology, distance channel and closest-triangle slot, built from a mesh.
template <typename Tr> struct MeshVolume {
    static constexpr int kMax = Tr::kMaxDepth;
    static constexpr int W = Tr::kTileWidth;
    float h;
    float far;
    Container<Tr> container;
    VoxelTopology<Tr> topology;
    VoxelChannel<Tr, float> distance;
    Quillon::Ptr<VoxelChannel<Tr, TriangleId>> closest;
    int minDepth = -1;
    float maxSide = -1.0f;
    bool result = false;

    explicit MeshVolume(float voxel, float farValue = 1e30f)
        : h(voxel), far(farValue), container("tree", voxel), topology("topology", "tree", voxel),
          distance("distance", &far, kDataElementInitializerDefaultValue, false, false, 0, kMax)
    {
    }
    void build(TriangleMesh const& m, BuildOptions const& o = {})
    {
        result = createMeshDistanceField<Tr>(
            container, topology, distance, o.wantClosest ? &closest : nullptr, m.triangles,
            m.positions, o.detailSizes, false, o.holeRadius, o.thickening, o.invert, o.halfWidth, 0,
            0, o.adaptive, o.adaptivity, o.maxRelativeError, o.fields, &minDepth, &maxSide);
    }
    /// World sample of voxel (x, y, z) of a tile: (corner + voxel width * n + 0.5) h.
    float3 sample(Tile<Tr> const& t, int x, int y, int z) const
    {
        std::int64_t const s = t.voxelDataWidth();
        auto c = [&](std::int64_t corner, int n) {
            return static_cast<float>((double(corner) + double(s) * n + 0.5) * double(h));
        };
        return {c(t.ti(), x), c(t.tj(), y), c(t.tk(), z)};
    }
    /// The band within which a tile of depth d holds exact distances.
    double band(int d) const { return double(Container<Tr>::voxelDataWidth(d)) * h * 1.7320508; }
};

/// Relative and absolute rounding allowance of a stored distance: the distance is rounded to
/// float twice (its square, then its root).
constexpr double kRelTol = 3e-7;

/// Checks every voxel of the tiles of depths [fromDepth, deepest] against brute force: never
/// below the true distance, equal to it within rounding where the tile's band says it is exact,
/// and its closest triangle at the true distance. Returns the number of exact voxels checked.
template <typename Tr>
std::int64_t expectExactAgainstBruteForce(MeshVolume<Tr> const& v, TriangleMesh const& m,
                                          int fromDepth, bool bandIsExact = true)
{
    testmeshes::BruteForce const brute(m);
    std::int64_t exact = 0, failures = 0;
    for (int d = fromDepth; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < v.container.tileCount(d); ++t) {
            auto const& tile = v.container.tile(t, d);
            auto const dist = v.distance.tileData(tile.treeIndex());
            if (dist.empty())
                continue;
            for (int z = 0; z < Tr::kTileWidth; ++z)
                for (int y = 0; y < Tr::kTileWidth; ++y)
                    for (int x = 0; x < Tr::kTileWidth; ++x) {
                        float const stored = dist(x, y, z);
                        auto const [truth, id] = brute(v.sample(tile, x, y, z));
                        double const tol = kRelTol * double(truth) + 1e-6 * v.h;
                        if (stored < double(truth) - tol && ++failures < 10)
                            ADD_FAILURE() << "depth " << d << " tile " << t << " voxel " << x << ","
                                          << y << "," << z << ": " << stored
                                          << " below the true distance " << double(truth);
                        if (!bandIsExact || double(truth) >= v.band(d))
                            continue;
                        ++exact;
                        if (std::abs(stored - double(truth)) > tol && ++failures < 10)
                            ADD_FAILURE() << "depth " << d << " voxel " << x << "," << y << "," << z
                                          << ": " << stored << " against " << double(truth);
                        if (v.closest) {
                            std::int64_t const c = v.closest->tileData(tile.treeIndex())(x, y, z);
                            if (c < 0 || c >= std::int64_t(m.triangles.size())) {
                                if (++failures < 10)
                                    ADD_FAILURE() << "no closest triangle at an exact voxel";
                                continue;
                            }
                            auto const& tri = m.triangles[std::size_t(c)];
                            Real const dc = testmeshes::triangleDistance(
                                v.sample(tile, x, y, z), m.positions[tri.x], m.positions[tri.y],
                                m.positions[tri.z]);
                            if (std::abs(double(dc - truth)) > tol && ++failures < 10)
                                ADD_FAILURE()
                                    << "closest triangle " << c << " is not at the true distance";
                        }
                    }
        }
    EXPECT_EQ(failures, 0);
    return exact;
}

/// Every triangle's vertices, edge midpoints and centroid lie in finest tiles.
template <typename Tr>
void expectTrianglesCoveredByFinestTiles(MeshVolume<Tr>& v, TriangleMesh const& m)
{
    auto acc = std::as_const(v.container).tileAccessor();
    int missing = 0;
    for (auto const& tri : m.triangles) {
        float3 const a = m.positions[tri.x], b = m.positions[tri.y], c = m.positions[tri.z];
        float3 const pts[7] = {
            a, b, c, (a + b) * 0.5f, (b + c) * 0.5f, (c + a) * 0.5f, (a + b + c) * (1.0f / 3.0f)};
        for (float3 const& p : pts) {
            auto const i = static_cast<std::int64_t>(std::floor(double(p.x) / v.h));
            auto const j = static_cast<std::int64_t>(std::floor(double(p.y) / v.h));
            auto const k = static_cast<std::int64_t>(std::floor(double(p.z) / v.h));
            if (acc.tile(i, j, k, Tr::kMaxDepth).depth() != Tr::kMaxDepth)
                ++missing;
        }
    }
    EXPECT_EQ(missing, 0) << "triangle points outside the finest tiles";
}

/// The tiles of a tree in their order, by depth.
template <typename Tr> std::vector<std::tuple<int, int, int, int>> tileList(Container<Tr> const& c)
{
    std::vector<std::tuple<int, int, int, int>> out;
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < c.tileCount(d); ++t) {
            auto const& tile = c.tile(t, d);
            out.emplace_back(d, tile.ti(), tile.tj(), tile.tk());
        }
    return out;
}

/// Every voxel value of a channel, tile by tile in tree order.
template <typename Tr, typename T>
std::vector<T> channelValues(Container<Tr> const& c, VoxelChannel<Tr, T> const& ch)
{
    std::vector<T> out;
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < c.tileCount(d); ++t) {
            auto const data = ch.tileData(t, d);
            out.insert(out.end(), data.begin(), data.end());
        }
    return out;
}

/// A flat plate [0, 20] x [0, 20] x [0, 1] voxels with vertices on grid points.
TriangleMesh plate(float h)
{
    return testmeshes::box({0, 0, 0}, {20 * h, 20 * h, 1 * h});
}

TriangleMesh scaledBunny(float& out_h, int across)
{
    std::string const path = testmeshes::dataFile("bunny.obj");
    if (path.empty())
        return {};
    TriangleMesh m = testmeshes::readObj(path);
    float lo[3] = {1e30f, 1e30f, 1e30f}, hi[3] = {-1e30f, -1e30f, -1e30f};
    for (auto const& p : m.positions)
        for (int a = 0; a < 3; ++a)
            lo[a] = std::min(lo[a], p[a]), hi[a] = std::max(hi[a], p[a]);
    out_h = std::max({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]}) / float(across);
    return m;
}

} // namespace

template <typename Tr> class MeshDistanceField : public ::testing::Test {
};
TYPED_TEST_SUITE(MeshDistanceField, testtraits::TraitsTypes, testtraits::TraitsNames);

// ---- accuracy -----------------------------------------------------------------------------------

TYPED_TEST(MeshDistanceField, IcosphereMatchesBruteForce)
{
    using Tr = TypeParam;
    float const h = 0.1f;
    TriangleMesh const m = testmeshes::icosphere({0.03f, -0.02f, 0.01f}, 1.2, 3);
    MeshVolume<Tr> v(h);
    v.build(m);
    EXPECT_TRUE(v.result);
    ASSERT_GE(v.minDepth, 0);
    EXPECT_GT(v.container.tileCount(Tr::kMaxDepth), 0);
    std::int64_t const exact = expectExactAgainstBruteForce(v, m, v.minDepth);
    EXPECT_GT(exact, 1000);
    expectTrianglesCoveredByFinestTiles(v, m);
}

TYPED_TEST(MeshDistanceField, BoxOnGridPointsMatchesBruteForce)
{
    using Tr = TypeParam;
    float const h = 0.125f; // vertices exactly on voxel corners
    TriangleMesh const m = testmeshes::box({-1.0f, -0.5f, -0.75f}, {1.0f, 0.75f, 0.5f});
    MeshVolume<Tr> v(h);
    v.build(m);
    expectExactAgainstBruteForce(v, m, v.minDepth);
    expectTrianglesCoveredByFinestTiles(v, m);
}

TYPED_TEST(MeshDistanceField, ThinPlateOneVoxelThickMatchesBruteForce)
{
    using Tr = TypeParam;
    float const h = 0.125f;
    TriangleMesh const m = plate(h);
    MeshVolume<Tr> v(h);
    v.build(m);
    // A box thinner than a tile: the coarse depth comes from its thinnest side.
    EXPECT_EQ(v.minDepth, Tr::kMaxDepth - 1);
    expectExactAgainstBruteForce(v, m, v.minDepth);
    expectTrianglesCoveredByFinestTiles(v, m);
}

TYPED_TEST(MeshDistanceField, BunnyMatchesBruteForce)
{
    using Tr = TypeParam;
    float h = 0;
    TriangleMesh const m = scaledBunny(h, 40);
    if (m.triangles.empty())
        GTEST_SKIP() << "bunny.obj is not in the shared data folder";
    MeshVolume<Tr> v(h);
    v.build(m);
    std::int64_t const exact = expectExactAgainstBruteForce(v, m, v.minDepth);
    EXPECT_GT(exact, 10000);
    expectTrianglesCoveredByFinestTiles(v, m);
}

// With an error tolerance the tree is coarser, and the distances it holds stay exact within each
// depth's band.
TYPED_TEST(MeshDistanceField, ErrorToleranceCoarsensAndStaysExact)
{
    using Tr = TypeParam;
    float const h = 0.05f;
    TriangleMesh const m = testmeshes::icosphere({0, 0, 0}, 1.5, 3);
    MeshVolume<Tr> fine(h), coarse(h);
    fine.build(m);
    BuildOptions o;
    o.maxRelativeError = 0.02f;
    coarse.build(m, o);
    EXPECT_GT(coarse.container.maxRelativeRefinementError(), 0.0f);
    EXPECT_LT(coarse.container.tileCount(Tr::kMaxDepth), fine.container.tileCount(Tr::kMaxDepth));
    expectExactAgainstBruteForce(coarse, m, coarse.minDepth);
}

// ---- the sparse build ---------------------------------------------------------------------------

// The sparse build holds exact distances in the voxels of each triangle's box and sweep-proposed
// ones elsewhere (the distance to a neighbour's triangle, which need not be the closest): never
// below the truth, equal to the adaptive build's exact finest voxels for most voxels, and never
// far above them (shares printed).
TYPED_TEST(MeshDistanceField, SparseAndAdaptiveBuildsAgree)
{
    using Tr = TypeParam;
    float const h = 0.1f;
    TriangleMesh const m = testmeshes::icosphere({0.02f, 0.01f, -0.03f}, 1.3, 3);
    MeshVolume<Tr> adaptive(h), sparse(h);
    adaptive.build(m);
    BuildOptions o;
    o.adaptive = false;
    sparse.build(m, o);
    ASSERT_TRUE(sparse.closest);
    expectExactAgainstBruteForce(sparse, m, Tr::kMaxDepth, false);
    auto acc = std::as_const(adaptive.container).tileAccessor();
    std::int64_t both = 0, equal = 0;
    double worst = 0;
    for (std::int64_t t = 0; t < sparse.container.tileCount(Tr::kMaxDepth); ++t) {
        auto const& st = sparse.container.tile(t, Tr::kMaxDepth);
        auto const& at = acc.tile(st.ti(), st.tj(), st.tk(), Tr::kMaxDepth);
        if (at.depth() != Tr::kMaxDepth)
            continue;
        auto const sd = sparse.distance.tileData(st.treeIndex());
        auto const ad = adaptive.distance.tileData(at.treeIndex());
        for (std::size_t n = 0; n < sd.size(); ++n) {
            if (!(ad[n] < adaptive.band(Tr::kMaxDepth)))
                continue;
            ++both;
            EXPECT_GE(sd[n], ad[n] * (1 - kRelTol) - 1e-6 * h);
            // The two builds round differently (root of the rounded square, or rounded root).
            if (std::abs(sd[n] - ad[n]) <= kRelTol * ad[n] + 1e-6 * h)
                ++equal;
            worst = std::max(worst, double(sd[n] - ad[n]));
        }
    }
    std::printf("[          ] %lld voxels in both, %lld equal, largest excess %.3g voxels\n",
                (long long)both, (long long)equal, worst / h);
    EXPECT_GT(both, 1000);
    EXPECT_GE(double(equal), 0.9 * double(both));
    EXPECT_LT(worst, 0.25 * h);
}

TYPED_TEST(MeshDistanceField, SparseBuildCoversTheBandAroundTheSurface)
{
    using Tr = TypeParam;
    float const h = 0.1f;
    TriangleMesh const m = testmeshes::box({-0.8f, -0.6f, -0.7f}, {0.7f, 0.9f, 0.6f});
    MeshVolume<Tr> v(h);
    BuildOptions o;
    o.adaptive = false;
    o.wantClosest = false;
    v.build(m, o);
    EXPECT_FALSE(v.closest); // the build's own closest-triangle channel is not handed out
    // Every finest voxel within 3 voxels of the surface lies in a tile and holds a distance.
    testmeshes::BruteForce const brute(m);
    auto acc = std::as_const(v.container).tileAccessor();
    int missing = 0;
    for (int k = -12; k < 12; ++k)
        for (int j = -12; j < 12; ++j)
            for (int i = -12; i < 12; ++i) {
                float3 const p{(i + 0.5f) * h, (j + 0.5f) * h, (k + 0.5f) * h};
                if (brute(p).first > 3 * h)
                    continue;
                auto const& tile = acc.tile(i, j, k, Tr::kMaxDepth);
                if (tile.depth() != Tr::kMaxDepth) {
                    ++missing;
                    continue;
                }
                int3 const local{int(i - tile.ti()), int(j - tile.tj()), int(k - tile.tk())};
                if (!(v.distance.tileData(tile.treeIndex())(local) < 1e29f))
                    ++missing;
            }
    EXPECT_EQ(missing, 0);
}

// ---- determinism and cancellation ---------------------------------------------------------------

TYPED_TEST(MeshDistanceField, OneThreadAndAllThreadsGiveTheSameTreeAndBits)
{
    using Tr = TypeParam;
    float const h = 0.08f;
    TriangleMesh const m = testmeshes::icosphere({0, 0, 0}, 1.1, 3);
    for (bool adaptive : {true, false}) {
        BuildOptions o;
        o.adaptive = adaptive;
        o.maxRelativeError = adaptive ? 0.01f : 0.0f;
        MeshVolume<Tr> one(h), all(h);
        {
            TVL::Parallel::global_control limit(
                TVL::Parallel::global_control::max_allowed_parallelism, 1);
            one.build(m, o);
        }
        all.build(m, o);
        EXPECT_EQ(tileList(one.container), tileList(all.container))
            << (adaptive ? "adaptive" : "sparse");
        auto const a = channelValues(one.container, one.distance),
                   b = channelValues(all.container, all.distance);
        ASSERT_EQ(a.size(), b.size());
        EXPECT_EQ(std::memcmp(a.data(), b.data(), a.size() * sizeof(float)), 0);
        auto const ca = channelValues(one.container, *one.closest),
                   cb = channelValues(all.container, *all.closest);
        EXPECT_EQ(ca, cb);
    }
}

TYPED_TEST(MeshDistanceField, PermutedTriangleListsGiveTheSameBits)
{
    using Tr = TypeParam;
    float const h = 0.08f;
    TriangleMesh const m = testmeshes::icosphere({0, 0, 0}, 1.1, 3);
    MeshVolume<Tr> plain(h), permuted(h);
    plain.build(m);
    setEnableTrianglePermutations(true);
    setTrianglePermutationsSeed(12345);
    permuted.build(m);
    setEnableTrianglePermutations(false);
    setTrianglePermutationsSeed(0);
    EXPECT_EQ(tileList(plain.container), tileList(permuted.container));
    EXPECT_EQ(channelValues(plain.container, plain.distance),
              channelValues(permuted.container, permuted.distance));
}

// Cancellation requested as a stage ends: the standing exception comes out of the next stage,
// soon; the caller's tree and channels stay usable.
TYPED_TEST(MeshDistanceField, CancellationThrowsAndLeavesTheObjectsUsable)
{
    using Tr = TypeParam;
    float const h = 0.05f;
    TriangleMesh const m = testmeshes::icosphere({0, 0, 0}, 1.5, 4);
    for (std::string const stage :
         {".grade_coarser_levels", ".preallocate_coarser_levels", ".triangle_refine_reduction"}) {
        BuildOptions o;
        o.adaptive = stage != ".triangle_refine_reduction";
        MeshVolume<Tr> v(h);
        bool thrown = false;
        double seconds = 0.0;
        {
            testcancel::CancelOnTimer const cancel(stage);
            auto const t0 = std::chrono::steady_clock::now();
            try {
                v.build(m, o);
            } catch (std::runtime_error const& e) {
                thrown = true;
                EXPECT_EQ(std::string(e.what()), TVL::exceptionMessage);
            }
            seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
            EXPECT_GE(cancel.reports(), 1) << stage;
        }
        EXPECT_TRUE(thrown) << stage;
        EXPECT_LT(seconds, 10.0);
        // The objects are whole: they can be updated and built into again.
        v.topology.update(v.container);
        v.distance.update(v.topology);
        MeshVolume<Tr> again(h);
        again.build(m, o);
        EXPECT_TRUE(again.result);
    }
}

// ---- the coarse depth and the density switch --------------------------------------------------

TYPED_TEST(MeshDistanceField, EmptyTriangleListReturnsBeforeAnyAllocation)
{
    using Tr = TypeParam;
    TriangleMesh m;
    m.positions = {{0, 0, 0}, {1, 0, 0}};
    MeshVolume<Tr> v(0.1f);
    v.build(m);
    EXPECT_TRUE(v.result);
    EXPECT_EQ(v.container.tileCount(-1), 0);
    EXPECT_FALSE(v.closest);
    EXPECT_EQ(v.minDepth, -1);
    EXPECT_EQ(v.maxSide, -1.0f);
}

// A mesh whose box is thinner than a tile: the depth from its thinnest side would be the
// deepest; the coarse depth is one above it.
TYPED_TEST(MeshDistanceField, ThinMeshGetsTheDeepestCoarseDepthButOne)
{
    using Tr = TypeParam;
    float const h = 0.1f;
    TriangleMesh m;
    m.positions = {{0, 0, 0}, {3, 0, 0}, {0, 3, 0}};
    m.triangles = {{0, 1, 2}};
    MeshVolume<Tr> v(h);
    v.build(m);
    EXPECT_EQ(v.minDepth, Tr::kMaxDepth - 1);
    // The padded box's largest side: 3 plus a voxel each side.
    EXPECT_NEAR(v.maxSide, 3.0f + 2 * h, 1e-5);
    // Two small triangles 300 voxels apart: a box of 300 voxels a side, whose depth from the
    // thinnest side is coarser than the deepest minus the tile width; that bound wins.
    TriangleMesh spread = m;
    spread.positions.push_back({30.0f, 30.0f, 30.0f});
    spread.positions.push_back({30.1f, 30.0f, 30.0f});
    spread.positions.push_back({30.0f, 30.1f, 30.0f});
    spread.triangles.push_back({3, 4, 5});
    MeshVolume<Tr> big(h);
    big.build(spread);
    // Traits<2,4,1>: 28 - (ceil(log2(1 + 302 / 2 / 4)) - 1) = 23, raised to 28 - 4 = 24.
    // Traits<5,5,1>: 12 - (ceil(log5(1 + 302 / 2 / 5)) - 1) = 10, above 12 - 5 = 7.
    int const expected = std::is_same_v<Tr, Traits24> ? 24 : 10;
    EXPECT_EQ(big.minDepth, expected);
}

// With a mean of exactly 2000 triangles per coarse tile the build goes non-adaptive (the coarse
// depth becomes the deepest); with one triangle fewer it does not.
TYPED_TEST(MeshDistanceField, DensityOfTwoThousandTrianglesSwitchesToNonAdaptive)
{
    using Tr = TypeParam;
    float const h = 0.1f;
    TriangleMesh one;
    one.positions = {{0.01f, 0.02f, 0.03f}, {0.02f, 0.02f, 0.03f}, {0.01f, 0.03f, 0.03f}};
    one.triangles = {{0, 1, 2}};
    MeshVolume<Tr> probe(h);
    probe.build(one);
    ASSERT_EQ(probe.minDepth, Tr::kMaxDepth - 1);
    std::int64_t const tiles = probe.container.tileCount(probe.minDepth);
    ASSERT_GT(tiles, 0);
    for (std::int64_t extra : {std::int64_t(0), std::int64_t(-1)}) {
        TriangleMesh dense = one;
        dense.triangles.assign(std::size_t(2000 * tiles + extra), ulong3{0, 1, 2});
        MeshVolume<Tr> v(h);
        v.build(dense);
        if (extra == 0) {
            EXPECT_EQ(v.minDepth, Tr::kMaxDepth);
        } else {
            EXPECT_EQ(v.minDepth, Tr::kMaxDepth - 1);
        }
        // Either way the finest voxels hold exact distances.
        expectExactAgainstBruteForce(v, one, Tr::kMaxDepth);
    }
}

// A positive hole radius turns the error test off: the relative error recorded in the tree is 0
// and the tree is the one built without a tolerance.
TYPED_TEST(MeshDistanceField, HoleRadiusTurnsTheErrorTestOff)
{
    using Tr = TypeParam;
    float const h = 0.1f;
    TriangleMesh const m = testmeshes::icosphere({0, 0, 0}, 1.0, 2);
    BuildOptions withError;
    withError.maxRelativeError = 0.05f;
    withError.holeRadius = 0.3f;
    BuildOptions without = withError;
    without.maxRelativeError = 0.0f;
    MeshVolume<Tr> a(h), b(h);
    a.build(m, withError);
    b.build(m, without);
    EXPECT_EQ(a.container.maxRelativeRefinementError(), 0.0f);
    EXPECT_EQ(tileList(a.container), tileList(b.container));
}

// Resolution fields that no tile meets leave the coarse tiles as leaves; a field over part of
// the mesh refines only there, to its depth.
TYPED_TEST(MeshDistanceField, ResolutionFieldsRefineOnlyWhereTheyHit)
{
    using Tr = TypeParam;
    float const h = 0.05f;
    TriangleMesh const m = testmeshes::icosphere({0, 0, 0}, 1.0, 3);
    Quillon::Array<ResolutionField> far = {ResolutionField{{50, 50, 50}, {60, 60, 60}, 0}};
    BuildOptions o;
    o.adaptivity = AdaptivityResolutionFields;
    o.fields = &far;
    MeshVolume<Tr> v(h);
    v.build(m, o);
    for (int d = v.minDepth + 1; d <= Tr::kMaxDepth; ++d)
        EXPECT_EQ(v.container.tileCount(d), 0) << d;

    Quillon::Array<ResolutionField> cap = {ResolutionField{{-2, -2, 0.5f}, {2, 2, 2}, 1}};
    o.fields = &cap;
    MeshVolume<Tr> w(h);
    w.build(m, o);
    EXPECT_EQ(w.container.tileCount(Tr::kMaxDepth), 0);
    ASSERT_GT(w.container.tileCount(Tr::kMaxDepth - 1), 0);
    // Tiles below the field's depth that refinement made (not the coarse tiles) lie at the cap.
    for (std::int64_t t = 0;
         w.minDepth < Tr::kMaxDepth - 1 && t < w.container.tileCount(Tr::kMaxDepth - 1); ++t) {
        auto const& tile = w.container.tile(t, Tr::kMaxDepth - 1);
        double const top = double(tile.tk() + Container<Tr>::tileVoxelWidth(Tr::kMaxDepth - 1)) * h;
        EXPECT_GE(top, 0.5 - 1e-6) << "a tile below the field's box";
    }
    expectExactAgainstBruteForce(w, m, w.minDepth);
}

// Detail sizes: points with a small detail size pull the finest tiles to them; elsewhere the tree
// stays coarser.
TYPED_TEST(MeshDistanceField, DetailSizesRefineWhereTheyAreSmall)
{
    using Tr = TypeParam;
    float const h = 0.05f;
    TriangleMesh const m = testmeshes::icosphere({0, 0, 0}, 1.0, 3);
    Quillon::Array<float> sizes(m.positions.size());
    for (std::size_t p = 0; p < sizes.size(); ++p)
        sizes[p] = m.positions[p].x > 0.5f ? h : 40 * h;
    BuildOptions o;
    o.adaptivity = AdaptivityDetailSizes;
    o.detailSizes = &sizes;
    MeshVolume<Tr> v(h);
    v.build(m, o);
    ASSERT_GT(v.container.tileCount(Tr::kMaxDepth), 0);
    for (std::int64_t t = 0; t < v.container.tileCount(Tr::kMaxDepth); ++t) {
        auto const& tile = v.container.tile(t, Tr::kMaxDepth);
        EXPECT_GT(double(tile.ti() + Tr::kTileWidth) * h, 0.0)
            << "a finest tile far from the small details";
    }
    expectExactAgainstBruteForce(v, m, v.minDepth);
}

// ---- thickening, inversion and degenerate meshes ------------------------------------------------

TYPED_TEST(MeshDistanceField, ThickeningSubtractsAndInvertNegates)
{
    using Tr = TypeParam;
    float const h = 0.1f;
    TriangleMesh const m = testmeshes::icosphere({0, 0, 0}, 1.0, 2);
    MeshVolume<Tr> plain(h, 5.0f), thick(h, 5.0f), inverted(h, 5.0f);
    plain.build(m);
    BuildOptions o;
    o.thickening = 0.2f;
    thick.build(m, o);
    BuildOptions inv;
    inv.invert = true;
    inverted.build(m, inv);
    // Thickening grows the band (the tree differs), so compare values of common finest voxels.
    auto acc = std::as_const(thick.container).tileAccessor();
    int compared = 0;
    for (std::int64_t t = 0; t < plain.container.tileCount(Tr::kMaxDepth); ++t) {
        auto const& pt = plain.container.tile(t, Tr::kMaxDepth);
        auto const& tt = acc.tile(pt.ti(), pt.tj(), pt.tk(), Tr::kMaxDepth);
        ASSERT_EQ(tt.depth(), Tr::kMaxDepth);
        auto const pd = plain.distance.tileData(pt.treeIndex());
        auto const td = thick.distance.tileData(tt.treeIndex());
        for (std::size_t n = 0; n < pd.size(); ++n)
            if (pd[n] < plain.band(Tr::kMaxDepth)) {
                EXPECT_NEAR(td[n], pd[n] - 0.2f, 1e-6);
                ++compared;
            }
    }
    EXPECT_GT(compared, 100);
    EXPECT_EQ(tileList(plain.container), tileList(inverted.container));
    auto const a = channelValues(plain.container, plain.distance);
    auto const b = channelValues(inverted.container, inverted.distance);
    ASSERT_EQ(a.size(), b.size());
    for (std::size_t n = 0; n < a.size(); ++n)
        ASSERT_EQ(b[n], -a[n]);
    EXPECT_EQ(inverted.distance.defaultValue(), -5.0f);
}

TYPED_TEST(MeshDistanceField, SingleTriangleAndRepeatedPoint)
{
    using Tr = TypeParam;
    float const h = 0.1f;
    TriangleMesh tri;
    tri.positions = {{0.03f, 0.02f, 0.01f}, {0.9f, 0.1f, 0.2f}, {0.2f, 0.7f, -0.3f}};
    tri.triangles = {{0, 1, 2}};
    MeshVolume<Tr> a(h);
    a.build(tri);
    expectExactAgainstBruteForce(a, tri, a.minDepth);
    expectTrianglesCoveredByFinestTiles(a, tri);
    // One point repeated: every triangle is that point, and distances are to the point.
    TriangleMesh point;
    point.positions = {{0.31f, -0.12f, 0.07f}};
    point.triangles = {{0, 0, 0}, {0, 0, 0}};
    MeshVolume<Tr> b(h);
    b.build(point);
    EXPECT_TRUE(b.result);
    EXPECT_GT(b.container.tileCount(Tr::kMaxDepth), 0);
    expectExactAgainstBruteForce(b, point, b.minDepth);
}

// ---- bad input ----------------------------------------------------------------------------------

TYPED_TEST(MeshDistanceField, BadInputIsRejectedBeforeAnyWork)
{
    using Tr = TypeParam;
    float const nan = std::numeric_limits<float>::quiet_NaN();
    float const inf = std::numeric_limits<float>::infinity();
    TriangleMesh good = testmeshes::icosphere({0, 0, 0}, 1.0, 1);
    struct Case {
        char const* what;
        TriangleMesh mesh;
        float voxel;
        bool detail;
    };
    std::vector<Case> cases;
    {
        TriangleMesh m = good;
        m.positions[3].y = nan;
        cases.push_back({"NaN position", m, 0.1f, false});
    }
    {
        TriangleMesh m = good;
        m.positions[5].z = inf;
        cases.push_back({"infinite position", m, 0.1f, false});
    }
    {
        TriangleMesh m = good;
        m.triangles[7].y = m.positions.size();
        cases.push_back({"index out of range", m, 0.1f, false});
    }
    {
        TriangleMesh m = good;
        m.positions[0].x = 3e8f;
        cases.push_back({"beyond the domain", m, 0.1f, false});
    }
    cases.push_back({"zero voxel size", good, 0.0f, false});
    cases.push_back({"NaN voxel size", good, nan, false});
    cases.push_back({"detail sizes of the wrong length", good, 0.1f, true});
    Quillon::Array<float> const shortSizes(3, 0.1f);
    for (auto const& c : cases) {
        MeshVolume<Tr> v(c.voxel);
        TriangleMesh const before = c.mesh;
        BuildOptions o;
        if (c.detail) {
            o.adaptivity = AdaptivityDetailSizes;
            o.detailSizes = &shortSizes;
        }
        testing::internal::CaptureStderr();
        v.build(c.mesh, o);
        std::string const err = testing::internal::GetCapturedStderr();
        EXPECT_TRUE(v.result) << c.what;
        EXPECT_EQ(v.container.tileCount(-1), 0) << c.what;
        EXPECT_FALSE(v.closest) << c.what;
        EXPECT_NE(err.find("createMeshDistanceField.error"), std::string::npos)
            << c.what << ": " << err;
        EXPECT_EQ(c.mesh.triangles.size(), before.triangles.size());
    }
}
