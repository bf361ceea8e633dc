// Tests of the signs of createMeshDistanceField (computeInterior): every finest voxel within 3
// voxels of the surface and random voxels elsewhere against the generalized winding number,
// computed here in double precision, on the bunny, the armadillo and made meshes (a hollow
// sphere, a cube with a cavity, two spheres a voxel apart, a torus, cubes on the grid); the
// walk's consistency and the flood-fill fallback on open meshes; grid lines through shared
// vertices and along shared edges; hole closing; the sparse build's column signs; flood-fill
// details; 1 thread against all threads.
#include "support/cancel_on_timer.h"
#include "support/meshes.h"
#include "support/sanitized.h"
#include "support/typed_traits.h"
#include "support/winding_number.h"
#include <algorithm>
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
#include <hexmold/voxelize/mesh/edge_intersections.h>
#include <hexmold/voxelize/mesh/mesh_distance_field.h>
#include <hexmold/voxelize/mesh/mesh_interior.h>
#include <iostream>
#include <limits>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

using namespace TVL::TileTree3D;
using namespace VolumeGL::TileTree3D;
using testmeshes::TriangleMesh;

namespace {

struct SignOptions {
    bool adaptive = true;
    float maxRelativeError = 0.0f;
    float holeRadius = 0.0f;
    int halfWidth = 3;
};

template <typename Tr> struct SignedVolume {
    static constexpr int kMax = Tr::kMaxDepth;
    static constexpr int W = Tr::kTileWidth;
    float h;
    float far = 1e30f;
    Container<Tr> container;
    VoxelTopology<Tr> topology;
    VoxelChannel<Tr, float> distance;
    Quillon::Ptr<VoxelChannel<Tr, TriangleId>> closest;
    bool result = false;
    std::string log;

    explicit SignedVolume(float voxel)
        : h(voxel), container("tree", voxel), topology("topology", "tree", voxel),
          distance("distance", &far, kDataElementInitializerDefaultValue, false, false, 0, kMax)
    {
    }
    void build(TriangleMesh const& m, SignOptions const& o = {})
    {
        // Standard output is captured at verbose level 1 while the build runs, also when it
        // throws.
        struct Capture {
            std::ostringstream text;
            std::streambuf* old = std::cout.rdbuf(text.rdbuf());
            int verbose = CoreGL::Logger::verboseLevel();
            Capture() { CoreGL::Logger::setVerboseLevel(1); }
            ~Capture()
            {
                std::cout.rdbuf(old);
                CoreGL::Logger::setVerboseLevel(verbose);
            }
        } capture;
        result = createMeshDistanceField<Tr>(
            container, topology, distance, &closest, m.triangles, m.positions, nullptr, true,
            o.holeRadius, 0.0f, false, o.halfWidth, 0, 0, o.adaptive, AdaptivityMaxRelativeError,
            o.maxRelativeError, nullptr, nullptr, nullptr);
        log = capture.text.str();
    }
    bool said(char const* line) const { return log.find(line) != std::string::npos; }
    /// World sample of voxel (x, y, z) of a tile.
    void sample(Tile<Tr> const& t, int x, int y, int z, double out[3]) const
    {
        std::int64_t const s = t.voxelDataWidth();
        int3 const c = t.tijk();
        int const n[3] = {x, y, z};
        for (int a = 0; a < 3; ++a)
            out[a] = (double(c[a]) + double(s) * n[a] + 0.5) * double(h);
    }
};

/// Sign mismatches against the winding number.
struct SignReport {
    std::int64_t near = 0, far = 0;        ///< voxels checked
    std::int64_t mismatchesFar = 0;        ///< farther than 0.5 voxel from the surface
    std::int64_t mismatchesWithinHalf = 0; ///< within 0.5 voxel (printed, not counted against)
};

/// Checks every finest uncovered voxel within 3 voxels of the surface and @p randomCount random
/// uncovered voxels (all depths) elsewhere. The distance to the surface is the stored magnitude,
/// which the unsigned tests check against brute force.
template <typename Tr>
SignReport checkSigns(SignedVolume<Tr> const& v, TriangleMesh const& m, std::int64_t randomCount,
                      char const* name)
{
    constexpr int W = Tr::kTileWidth;
    testmeshes::WindingNumber const winding(m);
    SignReport r;
    struct Far {
        std::int64_t tile;
        int depth, voxel;
    };
    std::vector<Far> others;
    std::vector<std::pair<TreeIndex, int>> nearVoxels;
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < v.container.tileCount(d); ++t) {
            auto const& tile = v.container.tile(t, d);
            auto const dd = v.distance.tileData(tile.treeIndex());
            if (dd.empty())
                continue;
            for (int k = 0, n = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i, ++n) {
                        if (!tile.isLeaf(i, j, k))
                            continue;
                        if (d == Tr::kMaxDepth && std::abs(dd[std::size_t(n)]) <= 3.0f * v.h)
                            nearVoxels.push_back({tile.treeIndex(), n});
                        else
                            others.push_back({t, d, n});
                    }
        }
    std::mt19937_64 rng(12345);
    std::shuffle(others.begin(), others.end(), rng);
    if (std::int64_t(others.size()) > randomCount)
        others.resize(std::size_t(randomCount));
    if (testbuild::kSanitized && nearVoxels.size() > 20000) {
        // Several times slower: 20000 of the near voxels, spread over them.
        std::vector<std::pair<TreeIndex, int>> some;
        std::size_t const step = nearVoxels.size() / 20000 + 1;
        for (std::size_t q = 0; q < nearVoxels.size(); q += step)
            some.push_back(nearVoxels[q]);
        nearVoxels.swap(some);
    }
    std::vector<std::pair<TreeIndex, int>> all = nearVoxels;
    for (Far const& f : others)
        all.push_back({TreeIndex{f.tile, f.depth}, f.voxel});
    r.near = std::int64_t(nearVoxels.size());
    r.far = std::int64_t(others.size());
    std::vector<char> wrong(all.size(), 0), close(all.size(), 0);
    TVL::Parallel::parallel_for(
        TVL::Parallel::blocked_range<std::size_t>(0, all.size(), 256), [&](auto const& range) {
            for (std::size_t q = range.begin(); q != range.end(); ++q) {
                auto const& tile = v.container.tile(all[q].first);
                int const n = all[q].second;
                double p[3];
                v.sample(tile, n % W, (n / W) % W, n / (W * W), p);
                float const value = v.distance.tileData(tile.treeIndex())[std::size_t(n)];
                bool const inside = winding(p) > 0.5;
                wrong[q] = inside != std::signbit(value);
                close[q] = std::abs(value) <= 0.5f * v.h;
            }
        });
    for (std::size_t q = 0; q < all.size(); ++q)
        if (wrong[q])
            (close[q] ? r.mismatchesWithinHalf : r.mismatchesFar) += 1;
    std::cout << "[ signs    ] " << name << ": " << r.near << " voxels within 3 voxels, " << r.far
              << " elsewhere; mismatches farther than 0.5 voxel " << r.mismatchesFar
              << ", within 0.5 voxel " << r.mismatchesWithinHalf << "\n";
    return r;
}

template <typename Tr>
void expectRightSigns(TriangleMesh const& m, float h, char const* name, SignOptions o = {},
                      std::int64_t randomCount = 100000)
{
    if (testbuild::kSanitized)
        randomCount = std::min<std::int64_t>(randomCount, 10000);
    SignedVolume<Tr> v(h);
    v.build(m, o);
    EXPECT_TRUE(v.result);
    EXPECT_TRUE(v.said("No inconsistency found: Computing interior using intersection counts"))
        << name << "\n"
        << v.log;
    EXPECT_FALSE(v.said("Inconsistency found: Computing interior using floodfill")) << name;
    SignReport const r = checkSigns(v, m, randomCount, name);
    EXPECT_GT(r.near, 0) << name;
    EXPECT_EQ(r.mismatchesFar, 0) << name;
}

template <typename T> class MeshInterior : public ::testing::Test {
};
TYPED_TEST_SUITE(MeshInterior, testtraits::TraitsTypes, testtraits::TraitsNames);

float3 f3(double x, double y, double z)
{
    return {float(x), float(y), float(z)};
}

} // namespace

TEST(WindingNumberOracle, ClusteredSumAgreesWithTheExactSumAndKnowsInsideFromOutside)
{
    TriangleMesh const s = testmeshes::icosphere(f3(0, 0, 0), 1.0, 3);
    testmeshes::WindingNumber const w(s);
    double const centre[3] = {0, 0, 0}, outside[3] = {1.5, 0.2, -0.1}, near[3] = {0.97, 0.05, 0.0};
    // The clustered sum is within a few hundredths, far inside the 0.5 that decides.
    EXPECT_NEAR(w.exact(centre), 1.0, 1e-12);
    EXPECT_NEAR(w(centre), 1.0, 0.03);
    EXPECT_NEAR(w(outside), 0.0, 0.03);
    EXPECT_NEAR(w(near), 1.0, 0.03);
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> u(-2.0, 2.0);
    for (int q = 0; q < 200; ++q) {
        double const p[3] = {u(rng), u(rng), u(rng)};
        EXPECT_NEAR(w(p), w.exact(p), 0.03);
    }
}

TYPED_TEST(MeshInterior, SphereSignsMatchTheWindingNumber)
{
    expectRightSigns<TypeParam>(testmeshes::icosphere(f3(0.013, -0.021, 0.007), 1.0, 4), 1.0f / 24,
                                "icosphere");
}

TYPED_TEST(MeshInterior, BunnySignsMatchTheWindingNumber)
{
    TriangleMesh const m = testmeshes::readObj(testmeshes::dataFile("bunny.obj"));
    if (m.triangles.empty())
        GTEST_SKIP() << "bunny.obj is not in the shared data folder";
    double lo[3] = {1e30, 1e30, 1e30}, hi[3] = {-1e30, -1e30, -1e30};
    for (auto const& p : m.positions)
        for (int a = 0; a < 3; ++a)
            lo[a] = std::min(lo[a], double(p[a])), hi[a] = std::max(hi[a], double(p[a]));
    double const side = std::max({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]});
    double const across = testbuild::unlessSanitized(96.0, 48.0);
    expectRightSigns<TypeParam>(m, float(side / across), "bunny");
    SignOptions adaptive;
    adaptive.maxRelativeError = 1e-3f;
    expectRightSigns<TypeParam>(m, float(side / across), "bunny, error-driven", adaptive, 20000);
}

TYPED_TEST(MeshInterior, ArmadilloSignsMatchTheWindingNumber)
{
    TriangleMesh const m = testmeshes::readObj(testmeshes::dataFile("armadillo.obj"));
    if (m.triangles.empty())
        GTEST_SKIP() << "armadillo.obj is not in the shared data folder";
    double lo[3] = {1e30, 1e30, 1e30}, hi[3] = {-1e30, -1e30, -1e30};
    for (auto const& p : m.positions)
        for (int a = 0; a < 3; ++a)
            lo[a] = std::min(lo[a], double(p[a])), hi[a] = std::max(hi[a], double(p[a]));
    double const side = std::max({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]});
    expectRightSigns<TypeParam>(m, float(side / testbuild::unlessSanitized(128.0, 48.0)),
                                "armadillo");
}

TYPED_TEST(MeshInterior, HollowSphereKeepsItsVoidOutside)
{
    // Shell between radius 1.0 and 1.5; the inner surface faces the void.
    TriangleMesh const m =
        testmeshes::merged(testmeshes::icosphere(f3(0, 0, 0), 1.5, 4),
                           testmeshes::flipped(testmeshes::icosphere(f3(0, 0, 0), 1.0, 4)));
    float const h = 1.0f / 20;
    expectRightSigns<TypeParam>(m, h, "hollow sphere");
    SignedVolume<TypeParam> v(h);
    v.build(m);
    // The centre of the void is outside, a point in the shell inside.
    auto valueAt = [&](double x, double y, double z) {
        for (int d = TypeParam::kMaxDepth; d >= 0; --d)
            for (std::int64_t t = 0; t < v.container.tileCount(d); ++t) {
                auto const& tile = v.container.tile(t, d);
                double p[3];
                v.sample(tile, 0, 0, 0, p);
                double const w = double(tile.voxelDataWidth()) * h;
                int n[3];
                double const q[3] = {x, y, z};
                bool in = true;
                for (int a = 0; a < 3; ++a) {
                    n[a] = int(std::floor((q[a] - p[a]) / w + 0.5));
                    if (n[a] < 0 || n[a] >= TypeParam::kTileWidth)
                        in = false;
                }
                if (in && tile.isLeaf(n[0], n[1], n[2]))
                    return v.distance.tileData(tile.treeIndex())(n[0], n[1], n[2]);
            }
        return std::numeric_limits<float>::quiet_NaN();
    };
    EXPECT_GT(valueAt(0.0, 0.0, 0.0), 0.0f);
    EXPECT_LT(valueAt(1.25, 0.0, 0.0), 0.0f);
    EXPECT_GT(valueAt(2.0, 0.0, 0.0), 0.0f);
}

TYPED_TEST(MeshInterior, CubeWithACavity)
{
    TriangleMesh const m = testmeshes::merged(
        testmeshes::box(f3(-1, -1, -1), f3(1, 1, 1)),
        testmeshes::flipped(testmeshes::box(f3(-0.45, -0.4, -0.35), f3(0.5, 0.45, 0.4))));
    expectRightSigns<TypeParam>(m, 1.0f / 20, "cube with a cavity");
}

TYPED_TEST(MeshInterior, TwoSpheresOneVoxelApartStaySeparate)
{
    float const h = 1.0f / 32;
    TriangleMesh const m =
        testmeshes::merged(testmeshes::icosphere(f3(-(1.0 + 0.5 * h), 0.01, 0.02), 1.0, 4),
                           testmeshes::icosphere(f3(1.0 + 0.5 * h, 0.01, 0.02), 1.0, 4));
    expectRightSigns<TypeParam>(m, h, "two spheres one voxel apart");
}

TYPED_TEST(MeshInterior, Torus)
{
    expectRightSigns<TypeParam>(testmeshes::torus(f3(0.01, 0.02, -0.01), 1.0, 0.4, 64, 32),
                                1.0f / 24, "torus");
}

TYPED_TEST(MeshInterior, CubesOnTheGridPointsAndGridLines)
{
    float const h = 1.0f / 16;
    // Samples sit at (n + 0.5) h: corners on samples put the cube's edges on grid lines and its
    // faces through rows of samples.
    expectRightSigns<TypeParam>(
        testmeshes::box(f3(-9.5 * h, -7.5 * h, -8.5 * h), f3(10.5 * h, 9.5 * h, 6.5 * h)), h,
        "cube with corners on samples");
    // Corners on voxel corners.
    expectRightSigns<TypeParam>(
        testmeshes::box(f3(-9 * h, -7 * h, -8 * h), f3(10 * h, 9 * h, 6 * h)), h,
        "cube with corners on voxel corners");
}

TYPED_TEST(MeshInterior, GridLineThroughAFanVertexAndAlongSharedEdgesCountsOnce)
{
    // An octahedron whose six vertices, and so its edges, lie on sample lines: lines through
    // the vertices pass through the fans of four triangles, lines in the coordinate planes run
    // along shared edges.
    float const h = 1.0f / 16;
    double const c = 0.5 * h, r = 12.0 * h;
    TriangleMesh m;
    m.positions.push_back(f3(c + r, c, c));
    m.positions.push_back(f3(c - r, c, c));
    m.positions.push_back(f3(c, c + r, c));
    m.positions.push_back(f3(c, c - r, c));
    m.positions.push_back(f3(c, c, c + r));
    m.positions.push_back(f3(c, c, c - r));
    std::uint64_t const f[8][3] = {{0, 2, 4}, {2, 1, 4}, {1, 3, 4}, {3, 0, 4},
                                   {2, 0, 5}, {1, 2, 5}, {3, 1, 5}, {0, 3, 5}};
    for (auto const& t : f)
        m.triangles.push_back({t[0], t[1], t[2]});
    expectRightSigns<TypeParam>(m, h, "octahedron on sample lines");

    // The line test itself, on fixed-point coordinates.
    FixedPointCoords coords;
    coords.points = {{0, 0, 0},     {4096, 0, 0},  {0, 4096, 0},
                     {-4096, 0, 0}, {0, -4096, 0}, {0, 0, 4096}};
    // A fan of four triangles around vertex 0, a pyramid cap facing +z; the line along z
    // through vertex 0 must cross exactly one of them.
    std::array<std::int64_t, 3> const& apex = coords.points[0];
    int hits = 0;
    std::uint64_t const fan[4][3] = {{0, 1, 2}, {0, 2, 3}, {0, 3, 4}, {0, 4, 1}};
    for (auto const& t : fan) {
        double at = 0.0;
        hits += lineCrossesTriangle(2, apex[0], apex[1], coords.points[t[0]], coords.points[t[1]],
                                    coords.points[t[2]], at) != 0;
    }
    EXPECT_EQ(hits, 1);
    // Along the shared edge 0-1 (the line along z through (2048, 0)): exactly one of the two
    // triangles that share it.
    hits = 0;
    for (auto const& t : fan) {
        double at = 0.0;
        hits += lineCrossesTriangle(2, 2048, 0, coords.points[t[0]], coords.points[t[1]],
                                    coords.points[t[2]], at) != 0;
    }
    EXPECT_EQ(hits, 1);
}

TYPED_TEST(MeshInterior, OpenMeshesAreFoundInconsistentAndFallBackToFloodFill)
{
    float const h = 1.0f / 16;
    TriangleMesh const cube = testmeshes::box(f3(-1.02, -0.98, -1.01), f3(0.99, 1.03, 1.0));
    std::vector<std::pair<std::string, TriangleMesh>> open;
    open.push_back({"cube missing one face",
                    testmeshes::withoutTriangles(cube, [](std::size_t t) { return t < 2; })});
    TriangleMesh tet;
    tet.positions.push_back(f3(-0.9, -0.8, -0.7));
    tet.positions.push_back(f3(1.1, -0.85, -0.75));
    tet.positions.push_back(f3(0.05, 1.2, -0.7));
    tet.positions.push_back(f3(0.02, 0.1, 1.15));
    tet.triangles.push_back({0, 2, 1});
    tet.triangles.push_back({0, 1, 3});
    tet.triangles.push_back({1, 2, 3});
    open.push_back({"open tetrahedron", tet});
    for (auto const& [name, m] : open) {
        SignedVolume<TypeParam> v(h);
        v.build(m);
        EXPECT_TRUE(v.result) << name;
        EXPECT_TRUE(v.said("Inconsistency found: Computing interior using floodfill"))
            << name << "\n"
            << v.log;
        // An error-driven tree gives up instead, for the caller to build again without the test.
        SignedVolume<TypeParam> e(h);
        SignOptions o;
        o.maxRelativeError = 1e-3f;
        e.build(m, o);
        EXPECT_FALSE(e.result) << name;
    }
}

TYPED_TEST(MeshInterior, HoleClosingOfAnOpenBunnyAgainstTheWindingNumber)
{
    TriangleMesh const full = testmeshes::readObj(testmeshes::dataFile("bunny.obj"));
    if (full.triangles.empty())
        GTEST_SKIP() << "bunny.obj is not in the shared data folder";
    double lo[3] = {1e30, 1e30, 1e30}, hi[3] = {-1e30, -1e30, -1e30};
    for (auto const& p : full.positions)
        for (int a = 0; a < 3; ++a)
            lo[a] = std::min(lo[a], double(p[a])), hi[a] = std::max(hi[a], double(p[a]));
    double const side = std::max({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]});
    float const h = float(side / 64);
    // A few triangles removed: small holes.
    TriangleMesh const holed =
        testmeshes::withoutTriangles(full, [](std::size_t t) { return t % 997 == 5; });
    SignedVolume<TypeParam> walk(h);
    walk.build(holed);
    EXPECT_TRUE(walk.said("Inconsistency found: Computing interior using floodfill")) << walk.log;
    SignOptions o;
    o.holeRadius = 2.0f * h;
    SignedVolume<TypeParam> closed(h);
    closed.build(holed, o);
    EXPECT_TRUE(closed.result);
    // Against the closed bunny's winding number.
    SignReport const r = checkSigns(closed, full, 20000, "bunny with holes, hole radius 2 voxels");
    double const share =
        double(r.mismatchesFar) / double(std::max<std::int64_t>(1, r.near + r.far));
    std::cout << "[ signs    ] mismatch share " << 100.0 * share << " %\n";
    EXPECT_LT(share, 0.01);
}

TYPED_TEST(MeshInterior, SparseBuildSignsMatchTheWindingNumber)
{
    // Coarser voxels take their signs from the finest tiles: the torus's hole and the hollow
    // sphere's void stay outside.
    std::vector<std::pair<char const*, TriangleMesh>> meshes;
    meshes.push_back(
        {"torus, sparse build", testmeshes::torus(f3(0.01, 0.02, -0.01), 1.0, 0.4, 64, 32)});
    meshes.push_back(
        {"hollow sphere, sparse build",
         testmeshes::merged(testmeshes::icosphere(f3(0, 0, 0), 1.5, 4),
                            testmeshes::flipped(testmeshes::icosphere(f3(0, 0, 0), 1.0, 4)))});
    for (auto const& [name, m] : meshes) {
        SignOptions o;
        o.adaptive = false;
        SignedVolume<TypeParam> v(1.0f / 24);
        v.build(m, o);
        EXPECT_TRUE(v.result);
        SignReport const r = checkSigns(v, m, 100000, name);
        EXPECT_GT(r.near, 0) << name;
        EXPECT_EQ(r.mismatchesFar, 0) << name;
    }
}

TYPED_TEST(MeshInterior, SameBitsOnOneThreadAndOnAll)
{
    TriangleMesh const m =
        testmeshes::merged(testmeshes::icosphere(f3(0, 0, 0), 1.5, 3),
                           testmeshes::flipped(testmeshes::icosphere(f3(0.05, 0, 0), 1.0, 3)));
    for (int mode = 0; mode < 3; ++mode) {
        SignOptions o;
        o.adaptive = mode != 1;
        if (mode == 2)
            o.holeRadius = 0.1f;
        auto build = [&](int threads) {
            TVL::Parallel::global_control limit(
                TVL::Parallel::global_control::max_allowed_parallelism, threads);
            auto v = std::make_unique<SignedVolume<TypeParam>>(1.0f / 16);
            v->build(m, o);
            return v;
        };
        auto const one = build(1);
        auto const all = build(4);
        ASSERT_EQ(one->container.tileCount(-1), all->container.tileCount(-1));
        for (int d = 0; d <= TypeParam::kMaxDepth; ++d)
            for (std::int64_t t = 0; t < one->container.tileCount(d); ++t) {
                ASSERT_EQ(one->container.tile(t, d).tijk(), all->container.tile(t, d).tijk());
                auto const a = one->distance.tileData(t, d);
                auto const b = all->distance.tileData(t, d);
                ASSERT_EQ(a.size(), b.size());
                for (std::size_t q = 0; q < a.size(); ++q)
                    ASSERT_EQ(std::memcmp(&a[q], &b[q], sizeof(float)), 0)
                        << "mode " << mode << " depth " << d;
            }
    }
}

TYPED_TEST(MeshInterior, FloodFillSeedsAtTheRootCornersAndLeavesNothingOnTheZeroLevel)
{
    // A lone root tile: a positive pocket in the middle surrounded by a band that, less the
    // radius, is negative and touches the root's corners; the band joins the outside by decree,
    // the pocket, cut off from the corners, becomes inside. Values at exactly the radius would
    // land on zero and are moved off it.
    using Tr = TypeParam;
    constexpr int W = Tr::kTileWidth;
    float const h = 1.0f;
    Container<Tr> container("tree", h);
    VoxelTopology<Tr> topology("topology", "tree", h);
    float const far = 100.0f;
    VoxelChannel<Tr, float> distance("distance", &far, kDataElementInitializerDefaultValue, false,
                                     false, 0, Tr::kMaxDepth);
    {
        auto acc = container.tileAccessor();
        acc.addTile(int3{-int(Tr::kCentreOffset), -int(Tr::kCentreOffset), -int(Tr::kCentreOffset)},
                    0);
    }
    topology.update(container);
    distance.update(topology);
    ASSERT_EQ(container.tileCount(0), 1);
    auto dd = distance.tileData(0, 0);
    float const radius = 2.0f;
    for (int k = 0; k < W; ++k)
        for (int j = 0; j < W; ++j)
            for (int i = 0; i < W; ++i) {
                bool const pocket = i > 0 && i < W - 1 && j > 0 && j < W - 1 && k > 0 && k < W - 1;
                dd(i, j, k) = pocket ? 5.0f : (i == 0 && j == 0 && k == 0 ? radius : 1.0f);
            }
    floodFillInterior(container, topology, distance, radius, true);
    auto const out = std::as_const(distance).tileData(0, 0);
    for (int k = 1; k < W - 1; ++k)
        for (int j = 1; j < W - 1; ++j)
            for (int i = 1; i < W - 1; ++i)
                EXPECT_LT(out(i, j, k), 0.0f) << i << "," << j << "," << k;
    EXPECT_NE(out(0, 0, 0), 0.0f);
    EXPECT_TRUE(std::isfinite(out(0, 0, 0)));
}

TYPED_TEST(MeshInterior, HoleClosingGivesTheClosedSpheresSigns)
{
    // The triangles around one vertex removed: a hole about one voxel across, closed by a hole
    // radius of two voxels.
    float const h = 1.0f / 24;
    TriangleMesh const closed = testmeshes::icosphere(f3(0.013, -0.021, 0.007), 1.0, 4);
    TriangleMesh const holed = testmeshes::withoutTriangles(closed, [&](std::size_t t) {
        auto const& tri = closed.triangles[t];
        return tri.x == 0 || tri.y == 0 || tri.z == 0;
    });
    ASSERT_LT(holed.triangles.size(), closed.triangles.size());
    SignOptions o;
    o.holeRadius = 2.0f * h;
    SignedVolume<TypeParam> v(h);
    v.build(holed, o);
    EXPECT_TRUE(v.result);
    SignReport const r = checkSigns(v, closed, 20000, "sphere with a hole, hole radius 2 voxels");
    EXPECT_GT(r.near, 0);
    EXPECT_EQ(r.mismatchesFar, 0);
}

TYPED_TEST(MeshInterior, CancellationInTheSignStagesThrowsAndLeavesTheObjectsUsable)
{
    using Tr = TypeParam;
    float const h = 1.0f / 16;
    TriangleMesh const m = testmeshes::icosphere(f3(0, 0, 0), 1.0, 3);
    struct Case {
        char const* stage;
        bool adaptive;
        float holeRadius;
    };
    // Each stage's end asks to stop; the next parallel construct, inside the sign stage, throws.
    Case const cases[] = {{".assign_voxelization", true, 0.0f},
                          {".compute_interior", true, 0.0f},
                          {".reset_zero_crossing_and_assign_value_type", true, 2.0f * h},
                          {".mesh_fast_sweep_red_black", false, 0.0f},
                          {".compute_interior_assign_signed", false, 0.0f}};
    for (Case const& c : cases) {
        SignOptions o;
        o.adaptive = c.adaptive;
        o.holeRadius = c.holeRadius;
        SignedVolume<Tr> v(h);
        bool thrown = false;
        {
            testcancel::CancelOnTimer const cancel(c.stage);
            try {
                v.build(m, o);
            } catch (std::runtime_error const& e) {
                thrown = true;
                EXPECT_EQ(std::string(e.what()), TVL::exceptionMessage);
            }
            EXPECT_GE(cancel.reports(), 1) << c.stage;
        }
        EXPECT_TRUE(thrown) << c.stage;
        v.topology.update(v.container);
        v.distance.update(v.topology);
        SignedVolume<Tr> again(h);
        again.build(m, o);
        EXPECT_TRUE(again.result) << c.stage;
    }
}
