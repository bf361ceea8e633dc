// Tests of voxelizeMesh: accuracy of the signed distance near the surface and over each depth's
// band against the exact distance (a bounding volume hierarchy over the triangles, long double)
// with signs from the generalized winding number, on made meshes (icosphere, torus, cube, a
// polygon mesh of quads and pentagons), the bunny and the armadillo, both trees and both builds;
// hole closing; property transfer; 1 thread against all threads; cancellation at each stage; the
// driver's derived parameters, its retry, pruning and the property edge cases; bad input.
#include "support/cancel_on_timer.h"
#include "support/mesh_bvh.h"
#include "support/meshes.h"
#include "support/sanitized.h"
#include "support/typed_traits.h"
#include "support/winding_number.h"
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/quillon/job.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/platform/tavrel/math_support.h>
#include <hexmold/platform/tavrel/spatial_query.h>
#include <hexmold/platform/testing/recording_services.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/voxelize/mesh/triangle_distance_kernel.h>
#include <hexmold/voxelize/mesh/voxelize_mesh.h>
#include <iostream>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

using namespace TVL::TileTree3D;
using namespace VolumeGL::TileTree3D;
using testmeshes::TriangleMesh;
namespace Geo = Tavrel::Geometry;

namespace {

float3 f3(double x, double y, double z)
{
    return {float(x), float(y), float(z)};
}

/// A polygon mesh: positions, faces, and the triangles of its fan triangulation (the truth).
struct PolyMesh {
    Quillon::Array<float3> positions;
    Quillon::Array<unsigned int> faceVertex, faceOffset{0};
    TriangleMesh triangles;

    void addFace(std::vector<unsigned> const& f)
    {
        for (unsigned v : f)
            faceVertex.push_back(v);
        faceOffset.push_back(unsigned(faceVertex.size()));
        for (std::size_t q = 2; q < f.size(); ++q)
            triangles.triangles.push_back({f[0], f[q - 1], f[q]});
    }
    static PolyMesh fromTriangles(TriangleMesh const& m)
    {
        PolyMesh p;
        p.positions = m.positions;
        p.triangles.positions = m.positions;
        for (auto const& t : m.triangles)
            p.addFace({unsigned(t.x), unsigned(t.y), unsigned(t.z)});
        return p;
    }
    Quillon::MutablePtr<Tavrel::Object> object() const
    {
        return Geo::createMesh(positions, faceVertex, faceOffset);
    }
};

/// A closed pentagonal prism: two pentagons and five quads, outward facing.
PolyMesh pentagonalPrism()
{
    PolyMesh p;
    for (int z = 0; z < 2; ++z)
        for (int i = 0; i < 5; ++i) {
            double const a = 2.0 * M_PI * i / 5 + 0.1;
            p.positions.push_back(
                f3(1.1 * std::cos(a) + 0.013, 1.1 * std::sin(a) - 0.021, z ? 0.8 : -0.9));
        }
    p.triangles.positions = p.positions;
    p.addFace({4, 3, 2, 1, 0});      // bottom, facing -z
    p.addFace({5, 6, 7, 8, 9});      // top, facing +z
    for (unsigned i = 0; i < 5; ++i) // sides
        p.addFace({i, (i + 1) % 5, 5 + (i + 1) % 5, 5 + i});
    return p;
}

struct Options {
    bool computeInterior = true;
    Adaptivity adaptivity = AdaptivityMaxRelativeError;
    float maxRelativeError = 0.0f;
    float holeRadius = 0.0f;
    float thickening = 0.0f;
    std::string properties;
    std::vector<ResolutionField> fields;
    bool useFields = false;
};

template <typename Tr> struct Volume {
    static constexpr int kMax = Tr::kMaxDepth;
    static constexpr int W = Tr::kTileWidth;
    float h;
    float far = 1e30f;
    Container<Tr> container;
    VoxelTopology<Tr> topology;
    VoxelChannel<Tr, float> distance;
    TVL::Object object;
    Quillon::Testing::RecordingServices services;
    std::string out, debug;

    explicit Volume(float voxel)
        : h(voxel), container("tree", voxel), topology(Geo::sVoxelComp, Geo::sVoxelTileTree, voxel),
          distance(Geo::sVoxelSignedDistance, &far, kDataElementInitializerDefaultValue, false,
                   false, 0, kMax)
    {
    }
    void build(PolyMesh const& m, Options const& o = {}, int verbose = 0,
               Tavrel::Object const* meshObject = nullptr)
    {
        auto const made = m.object();
        ASSERT_TRUE(made || meshObject);
        Tavrel::Object const& mesh = meshObject ? *meshObject : *made;
        int const saved = CoreGL::Logger::verboseLevel();
        CoreGL::Logger::setVerboseLevel(verbose);
        std::ostringstream cout, dbg;
        std::streambuf* old = std::cout.rdbuf(cout.rdbuf());
        CoreGL::Logger::setDebugFileStream(&dbg);
        Quillon::Array<ResolutionField> fields(o.fields.begin(), o.fields.end());
        try {
            voxelizeMesh<Tr>(mesh, m.positions, m.faceVertex, m.faceOffset, o.properties, nullptr,
                             o.computeInterior, o.adaptivity, o.maxRelativeError, o.holeRadius,
                             o.thickening, o.useFields ? &fields : nullptr, container, topology,
                             distance, object, services);
        } catch (...) {
            std::cout.rdbuf(old);
            CoreGL::Logger::setDebugFileStream(&std::clog);
            CoreGL::Logger::setVerboseLevel(saved);
            throw;
        }
        std::cout.rdbuf(old);
        CoreGL::Logger::setDebugFileStream(&std::clog);
        CoreGL::Logger::setVerboseLevel(saved);
        out = cout.str();
        debug = dbg.str();
    }
    void sample(Tile<Tr> const& t, int n, float3& p) const
    {
        std::int64_t const s = t.voxelDataWidth();
        int3 const c = t.tijk();
        int const ijk[3] = {n % W, (n / W) % W, n / (W * W)};
        for (int a = 0; a < 3; ++a)
            p[a] = float((double(c[a]) + double(s) * ijk[a] + 0.5) * double(h));
    }
};

struct Accuracy {
    std::int64_t near = 0, band = 0, signMismatches = 0, backgroundNear = 0;
    double meanNear = 0.0, maxNear = 0.0, maxBand = 0.0; ///< in voxels of the voxel's depth
    double maxNear2 = 0.0;                               ///< within 2 voxels, printed
};

/// The adaptive build measures exact distances within 1.73 voxels of the surface at each depth
/// (its lattice band); farther out a voxel holds the best distance its tile's triangles give.
constexpr double kAdaptiveNear = 1.5;

/// Every uncovered voxel: near the surface (finest, within @p nearLimit voxels) the error against
/// the exact signed distance; in each depth's band (true distance within 3 of that depth's voxels)
/// the error in that depth's voxels; signs against the winding number farther than 0.5 voxel.
template <typename Tr>
Accuracy measure(Volume<Tr> const& v, TriangleMesh const& m, char const* name,
                 double nearLimit = 2.0)
{
    constexpr int W = Tr::kTileWidth;
    testmeshes::MeshBvh const bvh(m);
    testmeshes::WindingNumber const winding(m);
    struct Item {
        TreeIndex t;
        int n;
    };
    std::vector<Item> items;
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < v.container.tileCount(d); ++t) {
            auto const& tile = v.container.tile(t, d);
            for (int n = 0; n < W * W * W; ++n)
                if (tile.isLeaf(n % W, (n / W) % W, n / (W * W)))
                    items.push_back({tile.treeIndex(), n});
        }
    if (testbuild::kSanitized) {
        // Several times slower: every fifth voxel.
        std::vector<Item> some;
        for (std::size_t q = 0; q < items.size(); q += 5)
            some.push_back(items[q]);
        items.swap(some);
    }
    std::vector<double> nearErr(items.size(), -1.0), near2Err(items.size(), -1.0),
        bandErr(items.size(), -1.0);
    std::vector<char> mismatch(items.size(), 0), backgroundNear(items.size(), 0);
    TVL::Parallel::parallel_for(
        TVL::Parallel::blocked_range<std::size_t>(0, items.size(), 256), [&](auto const& r) {
            for (std::size_t q = r.begin(); q != r.end(); ++q) {
                auto const& tile = v.container.tile(items[q].t);
                auto const dd = v.distance.tileData(items[q].t);
                if (dd.empty())
                    continue;
                float3 p;
                v.sample(tile, items[q].n, p);
                double const w = double(tile.voxelDataWidth()) * v.h;
                double const value = dd[std::size_t(items[q].n)];
                // Only distances up to the widest threshold below matter.
                double const exact =
                    bvh(p, std::max({3.0 * w, 3.0 * double(v.h), nearLimit * double(v.h)}));
                // Each depth's band: within 1.5 of its voxels of the surface, where the build
                // measures exact distances (coarser depths: redistanced from them); the background
                // (the far value) never within 3 finest voxels of the surface.
                bool const background = std::abs(value) >= 0.5 * double(v.far);
                if (background && exact <= 3.0 * v.h)
                    backgroundNear[q] = 1;
                if (exact > 3.0 * w && background)
                    continue;
                double const pd[3] = {p.x, p.y, p.z};
                bool const inside = winding(pd) > 0.5;
                double const truth = inside ? -exact : exact;
                if (exact > 0.5 * v.h && std::signbit(value) != inside)
                    mismatch[q] = 1;
                if (!background && exact <= 1.5 * w)
                    bandErr[q] = std::abs(value - truth) / w;
                if (tile.depth() == Tr::kMaxDepth && exact <= 2.0 * v.h)
                    near2Err[q] = std::abs(value - truth) / v.h;
                if (tile.depth() == Tr::kMaxDepth && exact <= nearLimit * v.h)
                    nearErr[q] = std::abs(value - truth) / v.h;
            }
        });
    Accuracy a;
    double sum = 0.0;
    for (std::size_t q = 0; q < items.size(); ++q) {
        a.signMismatches += mismatch[q];
        a.backgroundNear += backgroundNear[q];
        if (nearErr[q] >= 0.0) {
            ++a.near;
            sum += nearErr[q];
            a.maxNear = std::max(a.maxNear, nearErr[q]);
        }
        a.maxNear2 = std::max(a.maxNear2, near2Err[q]);
        if (bandErr[q] >= 0.0) {
            ++a.band;
            a.maxBand = std::max(a.maxBand, bandErr[q]);
        }
    }
    a.meanNear = a.near ? sum / double(a.near) : 0.0;
    std::cout << "[ accuracy ] " << name << ": " << a.near << " voxels within " << nearLimit
              << " voxels: mean error " << a.meanNear << ", max " << a.maxNear
              << " voxel (within 2 voxels: max " << a.maxNear2 << "); " << a.band
              << " band voxels: max " << a.maxBand
              << " voxel of their depth; background voxels within a voxel of the surface "
              << a.backgroundNear << "; sign mismatches beyond 0.5 voxel " << a.signMismatches
              << "\n";
    return a;
}

void expectAccurate(Accuracy const& a, char const* name)
{
    EXPECT_GT(a.near, 0) << name;
    EXPECT_LE(a.meanNear, 0.005) << name;
    EXPECT_LE(a.maxNear, 0.25) << name;
    EXPECT_LE(a.maxBand, 1.0) << name;
    EXPECT_EQ(a.signMismatches, 0) << name;
    EXPECT_EQ(a.backgroundNear, 0) << name;
}

double maxSide(TriangleMesh const& m)
{
    double lo[3] = {1e30, 1e30, 1e30}, hi[3] = {-1e30, -1e30, -1e30};
    for (auto const& p : m.positions)
        for (int a = 0; a < 3; ++a)
            lo[a] = std::min(lo[a], double(p[a])), hi[a] = std::max(hi[a], double(p[a]));
    return std::max({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]});
}

template <typename T> class VoxelizeMesh : public ::testing::Test {
};
TYPED_TEST_SUITE(VoxelizeMesh, testtraits::TraitsTypes, testtraits::TraitsNames);

/// The sparse build: resolution-field adaptivity without fields.
Options sparse()
{
    Options o;
    o.adaptivity = AdaptivityResolutionFields;
    return o;
}

} // namespace

TYPED_TEST(VoxelizeMesh, MadeMeshesAreAccurateInBothBuilds)
{
    std::vector<std::pair<std::string, PolyMesh>> meshes;
    meshes.push_back({"icosphere", PolyMesh::fromTriangles(
                                       testmeshes::icosphere(f3(0.013, -0.021, 0.007), 1.0, 4))});
    meshes.push_back({"torus", PolyMesh::fromTriangles(
                                   testmeshes::torus(f3(0.01, 0.02, -0.01), 1.0, 0.4, 64, 32))});
    meshes.push_back({"cube", PolyMesh::fromTriangles(
                                  testmeshes::box(f3(-0.93, -1.01, -0.97), f3(1.02, 0.96, 0.99)))});
    meshes.push_back({"pentagonal prism of quads and pentagons", pentagonalPrism()});
    for (auto const& [name, m] : meshes)
        for (int build = 0; build < 2; ++build) {
            std::string const label = name + (build ? ", sparse build" : ", adaptive build");
            Volume<TypeParam> v(1.0f / 20);
            v.build(m, build ? sparse() : Options{});
            expectAccurate(measure(v, m.triangles, label.c_str(), build ? 2.0 : kAdaptiveNear),
                           label.c_str());
        }
}

TYPED_TEST(VoxelizeMesh, BunnyAndArmadilloAreAccurate)
{
    for (char const* file : {"bunny.obj", "armadillo.obj"}) {
        TriangleMesh const t = testmeshes::readObj(testmeshes::dataFile(file));
        if (t.triangles.empty())
            GTEST_SKIP() << file << " is not in the shared data folder";
        PolyMesh const m = PolyMesh::fromTriangles(t);
        for (int build = 0; build < 2; ++build) {
            int const across = testbuild::unlessSanitized(64, 32);
            std::string const label = std::string(file) + ", " + std::to_string(across) +
                                      " across" + (build ? ", sparse build" : ", adaptive build");
            Volume<TypeParam> v(float(maxSide(t) / across));
            v.build(m, build ? sparse() : Options{});
            expectAccurate(measure(v, m.triangles, label.c_str(), build ? 2.0 : kAdaptiveNear),
                           label.c_str());
        }
    }
}

TYPED_TEST(VoxelizeMesh, DenseMeshesAreAccurateOverTheWholeBand)
{
    // 327,680 triangles at 40 voxels across: thousands of triangles per coarse tile, so the build
    // computes only the finest tiles (clipping each long list to the triangles' bands) and the
    // coarser depths, the leaves next to the finest tiles among them, come from redistancing.
    TriangleMesh const t = testmeshes::icosphere(f3(0.013, -0.021, 0.007), 1.0, 7);
    Volume<TypeParam> v(1.0f / 20);
    v.build(PolyMesh::fromTriangles(t), Options{}, 1);
    EXPECT_NE(v.out.find("Switching to non-adaptive algorithm"), std::string::npos);
    expectAccurate(measure(v, t, "dense icosphere", kAdaptiveNear), "dense icosphere");
}

TYPED_TEST(VoxelizeMesh, ErrorDrivenAdaptivityKeepsNearSurfaceAccuracyWithFewerVoxels)
{
    TriangleMesh const t = testmeshes::icosphere(f3(0.013, -0.021, 0.007), 1.0, 4);
    PolyMesh const m = PolyMesh::fromTriangles(t);
    Volume<TypeParam> full(1.0f / 24), adaptive(1.0f / 24);
    full.build(m);
    Options o;
    o.maxRelativeError = 1e-3f;
    adaptive.build(m, o);
    Accuracy const a = measure(adaptive, t, "icosphere, error-driven", kAdaptiveNear);
    EXPECT_EQ(a.signMismatches, 0);
    EXPECT_LE(a.maxNear, 0.25);
    EXPECT_LT(adaptive.container.voxelDataCount(-1), full.container.voxelDataCount(-1));
}

TYPED_TEST(VoxelizeMesh, HoleClosingGivesTheSignsOfTheClosedSphere)
{
    float const h = 1.0f / 24;
    TriangleMesh const closed = testmeshes::icosphere(f3(0.013, -0.021, 0.007), 1.0, 4);
    TriangleMesh const holed = testmeshes::withoutTriangles(closed, [&](std::size_t q) {
        auto const& tri = closed.triangles[q];
        return tri.x == 0 || tri.y == 0 || tri.z == 0;
    });
    Volume<TypeParam> v(h);
    Options o;
    o.holeRadius = 2.0f * h;
    v.build(PolyMesh::fromTriangles(holed), o);
    Accuracy const a = measure(v, closed, "sphere with a hole, closed");
    EXPECT_GT(a.near, 0);
    EXPECT_EQ(a.signMismatches, 0);
}

TYPED_TEST(VoxelizeMesh, PointColourArrivesThroughTheClosestTriangle)
{
    using Tr = TypeParam;
    float const h = 1.0f / 16;
    PolyMesh const m = PolyMesh::fromTriangles(testmeshes::icosphere(f3(0, 0, 0), 1.0, 3));
    Quillon::Array<float3> colours;
    for (auto const& p : m.positions)
        colours.push_back(f3(0.5 + 0.5 * p.x, 0.5 + 0.5 * p.y, 0.25 * p.z * p.z));
    auto mesh = m.object();
    ASSERT_TRUE(
        Geo::setDataGeoProperty<float3>(*mesh, "Cd", Geo::sPointComp, colours, f3(0, 0, 0)));
    Volume<Tr> v(h);
    Options o;
    o.properties = "Cd";
    v.build(m, o, 0, mesh.get());
    auto const ch = v.object.template component<VoxelChannel<Tr, float3>>("voxel_Cd");
    ASSERT_TRUE(ch);
    // Next to the surface: the blend of the closest triangle's colours, by the barycentric
    // weights of the voxel's closest point on it.
    std::int64_t checked = 0;
    double worst = 0.0;
    for (std::int64_t t = 0; t < v.container.tileCount(Tr::kMaxDepth); ++t) {
        auto const& tile = v.container.tile(t, Tr::kMaxDepth);
        auto const dd = v.distance.tileData(t, Tr::kMaxDepth);
        auto const cd = ch->tileData(t, Tr::kMaxDepth);
        for (int n = 0; n < Tr::kTileSize; ++n) {
            if (std::abs(dd[std::size_t(n)]) > 1.0f * h)
                continue;
            float3 p;
            v.sample(tile, n, p);
            // The closest triangle by brute force, and its blend.
            double best = 1e30;
            float3 expect{};
            for (auto const& tri : m.triangles.triangles) {
                double const d = double(testmeshes::triangleDistance(
                    p, m.positions[tri.x], m.positions[tri.y], m.positions[tri.z]));
                if (d < best - 1e-9) {
                    best = d;
                    Tavrel::Math::float3 bc;
                    Tavrel::SpatialQuery::pointTriangleBC(p, m.positions[tri.x], m.positions[tri.y],
                                                          m.positions[tri.z], bc);
                    for (int c = 0; c < 3; ++c)
                        expect[c] = bc.x * colours[tri.x][c] + bc.y * colours[tri.y][c] +
                                    bc.z * colours[tri.z][c];
                }
            }
            for (int c = 0; c < 3; ++c)
                worst = std::max(worst, double(std::abs(cd[std::size_t(n)][c] - expect[c])));
            ++checked;
        }
    }
    std::cout << "[ property ] " << checked
              << " voxels within one voxel: largest colour difference " << worst << "\n";
    EXPECT_GT(checked, 100);
    EXPECT_LT(worst, 1e-3);
    // Voxels beyond the filled depths have values too (extrapolated), not the default everywhere.
    EXPECT_FALSE(v.services.messages().size() > 0 &&
                 v.services.messages()[0].text.find("not supported") != std::string::npos);
}

TYPED_TEST(VoxelizeMesh, SameTilesAndBitsOnOneThreadAndOnAll)
{
    using Tr = TypeParam;
    PolyMesh const m =
        PolyMesh::fromTriangles(testmeshes::torus(f3(0.01, 0.02, -0.01), 1.0, 0.4, 48, 24));
    for (int mode = 0; mode < 3; ++mode) {
        Options o = mode == 1 ? sparse() : Options{};
        if (mode == 2)
            o.thickening = 1.5f, o.computeInterior = false;
        auto build = [&](int threads) {
            TVL::Parallel::global_control limit(
                TVL::Parallel::global_control::max_allowed_parallelism, threads);
            auto v = std::make_unique<Volume<Tr>>(1.0f / 16);
            v->build(m, o);
            return v;
        };
        auto const one = build(1);
        auto const all = build(4);
        ASSERT_EQ(one->container.tileCount(-1), all->container.tileCount(-1)) << mode;
        for (int d = 0; d <= Tr::kMaxDepth; ++d)
            for (std::int64_t t = 0; t < one->container.tileCount(d); ++t) {
                ASSERT_EQ(one->container.tile(t, d).tijk(), all->container.tile(t, d).tijk());
                auto const a = one->distance.tileData(t, d);
                auto const b = all->distance.tileData(t, d);
                ASSERT_EQ(a.size(), b.size());
                ASSERT_EQ(std::memcmp(a.data(), b.data(), a.size() * sizeof(float)), 0)
                    << "mode " << mode << " depth " << d;
            }
    }
}

TYPED_TEST(VoxelizeMesh, CancellationAtEachStageThrowsAndLeavesTheObjectsUsable)
{
    using Tr = TypeParam;
    PolyMesh const m = PolyMesh::fromTriangles(testmeshes::icosphere(f3(0, 0, 0), 1.0, 3));
    auto mesh = m.object();
    Quillon::Array<float> sizes(m.positions.size(), 1.0f);
    ASSERT_TRUE(Geo::setDataGeoProperty<float>(*mesh, "temperature", Geo::sPointComp, sizes, 0.0f));
    struct Case {
        char const* stage;
        Options options;
    };
    Options props;
    props.properties = "temperature";
    Options shell;
    shell.computeInterior = false;
    shell.thickening = 2.0f;
    std::vector<Case> cases = {{".triangulate", Options{}},
                               {".create_distance", props},
                               {".levelSetRedistance", shell},
                               {".assign_voxelization", Options{}},
                               {".grade_coarser_levels", props}};
    for (Case const& c : cases) {
        Volume<Tr> v(1.0f / 16);
        bool thrown = false;
        {
            testcancel::CancelOnTimer const cancel(c.stage);
            try {
                v.build(m, c.options, 0, mesh.get());
            } catch (std::runtime_error const& e) {
                thrown = true;
                EXPECT_EQ(std::string(e.what()), TVL::exceptionMessage);
            }
            EXPECT_GE(cancel.reports(), 1) << c.stage;
        }
        EXPECT_TRUE(thrown) << c.stage;
        // Whole again: updated and built into afresh.
        v.topology.update(v.container);
        v.distance.update(v.topology);
        Volume<Tr> again(1.0f / 16);
        again.build(m, c.options, 0, mesh.get());
        EXPECT_GT(again.container.tileCount(-1), 0) << c.stage;
    }
}

TYPED_TEST(VoxelizeMesh, ResolutionFieldAdaptivityWithoutFieldsTakesTheSparseBuild)
{
    PolyMesh const m = PolyMesh::fromTriangles(testmeshes::icosphere(f3(0, 0, 0), 1.0, 3));
    Volume<TypeParam> v(1.0f / 16);
    Options o = sparse();
    o.useFields = true; // an empty array
    v.build(m, o, 1);
    // The sparse build's own stage ran, and no coarse depth was chosen.
    EXPECT_NE(v.out.find(" adaptivity = 2"), std::string::npos);
    std::set<std::string> stages;
    static std::mutex lock;
    static std::set<std::string>* seen = nullptr;
    seen = &stages;
    CoreGL::Logger::setTimerObserver([](Quillon::StringView name, double) {
        std::lock_guard<std::mutex> g(lock);
        if (seen)
            seen->insert(std::string(name));
    });
    Volume<TypeParam> w(1.0f / 16);
    w.build(m, o);
    CoreGL::Logger::setTimerObserver(nullptr);
    seen = nullptr;
    EXPECT_TRUE(stages.count("Geometry::Converters::mesh_to_level_set.triangle_refine_reduction"));
    EXPECT_FALSE(stages.count("Geometry::Converters::mesh_to_level_set.refine"));
}

TYPED_TEST(VoxelizeMesh, ShellsIgnoreTheErrorTolerance)
{
    PolyMesh const m = PolyMesh::fromTriangles(testmeshes::icosphere(f3(0, 0, 0), 1.0, 3));
    Volume<TypeParam> v(1.0f / 16);
    Options o;
    o.computeInterior = false;
    o.maxRelativeError = 0.01f;
    o.thickening = 1.0f;
    v.build(m, o, 1);
    EXPECT_NE(v.out.find(" in_maxRelativeError = 0.00999"), std::string::npos) << v.out;
    EXPECT_NE(v.out.find(" maxRelativeError = 0\n"), std::string::npos) << v.out;
    // A shell: no voxel is inside.
    for (int d = 0; d <= TypeParam::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < v.container.tileCount(d); ++t)
            for (float x : v.distance.tileData(t, d))
                ASSERT_FALSE(x < -1.0f * v.h);
}

TYPED_TEST(VoxelizeMesh, HoleRadiusBelowTheVoxelSizeIsRaisedAndZeroDisablesHoleClosing)
{
    PolyMesh const m = PolyMesh::fromTriangles(testmeshes::icosphere(f3(0, 0, 0), 1.0, 3));
    float const h = 1.0f / 16;
    auto build = [&](float radius) {
        auto v = std::make_unique<Volume<TypeParam>>(h);
        Options o;
        o.holeRadius = radius;
        v->build(m, o);
        return v;
    };
    auto const small = build(0.3f * h), one = build(h), zero = build(0.0f), negative = build(-1.0f);
    auto same = [](Volume<TypeParam> const& a, Volume<TypeParam> const& b) {
        if (a.container.tileCount(-1) != b.container.tileCount(-1))
            return false;
        for (int d = 0; d <= TypeParam::kMaxDepth; ++d)
            for (std::int64_t t = 0; t < a.container.tileCount(d); ++t) {
                auto const x = a.distance.tileData(t, d), y = b.distance.tileData(t, d);
                if (x.size() != y.size() ||
                    std::memcmp(x.data(), y.data(), x.size() * sizeof(float)) != 0)
                    return false;
            }
        return true;
    };
    EXPECT_TRUE(same(*small, *one));
    EXPECT_TRUE(same(*zero, *negative));
    EXPECT_FALSE(same(*zero, *one));
}

TYPED_TEST(VoxelizeMesh, RetryWithoutTheErrorTestOnAnOpenMeshReusesTheTree)
{
    // An open cube on an error-driven tree: the walk finds the crossing hidden by coarse cells,
    // the build gives up, and the driver builds again without the error test on the same tree.
    PolyMesh const m = PolyMesh::fromTriangles(
        testmeshes::withoutTriangles(testmeshes::box(f3(-1.02, -0.98, -1.01), f3(0.99, 1.03, 1.0)),
                                     [](std::size_t t) { return t < 2; }));
    Volume<TypeParam> v(1.0f / 16);
    Options o;
    o.maxRelativeError = 1e-3f;
    v.build(m, o, 1);
    std::size_t const first = v.out.find("Inconsistency found: Computing interior using floodfill");
    ASSERT_NE(first, std::string::npos) << v.out;
    EXPECT_NE(v.out.find("Inconsistency found: Computing interior using floodfill", first + 1),
              std::string::npos);
    // The result: a solid box (the missing face is closed by the flood fill's offset).
    EXPECT_GT(v.container.tileCount(TypeParam::kMaxDepth), 0);
}

TYPED_TEST(VoxelizeMesh, PruningOnlyWithThickeningOrHoleClosingAndKeepsTilesNearTheSurface)
{
    using Tr = TypeParam;
    PolyMesh const m = PolyMesh::fromTriangles(testmeshes::icosphere(f3(0, 0, 0), 1.0, 3));
    float const h = 1.0f / 16;
    Volume<Tr> plain(h), thick(h);
    plain.build(m, Options{}, 2);
    EXPECT_EQ(plain.out.find("Removing "), std::string::npos);
    EXPECT_EQ(plain.out.find("numVoxels after pruning"), std::string::npos);
    Options o;
    o.thickening = 3.0f;
    thick.build(m, o, 2);
    EXPECT_NE(thick.out.find("numVoxels after pruning = "), std::string::npos);
    // What stays: tiles of the deepest depth on their own values, coarser ones by a voxel within
    // the limit or by a child.
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < thick.container.tileCount(d); ++t) {
            auto const& tile = thick.container.tile(t, d);
            if (d < Tr::kMaxDepth && !tile.isLeaf())
                continue;
            float const limit = float(tile.voxelDataWidth()) * 1.7320508f * h * 1.15f;
            float smallest = 1e30f;
            for (float x : thick.distance.tileData(t, d))
                smallest = std::min(smallest, std::abs(x));
            if (d == Tr::kMaxDepth)
                EXPECT_LT(smallest, limit) << "depth " << d;
        }
}

TYPED_TEST(VoxelizeMesh, NoPropertyMeansNoClosestTriangleLines)
{
    PolyMesh const m = PolyMesh::fromTriangles(testmeshes::icosphere(f3(0, 0, 0), 1.0, 3));
    Volume<TypeParam> v(1.0f / 16);
    v.build(m, Options{}, 1);
    EXPECT_EQ(v.debug.find("(closestTriangleChannel)"), std::string::npos);
    EXPECT_NE(v.debug.find(".voxel_hash.before_redistancing = "), std::string::npos);
    Volume<TypeParam> w(1.0f / 16);
    Options o;
    o.properties = "*";
    w.build(m, o, 1);
    EXPECT_NE(w.debug.find("(closestTriangleChannel).voxel_hash[d="), std::string::npos);
}

TYPED_TEST(VoxelizeMesh, PropertyEdgeCases)
{
    using Tr = TypeParam;
    // A property named like the distance channel gets the prefix.
    for (char const* name : {"voxel_signed_distance", "signed_distance"}) {
        PolyMesh const m = PolyMesh::fromTriangles(testmeshes::icosphere(f3(0, 0, 0), 1.0, 2));
        auto mesh = m.object();
        Quillon::Array<float> values(m.positions.size(), 2.5f);
        ASSERT_TRUE(Geo::setDataGeoProperty<float>(*mesh, name, Geo::sPointComp, values, 0.0f));
        Volume<Tr> v(1.0f / 16);
        Options o;
        o.properties = name;
        v.build(m, o, 0, mesh.get());
        auto const ch =
            v.object.template component<VoxelChannel<Tr, float>>("voxel_signed_distance");
        EXPECT_FALSE(ch) << name << ": the property took the distance channel's name";
        auto const renamed =
            v.object.template component<VoxelChannel<Tr, float>>("voxel_voxel_signed_distance");
        ASSERT_TRUE(renamed) << name;
        EXPECT_FLOAT_EQ(renamed->tileData(0, Tr::kMaxDepth)[0], 2.5f) << name;
    }

    // A mesh without points: the property's array is empty; its channel is made and stays at the
    // default, with no hash line.
    PolyMesh empty;
    auto emptyMesh = empty.object();
    ASSERT_TRUE(emptyMesh);
    ASSERT_TRUE(Geo::setDataGeoProperty<float>(*emptyMesh, "temperature", Geo::sPointComp,
                                               Quillon::Array<float>{}, 0.0f));
    Volume<Tr> e(1.0f / 16);
    Options all;
    all.properties = "*";
    e.build(empty, all, 2, emptyMesh.get());
    auto const made = e.object.template component<VoxelChannel<Tr, float>>("voxel_temperature");
    EXPECT_TRUE(made);
    EXPECT_EQ(e.debug.find("temperature[#"), std::string::npos);
}

TYPED_TEST(VoxelizeMesh, BadFaceArraysAreReportedAndNothingIsBuilt)
{
    using Tr = TypeParam;
    PolyMesh good = PolyMesh::fromTriangles(testmeshes::icosphere(f3(0, 0, 0), 1.0, 1));
    std::vector<std::pair<std::string, PolyMesh>> bad;
    PolyMesh decreasing = good;
    decreasing.faceOffset[2] = 1;
    bad.push_back({"decreasing offsets", decreasing});
    PolyMesh past = good;
    past.faceOffset.back() += 5;
    bad.push_back({"offsets past the vertex list", past});
    PolyMesh index = good;
    index.faceVertex[4] = 100000;
    bad.push_back({"index past the points", index});
    PolyMesh start = good;
    start.faceOffset[0] = 1;
    bad.push_back({"offsets not starting at 0", start});
    for (auto const& [name, m] : bad) {
        Volume<Tr> v(1.0f / 16);
        auto const mesh = good.object();
        v.build(m, Options{}, 0, mesh.get());
        EXPECT_EQ(v.container.tileCount(-1), 0) << name;
        auto const messages = v.services.messages();
        ASSERT_FALSE(messages.empty()) << name;
        EXPECT_NE(messages[0].text.find("voxelizeMesh.error"), std::string::npos) << name;
    }
    // NaN positions: refused by the distance field, nothing built.
    PolyMesh nan = good;
    nan.positions[3].x = std::numeric_limits<float>::quiet_NaN();
    Volume<Tr> v(1.0f / 16);
    auto const mesh = good.object();
    v.build(nan, Options{}, 0, mesh.get());
    EXPECT_EQ(v.container.tileCount(-1), 0);
}
