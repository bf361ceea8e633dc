// levelSetRedistance: accuracy against the exact distance of a sphere, a torus and a box with
// sharp edges, from fields right only at their zero set, on a uniform band and on a graded
// adaptive tree, by the classical recursion and by the DOF-driven adaptive sweep; the same
// result on one thread and on all; cancellation mid-solve; the exported instances.
#include <gtest/gtest.h>

#include "fixtures/level_set_scenes.h"
#include "support/cancel_on_timer.h"
#include "support/linked.h"
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <hexmold/levelset/level_set_redistance.h>
#include <hexmold/levelset/redistance_tiles.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/quillon/job.h>
#include <hexmold/platform/tavrel/math_support.h>
#include <hexmold/substrate/parallel.h>
#include <stdexcept>
#include <string>

using namespace TVL::TileTree3D;
using namespace VolumeGL::TileTree3D::LevelSet;
using namespace testlevelset;

namespace {

template <typename Tr> class LevelSetRedistance : public ::testing::Test {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(LevelSetRedistance, TraitsTypes, TraitsNames);

/// Finest voxel size: the sphere of radius 1 world unit is 40 voxels across its radius.
constexpr float kVoxel = 0.025f;
constexpr double kSphereRadius = 40.0 * kVoxel;
/// Half width of the uniform band, finest voxels.
constexpr double kBandVoxels = 8.0;
/// Distance of the graded tree's tiles from the surface, in their own tile widths.
constexpr double kGradedBandTiles = 2.0;

/// Near the surface a first-order sweep from an accurate zero crossing is accurate to a small
/// fraction of a voxel: the errors come from the curvature (h^2 / R per voxel travelled).
constexpr double kNearMeanTol = 0.05; ///< mean |error| within 3 voxels, in h
constexpr double kNearMaxTol = 0.25;  ///< largest |error| within 3 voxels, in h
/// Over the whole tree the first-order solve on each depth is accurate to a voxel of that depth,
/// on the depths whose voxels resolve the shape: its smallest feature spans `kResolvedVoxels`.
constexpr double kBandMaxTol = 1.0;
constexpr double kResolvedVoxels = 8.0;
/// On coarser depths the shape is smaller than a few voxels and the solve starts from what is in
/// effect a point source, from which first-order upwind values overestimate the distance along
/// the diagonals by up to about 1.8 voxels, the same on every such depth.
constexpr double kUnresolvedMaxTol = 2.0;
/// Near the box's sharp edges (`Shape::nearEdges`) a first-order solve is off by more than a voxel
/// near the surface too: OpenVDB's sdfToSdf reaches 1.37 h on the same input (see the OpenVDB
/// comparison).
constexpr double kConvexEdgeMaxTol = 2.0;

enum class TreeKind { kUniformBand, kGraded };
enum class Path { kRecursive, kDOF };

Shape sphereShape()
{
    return sphere(kSphereRadius);
}
Shape torusShape()
{
    return torus(26.0 * kVoxel, 10.0 * kVoxel);
}
/// Faces between voxel centres, off the tile lattice.
Shape boxShape()
{
    return box(30.3 * kVoxel, 22.6 * kVoxel, 16.2 * kVoxel, 0.3 * kVoxel, -0.2 * kVoxel,
               0.1 * kVoxel, kVoxel);
}

template <typename Tr> void build(LevelSetScene<Tr>& s, Shape const& shape, TreeKind kind)
{
    if (kind == TreeKind::kUniformBand)
        s.buildUniformBand(shape, kBandVoxels);
    else
        s.buildGraded(shape, kGradedBandTiles);
}

std::string label(Shape const& shape, TreeKind kind, Path path)
{
    return shape.name + (kind == TreeKind::kUniformBand ? " uniform band" : " graded tree") +
           (path == Path::kRecursive ? ", recursion" : ", DOF sweep");
}

/// Redistances @p shape's field and checks the errors against its exact distance.
template <typename Tr> void expectAccurate(Shape const& shape, TreeKind kind, Path path)
{
    LevelSetScene<Tr> s(kVoxel);
    build(s, shape, kind);
    if (kind == TreeKind::kGraded) {
        ASSERT_LE(s.maxNeighbourDepthJump(), 1)
            << "the graded tree must change by one depth at most";
    }
    auto const in = s.makeChannel(shape.field);
    VoxelChannel<Tr, float> out(*in);
    std::unique_ptr<VoxelChannel<Tr, short>> dof;
    RedistanceCall<Tr> call;
    if (path == Path::kDOF) {
        dof = s.makeDOF();
        call.dof = dof.get();
    }
    call.run(s, out);
    auto const a = measure(s, out, *in, shape);
    std::printf("  %s %s: near surface mean %.4f h max %.4f h (%lld voxels; near sharp edges max "
                "%.4f h, %lld "
                "voxels); band max per depth:",
                std::is_same_v<Tr, Traits24> ? "Traits24" : "Traits55",
                label(shape, kind, path).c_str(), a.nearSurface.mean(), a.nearSurface.max,
                a.nearSurface.n, a.nearEdges.max, a.nearEdges.n);
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        if (a.band[d].n)
            std::printf(" %d:%.2f", d, a.band[d].max);
    std::printf("\n");
    EXPECT_EQ(a.nonFinite, 0);
    EXPECT_EQ(a.unreached, 0) << "first unreached voxel: " << a.firstUnreached.str();
    EXPECT_EQ(a.signFlips, 0) << "first flipped voxel: " << a.firstFlip.str();
    EXPECT_GT(a.nearSurface.n, 1000);
    EXPECT_LE(a.allNearSurface().mean(), kNearMeanTol)
        << "all voxels within 3 voxels of the surface";
    EXPECT_LE(a.nearSurface.max, kNearMaxTol) << "worst: " << a.worstNear.str();
    EXPECT_LE(a.nearEdges.max, kConvexEdgeMaxTol) << "worst: " << a.worstNearEdges.str();
    for (int d = 0; d <= Tr::kMaxDepth; ++d) {
        bool const resolved = shape.featureSize >= kResolvedVoxels * s.spacing(d);
        EXPECT_LE(a.band[d].max, resolved ? kBandMaxTol : kUnresolvedMaxTol)
            << "depth " << d << (resolved ? "" : " (shape not resolved)")
            << ", worst: " << a.worstBand[d].str();
        EXPECT_LE(a.bandEdges[d].max, kConvexEdgeMaxTol)
            << "depth " << d << ", worst: " << a.worstBandEdges[d].str();
    }
}

} // namespace

TYPED_TEST(LevelSetRedistance, SphereUniformBandRecursion)
{
    expectAccurate<TypeParam>(sphereShape(), TreeKind::kUniformBand, Path::kRecursive);
}
TYPED_TEST(LevelSetRedistance, SphereUniformBandDOFSweep)
{
    expectAccurate<TypeParam>(sphereShape(), TreeKind::kUniformBand, Path::kDOF);
}
TYPED_TEST(LevelSetRedistance, SphereGradedTreeRecursion)
{
    expectAccurate<TypeParam>(sphereShape(), TreeKind::kGraded, Path::kRecursive);
}
TYPED_TEST(LevelSetRedistance, SphereGradedTreeDOFSweep)
{
    expectAccurate<TypeParam>(sphereShape(), TreeKind::kGraded, Path::kDOF);
}
TYPED_TEST(LevelSetRedistance, TorusUniformBandRecursion)
{
    expectAccurate<TypeParam>(torusShape(), TreeKind::kUniformBand, Path::kRecursive);
}
TYPED_TEST(LevelSetRedistance, TorusUniformBandDOFSweep)
{
    expectAccurate<TypeParam>(torusShape(), TreeKind::kUniformBand, Path::kDOF);
}
TYPED_TEST(LevelSetRedistance, TorusGradedTreeRecursion)
{
    expectAccurate<TypeParam>(torusShape(), TreeKind::kGraded, Path::kRecursive);
}
TYPED_TEST(LevelSetRedistance, TorusGradedTreeDOFSweep)
{
    expectAccurate<TypeParam>(torusShape(), TreeKind::kGraded, Path::kDOF);
}
TYPED_TEST(LevelSetRedistance, BoxUniformBandRecursion)
{
    expectAccurate<TypeParam>(boxShape(), TreeKind::kUniformBand, Path::kRecursive);
}
TYPED_TEST(LevelSetRedistance, BoxUniformBandDOFSweep)
{
    expectAccurate<TypeParam>(boxShape(), TreeKind::kUniformBand, Path::kDOF);
}
TYPED_TEST(LevelSetRedistance, BoxGradedTreeRecursion)
{
    expectAccurate<TypeParam>(boxShape(), TreeKind::kGraded, Path::kRecursive);
}
TYPED_TEST(LevelSetRedistance, BoxGradedTreeDOFSweep)
{
    expectAccurate<TypeParam>(boxShape(), TreeKind::kGraded, Path::kDOF);
}

TYPED_TEST(LevelSetRedistance, OneThreadAndAllThreadsGiveTheSameBits)
{
    using Tr = TypeParam;
    LevelSetScene<Tr> s(kVoxel);
    s.buildGraded(sphereShape(), kGradedBandTiles);
    auto const in = s.makeChannel(sphereShape().field);
    auto const dof = s.makeDOF();
    for (Path path : {Path::kRecursive, Path::kDOF}) {
        RedistanceCall<Tr> call;
        call.dof = path == Path::kDOF ? dof.get() : nullptr;
        VoxelChannel<Tr, float> one(*in), all(*in);
        {
            TVL::Parallel::global_control limit(
                TVL::Parallel::global_control::max_allowed_parallelism, 1);
            call.run(s, one);
        }
        call.run(s, all);
        auto const a = channelValues(s, one), b = channelValues(s, all);
        ASSERT_EQ(a.size(), b.size());
        EXPECT_EQ(std::memcmp(a.data(), b.data(), a.size() * sizeof(float)), 0)
            << (path == Path::kDOF ? "DOF sweep" : "recursion");
    }
}

namespace {

/// Requests cancellation when the timer @p timerName reports during a redistance of the graded
/// sphere, and checks the exception, the time to return and the state of the channel.
template <typename Tr> void expectCancelled(Path path, std::string const& timerName)
{
    LevelSetScene<Tr> s(kVoxel);
    s.buildGraded(sphereShape(), kGradedBandTiles);
    auto const in = s.makeChannel(sphereShape().field);
    auto const dof = s.makeDOF();
    RedistanceCall<Tr> call;
    call.dof = path == Path::kDOF ? dof.get() : nullptr;
    VoxelChannel<Tr, float> out(*in);

    bool thrown = false;
    double seconds = 0.0;
    int reports = 0;
    {
        testcancel::CancelOnTimer const cancel(timerName);
        auto const t0 = std::chrono::steady_clock::now();
        try {
            call.run(s, out);
        } catch (std::runtime_error const& e) {
            thrown = true;
            EXPECT_EQ(std::string(e.what()), TVL::exceptionMessage);
        }
        seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        reports = cancel.reports();
    }
    EXPECT_GE(reports, 1) << "the timer " << timerName << " never reported";
    EXPECT_TRUE(thrown) << "no exception";
    EXPECT_LT(seconds, 5.0);

    // The channel holds the state reached: finite values, every leaf voxel on its input's side.
    long long nonFinite = 0, flips = 0;
    s.forEachVoxel([&](Tile<Tr> const& tile, int i, int j, int k, std::array<double, 3> const&) {
        float const v = out.tileData(tile.index(), tile.depth())(i, j, k);
        float const v0 = in->tileData(tile.index(), tile.depth())(i, j, k);
        if (!std::isfinite(v))
            ++nonFinite;
        else if (LevelSetScene<Tr>::isLeafVoxel(tile, i, j, k) && (0.0f > v) != (0.0f > v0))
            ++flips;
    });
    EXPECT_EQ(nonFinite, 0);
    EXPECT_EQ(flips, 0);

    // Nothing is left behind: the same call runs to the end afterwards, as on a fresh input.
    VoxelChannel<Tr, float> again(*in), fresh(*in);
    call.run(s, again);
    call.run(s, fresh);
    auto const a = channelValues(s, again), b = channelValues(s, fresh);
    EXPECT_EQ(std::memcmp(a.data(), b.data(), a.size() * sizeof(float)), 0);
}

} // namespace

TYPED_TEST(LevelSetRedistance, CancellationDuringTheDOFSweepThrowsAndLeavesAConsistentChannel)
{
    expectCancelled<TypeParam>(Path::kDOF, ".redistance_at_depth");
}

TYPED_TEST(LevelSetRedistance, CancellationBeforeTheRecursionThrowsAndLeavesAConsistentChannel)
{
    expectCancelled<TypeParam>(Path::kRecursive, ".initialize_unknown");
}

// A link-time check (support/linked.h): a missing instantiation fails the link.
TEST(LevelSetRedistanceExports, EveryFormIsExported)
{
    testlinked::requireLinked(&levelSetRedistance<Traits24>, &levelSetRedistance<Traits55>,
                              &levelSetReInitialize<Traits24>, &levelSetReInitialize<Traits55>,
                              &redistanceTiles<Traits24>, &redistanceTiles<Traits55>,
                              &tileColor<Traits24>, &tileColor<Traits55>);
}
