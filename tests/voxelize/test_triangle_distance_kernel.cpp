// Tests of the triangle distance kernel: the exact point-triangle distance it uses, the tile
// lattice kernel against brute force, its tie rule, the sparse build's tile visit, the red-black
// sweep of triangle ids, and the voxelizer's switches.
#include "support/kernel_context.h"
#include "support/meshes.h"
#include "support/typed_traits.h"
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <gtest/gtest.h>
#include <hexmold/platform/tavrel/spatial_query.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/voxelize/mesh/triangle_distance_kernel.h>
#include <limits>
#include <random>
#include <vector>

using namespace TVL::TileTree3D;
using namespace VolumeGL::TileTree3D;
using testmeshes::Real;
using testmeshes::TriangleMesh;

namespace {

/// The kernel's distance: the squared distance in double, rounded to float, then the root.
float kernelDistance(float3 p, float3 a, float3 b, float3 c)
{
    return std::sqrt(Tavrel::SpatialQuery::pointTriangleDistance2(p, a, b, c));
}

double longestEdge(float3 a, float3 b, float3 c)
{
    auto len = [](float3 x, float3 y) {
        return std::sqrt(double(x.x - y.x) * (x.x - y.x) + double(x.y - y.y) * (x.y - y.y) +
                         double(x.z - y.z) * (x.z - y.z));
    };
    return std::max({len(a, b), len(b, c), len(c, a)});
}

/// World position of lattice node n of a tile: (corner + spacing n + offset) h, rounded once.
float nodeCoordinate(std::int64_t corner, std::int64_t spacing, int n, float offset, float h)
{
    return static_cast<float>((double(corner) + double(spacing) * n + double(offset)) * double(h));
}

/// A random soup of small triangles in [-4, 4]^3 world units.
TriangleMesh randomSoup(int count, unsigned seed, float size)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> where(-4.0f, 4.0f), jitter(-size, size);
    TriangleMesh m;
    for (int t = 0; t < count; ++t) {
        float3 const c{where(rng), where(rng), where(rng)};
        for (int v = 0; v < 3; ++v)
            m.positions.push_back({c.x + jitter(rng), c.y + jitter(rng), c.z + jitter(rng)});
        std::uint64_t const b = std::uint64_t(3 * t);
        m.triangles.push_back({b, b + 1, b + 2});
    }
    return m;
}

} // namespace

// ---- the exact distance -------------------------------------------------------------------------

// A million random point/triangle pairs, a fifth of them degenerate (collinear, needles, repeated
// vertices, a single point) and a fifth with far points, against the long-double reference
// written in the test support. Bound: the distance is computed in double and rounded to float
// twice (the square, then its root), about 2^-23 relative; a triangle thinner than 1e-9 of its
// edges is measured as its edges, which moves the result by at most its width.
TEST(TriangleDistance, MillionRandomPairsMatchLongDoubleReference)
{
    std::mt19937 rng(2024);
    std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
    auto point = [&](float s) { return float3{s * unit(rng), s * unit(rng), s * unit(rng)}; };
    double worst = 0.0;
    for (int n = 0; n < 1000000; ++n) {
        float3 a = point(2.0f), b = point(2.0f), c = point(2.0f);
        switch (n % 8) {
        case 1:
            c = {a.x + 0.5f * (b.x - a.x), a.y + 0.5f * (b.y - a.y), a.z + 0.5f * (b.z - a.z)};
            break;
        case 2:
            c = {a.x + 1e-6f * unit(rng), a.y + 1e-6f * unit(rng), a.z + 1e-6f * unit(rng)};
            break; // needle
        case 3:
            b = a;
            break;
        case 4:
            b = a, c = a;
            break;
        default:
            break;
        }
        float const reach = (n % 5 == 0) ? 1e4f : 4.0f;
        float3 const p = point(reach);
        double const ref = static_cast<double>(testmeshes::triangleDistance(p, a, b, c));
        double const got = kernelDistance(p, a, b, c);
        double const tol = 3e-7 * ref + 1e-9 * longestEdge(a, b, c) + 1e-30;
        ASSERT_LE(std::abs(got - ref), tol) << "pair " << n << " kind " << n % 8;
        worst = std::max(worst, std::abs(got - ref) / std::max(ref, 1e-30));
    }
    std::printf("[          ] largest relative error %.3g\n", worst);
}

// ---- the lattice kernel ---------------------------------------------------------------------

template <typename Tr> class LatticeKernel : public ::testing::Test {
};
TYPED_TEST_SUITE(LatticeKernel, testtraits::TraitsTypes, testtraits::TraitsNames);

// Every node of a lattice holds the exact distance to the nearest listed triangle (and its
// lowest id), with and without clipping to the triangles' boxes, at several spacings.
TYPED_TEST(LatticeKernel, NodesMatchBruteForce)
{
    using Tr = TypeParam;
    using L = TileLattice<Tr>;
    float const h = 0.05f;
    TriangleMesh const m = randomSoup(300, 7, 0.3f);
    testmeshes::BruteForce const brute(m);
    auto const ctx = testsupport::kernelContext<Tr>(m, h, 1e30f);
    std::vector<std::int64_t> all(m.triangles.size());
    for (std::size_t t = 0; t < all.size(); ++t)
        all[t] = std::int64_t(all.size() - 1 - t); // reversed order
    for (std::int64_t spacing :
         {std::int64_t(1), std::int64_t(Tr::kRatio), std::int64_t(Tr::kRatio * Tr::kRatio)}) {
        for (bool clip : {false, true}) {
            std::int64_t const ci = -17 * spacing, cj = 3 * spacing, ck = -spacing;
            float dist[L::kCount];
            std::int64_t ids[L::kCount];
            computeTileLattice<Tr>(ctx, ci, cj, ck, spacing, all.data(), all.data() + all.size(),
                                   dist, ids, 1e30f, nullptr, nullptr, int3{0, 0, 0}, int3{0, 0, 0},
                                   int3{L::kNodes, L::kNodes, L::kNodes}, clip, clip, true);
            for (int z = 0; z < L::kNodes; ++z)
                for (int y = 0; y < L::kNodes; ++y)
                    for (int x = 0; x < L::kNodes; ++x) {
                        float3 const p{nodeCoordinate(ci, spacing, x, 0.5f, h),
                                       nodeCoordinate(cj, spacing, y, 0.5f, h),
                                       nodeCoordinate(ck, spacing, z, 0.5f, h)};
                        auto const [ref, id] = brute(p);
                        int const n = L::index(x, y, z);
                        if (!clip) {
                            EXPECT_NEAR(dist[n], double(ref), 3e-7 * double(ref) + 1e-7)
                                << "spacing " << spacing << " node " << x << "," << y << "," << z;
                        } else {
                            // Clipped to the band: exact where the nearest box reaches, never
                            // below.
                            EXPECT_GE(dist[n], double(ref) - 3e-7 * double(ref) - 1e-7);
                        }
                        if (!clip && std::abs(double(dist[n]) - double(ref)) <= 1e-7 * double(ref))
                            EXPECT_EQ(ids[n], id) << "the lowest of equally near triangles wins";
                    }
        }
    }
}

// Two triangles at the same distance from every node (one is a copy of the other): the smaller
// id wins whatever the order of the list.
TYPED_TEST(LatticeKernel, TieGoesToTheSmallerId)
{
    using Tr = TypeParam;
    using L = TileLattice<Tr>;
    TriangleMesh m;
    m.positions = {{0.1f, 0.1f, 0.1f}, {0.4f, 0.1f, 0.2f}, {0.2f, 0.5f, 0.3f}};
    for (int t = 0; t < 9; ++t)
        m.triangles.push_back({0, 1, 2});
    auto const ctx = testsupport::kernelContext<Tr>(m, 0.1f, 1e30f);
    for (auto const& order :
         {std::vector<std::int64_t>{8, 5, 2, 7}, std::vector<std::int64_t>{2, 8, 5, 7},
          std::vector<std::int64_t>{7, 5, 8, 2}}) {
        float dist[L::kCount];
        std::int64_t ids[L::kCount];
        computeTileLattice<Tr>(ctx, 0, 0, 0, 1, order.data(), order.data() + order.size(), dist,
                               ids, 1.0f, nullptr, nullptr, int3{0, 0, 0}, int3{0, 0, 0},
                               int3{L::kNodes, L::kNodes, L::kNodes}, false, false, true);
        for (int n = 0; n < L::kCount; ++n)
            ASSERT_EQ(ids[n], 2);
    }
}

// With a parent lattice, the nodes on the parent's lattice are the parent's values (not
// recomputed), and the others are exact.
TYPED_TEST(LatticeKernel, NodesSharedWithTheParentAreCopied)
{
    using Tr = TypeParam;
    using L = TileLattice<Tr>;
    constexpr int R = Tr::kRatio;
    TriangleMesh const m = randomSoup(40, 11, 0.5f);
    auto const ctx = testsupport::kernelContext<Tr>(m, 0.2f, 1e30f);
    std::vector<std::int64_t> all(m.triangles.size());
    for (std::size_t t = 0; t < all.size(); ++t)
        all[t] = std::int64_t(t);
    float parent[L::kCount];
    std::int64_t parentIds[L::kCount];
    for (int n = 0; n < L::kCount; ++n)
        parent[n] = 1000.0f + float(n), parentIds[n] = 100000 + n;
    int3 const slot{Tr::kSlotsPerAxis - 1, 0, Tr::kSlotsPerAxis > 1 ? 1 : 0};
    float dist[L::kCount];
    std::int64_t ids[L::kCount];
    computeTileLattice<Tr>(ctx, 0, 0, 0, 1, all.data(), all.data() + all.size(), dist, ids, 1.0f,
                           parent, parentIds, slot, int3{0, 0, 0},
                           int3{L::kNodes, L::kNodes, L::kNodes}, false, false, true);
    testmeshes::BruteForce const brute(m);
    for (int z = 0; z < L::kNodes; ++z)
        for (int y = 0; y < L::kNodes; ++y)
            for (int x = 0; x < L::kNodes; ++x) {
                int const n = L::index(x, y, z);
                if (x % R == 0 && y % R == 0 && z % R == 0) {
                    int const p = L::index(x / R + Tr::kVoxelsPerSlot * slot.x,
                                           y / R + Tr::kVoxelsPerSlot * slot.y,
                                           z / R + Tr::kVoxelsPerSlot * slot.z);
                    EXPECT_EQ(dist[n], parent[p]);
                    EXPECT_EQ(ids[n], parentIds[p]);
                } else {
                    float3 const p{nodeCoordinate(0, 1, x, 0.5f, 0.2f),
                                   nodeCoordinate(0, 1, y, 0.5f, 0.2f),
                                   nodeCoordinate(0, 1, z, 0.5f, 0.2f)};
                    EXPECT_NEAR(dist[n], double(brute(p).first), 1e-6);
                }
            }
}

// Nodes outside the requested range keep what the outputs held; nodes no triangle reaches get
// the far value and no id; the band flag tells whether any node came near.
TYPED_TEST(LatticeKernel, RangeFarValueAndBandFlag)
{
    using Tr = TypeParam;
    using L = TileLattice<Tr>;
    TriangleMesh m;
    m.positions = {{0.0f, 0.0f, 0.0f}, {0.01f, 0.0f, 0.0f}, {0.0f, 0.01f, 0.0f}};
    m.triangles = {{0, 1, 2}};
    auto const ctx = testsupport::kernelContext<Tr>(m, 0.1f, 0.25f); // far: 2.5 voxels
    std::int64_t const list[] = {0};
    float dist[L::kCount];
    std::int64_t ids[L::kCount];
    std::fill(dist, dist + L::kCount, -7.0f);
    std::fill(ids, ids + L::kCount, std::int64_t(-7));
    bool const near = computeTileLattice<Tr>(
        ctx, 0, 0, 0, 1, list, list + 1, dist, ids, 0.2f, nullptr, nullptr, int3{0, 0, 0},
        int3{0, 0, 1}, int3{L::kNodes, L::kNodes, L::kNodes}, false, false, true);
    EXPECT_TRUE(near); // node (0, 0, 1), at (0.05, 0.05, 0.15), is 0.16 from the triangle
    for (int z = 0; z < L::kNodes; ++z)
        for (int y = 0; y < L::kNodes; ++y)
            for (int x = 0; x < L::kNodes; ++x) {
                int const n = L::index(x, y, z);
                if (z == 0) {
                    EXPECT_EQ(dist[n], -7.0f);
                    EXPECT_EQ(ids[n], -7);
                    continue;
                }
                float3 const p{nodeCoordinate(0, 1, x, 0.5f, 0.1f),
                               nodeCoordinate(0, 1, y, 0.5f, 0.1f),
                               nodeCoordinate(0, 1, z, 0.5f, 0.1f)};
                double const ref = double(testmeshes::triangleDistance(
                    p, m.positions[0], m.positions[1], m.positions[2]));
                if (ref < 0.25 * (1 - 1e-6)) {
                    EXPECT_NEAR(dist[n], ref, 1e-7);
                    EXPECT_EQ(ids[n], 0);
                } else if (ref > 0.25 * (1 + 1e-6)) {
                    EXPECT_EQ(dist[n], 0.25f);
                    EXPECT_EQ(ids[n], kNoTriangle);
                }
            }
    // Far from everything: no node within the band.
    EXPECT_FALSE(computeTileLattice<Tr>(ctx, 400, 0, 0, 1, list, list + 1, dist, ids, 0.1f, nullptr,
                                        nullptr, int3{0, 0, 0}, int3{0, 0, 0},
                                        int3{L::kNodes, L::kNodes, L::kNodes}, false, false, true));
}

// ---- the sparse build's tile visit ------------------------------------------------------------

// A triangle whose vertices all fall in one voxel still visits that voxel, and only it; a
// triangle lying exactly in a plane of samples still visits one voxel across that plane.
TYPED_TEST(LatticeKernel, TriangleInsideOneVoxelVisitsThatVoxelAndItsNeighbours)
{
    using Tr = TypeParam;
    constexpr int W = Tr::kTileWidth;
    float const h = 0.125f;
    TriangleMesh m;
    // In voxel coordinates (world / h - 0.5, so that voxel n has its sample at n) the vertices
    // lie in [1.1, 1.18] x [2.14, 2.22] x {2}: the box of the vertices, floor to ceil, grown by a
    // voxel on each side, is x in [0, 3], y in [1, 4], z in [1, 3] (a flat box takes one voxel).
    m.positions = {{0.20f, 0.33f, 0.3125f}, {0.21f, 0.33f, 0.3125f}, {0.20f, 0.34f, 0.3125f}};
    m.triangles = {{0, 1, 2}};
    auto const ctx = testsupport::kernelContext<Tr>(m, h, 1e30f);
    TileData<float, W, 0, 0> dist(W * W * W, 1e30f);
    TileData<TriangleId, W, 0, 0> ids(W * W * W, std::int64_t(-1));
    visitTileTriangle<Tr>(ctx, int3{0, 0, 0}, 0, dist, ids);
    int visited = 0, expected = 0;
    for (int z = 0; z < W; ++z)
        for (int y = 0; y < W; ++y)
            for (int x = 0; x < W; ++x) {
                bool const inBox = x <= 3 && y >= 1 && y <= 4 && z >= 1 && z <= 3;
                expected += inBox;
                if (ids(x, y, z) != 0) {
                    EXPECT_FALSE(inBox) << x << "," << y << "," << z;
                    continue;
                }
                ++visited;
                EXPECT_TRUE(inBox) << x << "," << y << "," << z;
                float3 const p{nodeCoordinate(0, 1, x, 0.5f, h), nodeCoordinate(0, 1, y, 0.5f, h),
                               nodeCoordinate(0, 1, z, 0.5f, h)};
                EXPECT_NEAR(dist(x, y, z),
                            double(testmeshes::triangleDistance(p, m.positions[0], m.positions[1],
                                                                m.positions[2])),
                            1e-7);
            }
    EXPECT_EQ(visited, expected);
}

// ---- the red-black sweep ------------------------------------------------------------------------

namespace {

template <typename Tr> struct SweepScene {
    static constexpr int kMax = Tr::kMaxDepth;
    static constexpr int W = Tr::kTileWidth;
    float h = 0.1f;
    float far = 1e30f;
    TriangleId none = -1;
    Container<Tr> container{"tree", h};
    VoxelTopology<Tr> topology{"topology", "tree", h};
    VoxelChannel<Tr, float> distance{
        "distance", &far, kDataElementInitializerDefaultValue, false, false, 0, kMax};
    VoxelChannel<Tr, TriangleId> closest{
        "closest", &none, kDataElementInitializerDefaultValue, false, false, 0, kMax};
    TriangleMesh mesh;

    void follow()
    {
        topology.update(container);
        distance.update(topology);
        closest.update(topology);
        container.buildAccessorAccelerationStructure(-1);
    }
    /// Runs colour 0 and colour 1 once; returns the voxels still without a triangle.
    std::int64_t pass()
    {
        std::int64_t unassigned = 0;
        for (std::uint32_t color = 0; color < 2; ++color) {
            TrianglesLevelSetSweepKernel::Kernel<Tr> k(color, container, distance, closest,
                                                       mesh.triangles, mesh.positions,
                                                       float3{0.5f, 0.5f, 0.5f});
            std::as_const(container).reduceInternalNonInlined(
                &k, kTraversalSingleDepth, kNoTile, kMax, kMax, 50, 0, 0, kVisitInteriorVoxelNone);
            unassigned += k.numUnassigned;
        }
        return unassigned;
    }
};

} // namespace

template <typename Tr> class TriangleSweep : public ::testing::Test {
};
TYPED_TEST_SUITE(TriangleSweep, testtraits::TraitsTypes, testtraits::TraitsNames);

// Ids spread from a seeded voxel to every voxel of a row of face-adjacent finest tiles, each
// voxel getting the exact distance to the proposed triangle.
TYPED_TEST(TriangleSweep, IdsSpreadAcrossFaceNeighbours)
{
    using Tr = TypeParam;
    SweepScene<Tr> s;
    s.mesh.positions = {{0.0f, 0.0f, 0.0f}, {0.05f, 0.0f, 0.0f}, {0.0f, 0.05f, 0.0f}};
    s.mesh.triangles = {{0, 1, 2}};
    auto acc = s.container.tileAccessor();
    for (int t = 0; t < 4; ++t)
        acc.addTile(t * SweepScene<Tr>::W, 0, 0, Tr::kMaxDepth);
    s.follow();
    auto const first = s.container.tileAccessor().tile(0, 0, 0, Tr::kMaxDepth).treeIndex();
    s.closest.tileData(first)(0, 0, 0) = 0;
    s.distance.tileData(first)(0, 0, 0) = 0.07f;
    std::int64_t previous = -1, current = 0;
    for (int n = 0; n < 100; ++n) {
        current = s.pass();
        if (current == 0 || current == previous)
            break;
        previous = current;
    }
    EXPECT_EQ(current, 0);
    for (std::int64_t t = 0; t < s.container.tileCount(Tr::kMaxDepth); ++t) {
        auto const& tile = s.container.tile(t, Tr::kMaxDepth);
        auto const d = std::as_const(s.distance).tileData(tile.treeIndex());
        auto const c = std::as_const(s.closest).tileData(tile.treeIndex());
        for (int z = 0; z < SweepScene<Tr>::W; ++z)
            for (int y = 0; y < SweepScene<Tr>::W; ++y)
                for (int x = 0; x < SweepScene<Tr>::W; ++x) {
                    ASSERT_EQ(c(x, y, z), 0);
                    if (t == 0 && x == 0 && y == 0 && z == 0)
                        continue;
                    float3 const p{nodeCoordinate(tile.ti(), 1, x, 0.5f, s.h),
                                   nodeCoordinate(tile.tj(), 1, y, 0.5f, s.h),
                                   nodeCoordinate(tile.tk(), 1, z, 0.5f, s.h)};
                    EXPECT_NEAR(d(x, y, z),
                                double(testmeshes::triangleDistance(p, s.mesh.positions[0],
                                                                    s.mesh.positions[1],
                                                                    s.mesh.positions[2])),
                                1e-6);
                }
    }
}

// In the sweep a proposal at exactly the incumbent's distance does not replace it: the
// comparison is strict.
TYPED_TEST(TriangleSweep, IncumbentStaysOnATie)
{
    using Tr = TypeParam;
    SweepScene<Tr> s;
    s.mesh.positions = {{0.0f, 0.0f, 0.0f}, {0.05f, 0.0f, 0.0f}, {0.0f, 0.05f, 0.0f}};
    s.mesh.triangles = {{0, 1, 2}, {0, 1, 2}}; // two triangles at the same place
    s.container.tileAccessor().addTile(0, 0, 0, Tr::kMaxDepth);
    s.follow();
    auto const t = s.container.tileAccessor().tile(0, 0, 0, Tr::kMaxDepth).treeIndex();
    auto c = s.closest.tileData(t);
    auto d = s.distance.tileData(t);
    // Voxel (1, 0, 0) holds triangle 1 at its exact distance; voxel (0, 0, 0) proposes triangle 0.
    float3 const p{nodeCoordinate(0, 1, 1, 0.5f, s.h), nodeCoordinate(0, 1, 0, 0.5f, s.h),
                   nodeCoordinate(0, 1, 0, 0.5f, s.h)};
    c(0, 0, 0) = 0;
    d(0, 0, 0) = 0.01f;
    c(1, 0, 0) = 1;
    d(1, 0, 0) = Tavrel::SpatialQuery::pointTriangleDistance(
        p, s.mesh.positions[0], s.mesh.positions[1], s.mesh.positions[2]);
    s.pass();
    EXPECT_EQ(std::as_const(s.closest).tileData(t)(1, 0, 0), 1);
}

// A finest tile whose face neighbour exists only at a coarser depth never hears from that face,
// and when nothing can be assigned the count stops changing at once, leaving id -1 and the far
// value.
TYPED_TEST(TriangleSweep, CoarserFaceNeighbourIsNeverHeardFrom)
{
    using Tr = TypeParam;
    constexpr int kMax = Tr::kMaxDepth;
    SweepScene<Tr> s;
    s.mesh.positions = {{0.0f, 0.0f, 0.0f}, {0.05f, 0.0f, 0.0f}, {0.0f, 0.05f, 0.0f}};
    s.mesh.triangles = {{0, 1, 2}};
    auto acc = s.container.tileAccessor();
    std::int64_t const w = Container<Tr>::tileVoxelWidth(kMax);
    std::int64_t const wCoarse = Container<Tr>::tileVoxelWidth(kMax - 1);
    acc.addTile(-w, 0, 0, kMax);    // a finest tile
    acc.addTile(0, 0, 0, kMax - 1); // its +x neighbour exists only one depth up
    s.follow();
    auto const coarse = s.container.tileAccessor().tile(0, 0, 0, kMax - 1);
    ASSERT_EQ(coarse.depth(), kMax - 1);
    ASSERT_GT(wCoarse, w);
    // The coarse tile's ids all name triangle 0.
    s.closest.tileData(coarse.treeIndex()).set(std::int64_t(0));
    std::int64_t const first = s.pass();
    std::int64_t const second = s.pass();
    EXPECT_EQ(first, std::int64_t(Tr::kTileSize));
    EXPECT_EQ(second, first);
    auto const fine = s.container.tileAccessor().tile(-w, 0, 0, kMax).treeIndex();
    for (std::int64_t id : std::as_const(s.closest).tileData(fine))
        EXPECT_EQ(id, -1);
    for (float v : std::as_const(s.distance).tileData(fine))
        EXPECT_EQ(v, s.far);
}

// ---- switches ---------------------------------------------------------------------------------

TEST(VoxelizerSwitches, DefaultsAndSetters)
{
    EXPECT_FALSE(enableTrianglePermutations());
    EXPECT_EQ(trianglePermutationsSeed(), 0ull);
    EXPECT_TRUE(enableVoxelizeMeshOptimizations());
    EXPECT_FALSE(enableVDBBenchmarkOptimizations());
    EXPECT_TRUE(setEnableVoxelizeMeshOptimizations(false));
    EXPECT_FALSE(enableVoxelizeMeshOptimizations());
    EXPECT_FALSE(setEnableVoxelizeMeshOptimizations(true));
    setEnableTrianglePermutations(true);
    setTrianglePermutationsSeed(99);
    EXPECT_TRUE(enableTrianglePermutations());
    EXPECT_EQ(trianglePermutationsSeed(), 99ull);
    setEnableTrianglePermutations(false);
    setTrianglePermutationsSeed(0);
}
