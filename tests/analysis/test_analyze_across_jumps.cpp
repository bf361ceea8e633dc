// Analyze operators on graded trees whose stencils reach across resolution jumps: a sphere and a
// torus, refined towards their surfaces, with every voxel of every depth set from an analytic
// field. The rim at a jump is interpolated from the coarse voxels, so linear data are exact there.
#include <gtest/gtest.h>

#include "support/analysis_scene.h"
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <hexmold/analysis/analyze.h>
#include <hexmold/analysis/grade_tile_tree.h>
#include <limits>

using namespace TVL::TileTree3D;
using namespace VolumeGL::TileTree3D;
using namespace VolumeGL::TileTree3D::Analyze;
using Tavrel::Math::Vec3;
using testscene::Scene;

namespace {

template <typename P> class AnalyzeAcrossJumps : public ::testing::Test {
};
template <typename Tr, typename S> struct Case {
    using Traits = Tr;
    using Scalar = S;
};
using Cases = ::testing::Types<Case<Traits24, float>, Case<Traits55, float>, Case<Traits24, double>,
                               Case<Traits55, double>>;
struct CaseNames {
    template <typename C> static std::string GetName(int)
    {
        return std::string(std::is_same_v<typename C::Traits, Traits24> ? "Traits24_"
                                                                        : "Traits55_") +
               (std::is_same_v<typename C::Scalar, float> ? "float" : "double");
    }
};
TYPED_TEST_SUITE(AnalyzeAcrossJumps, Cases, CaseNames);

constexpr float kVoxel = 0.05f;
/// Sphere radius, torus radii, in finest voxels.
constexpr double kSphereRadius = 24.0;
constexpr double kTorusMajor = 22.0, kTorusMinor = 9.0;

enum class Shape { kSphere, kTorus };

/// Exact signed distance (world units) of the shape, centred on the origin, torus axis z.
double shapeDistance(Shape shape, double x, double y, double z, double sphereRadius = kSphereRadius)
{
    if (shape == Shape::kSphere)
        return std::sqrt(x * x + y * y + z * z) - sphereRadius * kVoxel;
    double const q = std::sqrt(x * x + y * y) - kTorusMajor * kVoxel;
    return std::sqrt(q * q + z * z) - kTorusMinor * kVoxel;
}

/// A tree graded towards the shape's surface: a tile of every depth is added where its box comes
/// within @p bandTiles tile widths (of its own depth) of the surface, then the tree is graded so
/// that no tile has a neighbour more than one depth coarser. With one tile width the jumps lie a
/// few voxels from the surface; with none they reach the voxels next to it.
template <typename Tr>
Scene<Tr> gradedScene(Shape shape, double bandTiles = 1.0, double sphereRadius = kSphereRadius)
{
    Scene<Tr> s(kVoxel);
    s.build([&](Container<Tr>& c) {
        testtrees::refineWhere<Tr>(c, Tr::kMaxDepth, [&](int3 const& corner, int depth) {
            double const w = double(Container<Tr>::tileVoxelWidth(depth));
            double const cx = corner.x + 0.5 * w, cy = corner.y + 0.5 * w, cz = corner.z + 0.5 * w;
            double const lower = std::abs(shapeDistance(shape, cx * kVoxel, cy * kVoxel,
                                                        cz * kVoxel, sphereRadius)) /
                                     kVoxel -
                                 0.5 * std::sqrt(3.0) * w;
            return lower <= bandTiles * w;
        });
        CoreGL::TileTree3D::gradeTileTree<Tr>(c, nullptr, nullptr, 0, Tr::kMaxDepth);
    });
    return s;
}

/// Where a voxel's stencil lies: whether all of it is inside the tree, whether any of it lies in
/// a coarser tile, and the largest ratio of a coarser voxel width to the voxel's own there.
struct StencilPlace {
    bool covered = true;
    bool jump = false;
    double coarseRatio = 1.0;
    int coarseNeighbours = 0; ///< axis neighbours in coarser tiles
};

/// @p fn(value, h, centre, place) for every voxel of every depth of channel @p name; @p reach 1 is
/// the six axis neighbours, 2 adds the in-plane diagonals.
template <typename T, typename Tr, typename F>
void forEachVoxelPlace(Scene<Tr> const& s, char const* name, int reach, F const& fn)
{
    constexpr int W = Tr::kTileWidth;
    auto const& ch = s.template channel<T>(name);
    Container<Tr> const& c = s.tree();
    auto acc = c.tileAccessor();
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < c.tileCount(d); ++t) {
            Tile<Tr> const& tile = c.tile(t, d);
            auto const td = ch.tileData(t, d);
            std::int64_t const w = tile.voxelDataWidth();
            double const h = double(w) * c.voxelSize();
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i) {
                        StencilPlace place;
                        for (int a = -1; a <= 1; ++a)
                            for (int b = -1; b <= 1; ++b)
                                for (int e = -1; e <= 1; ++e) {
                                    int const n = (a != 0) + (b != 0) + (e != 0);
                                    if (n == 0 || n > reach || n == 3)
                                        continue;
                                    auto const& there =
                                        acc.tile(tile.ti() + (i + a) * w, tile.tj() + (j + b) * w,
                                                 tile.tk() + (k + e) * w, d);
                                    if (!there.valid()) {
                                        place.covered = false;
                                        continue;
                                    }
                                    if (there.depth() < d) {
                                        place.jump = true;
                                        place.coarseRatio =
                                            std::max(place.coarseRatio,
                                                     double(there.voxelDataWidth()) / double(w));
                                        place.coarseNeighbours += n == 1;
                                    }
                                }
                        fn(td(i, j, k), h, s.position(tile, i, j, k, false), place);
                    }
        }
}

/// Rounding tolerance of a difference quotient: a few ulps of the largest input over the divisor.
template <typename S> double roundingTol(double magnitude, double divisor)
{
    return 16.0 * std::numeric_limits<S>::epsilon() * std::max(1.0, magnitude) / divisor;
}

} // namespace

TYPED_TEST(AnalyzeAcrossJumps, GradientOfALinearFieldIsExactAtEveryVoxel)
{
    using Tr = typename TypeParam::Traits;
    using S = typename TypeParam::Scalar;
    for (Shape shape : {Shape::kSphere, Shape::kTorus}) {
        auto s = gradedScene<Tr>(shape);
        auto f = [](double x, double y, double z) { return 0.5 * x - 1.25 * y + 2.0 * z + 0.3; };
        s.template addScalar<S>("phi", f, false);
        ASSERT_TRUE(analyze<GradientOperator>("phi", "", false, *s.object));
        std::int64_t checked = 0, atJumps = 0;
        forEachVoxelPlace<Vec3<S>>(
            s, "phi_gradient", 1,
            [&](auto const& g, double h, auto const& p, StencilPlace const& at) {
                if (!at.covered)
                    return;
                double const mag = 4.0 * (std::abs(p.x) + std::abs(p.y) + std::abs(p.z) +
                                          3.0 * at.coarseRatio * h) +
                                   1.0;
                double const tol = roundingTol<S>(mag, h);
                EXPECT_NEAR(g.x, 0.5, tol) << "jump " << at.jump;
                EXPECT_NEAR(g.y, -1.25, tol) << "jump " << at.jump;
                EXPECT_NEAR(g.z, 2.0, tol) << "jump " << at.jump;
                ++checked;
                atJumps += at.jump;
            });
        EXPECT_GT(checked, 1000);
        EXPECT_GT(atJumps, 200);
    }
}

/// For q = x^2 + 2 y^2 + 3 z^2 - x + 0.1 the Laplacian is 12. Away from jumps the 7-point stencil
/// is exact. At a jump, a rim element interpolated between coarse voxels H apart, at fraction t on
/// an axis, is off by c H^2 t (1 - t) <= c H^2 / 4 for the axis' coefficient c (the trilinear
/// blend is exact on the mixed and linear terms). A bracketing coarse voxel that lies in a tile
/// coarser still is itself interpolated there, with voxels r H apart (r the refinement ratio),
/// and passes on its error with a weight of at most 1. The Laplacian divides by h^2, so each
/// coarse axis neighbour adds at most (H / h)^2 (1 + r^2) / 4 * (1 + 2 + 3).
TYPED_TEST(AnalyzeAcrossJumps, LaplacianOfAQuadraticIsExactAwayFromJumpsAndBoundedAtThem)
{
    using Tr = typename TypeParam::Traits;
    using S = typename TypeParam::Scalar;
    for (Shape shape : {Shape::kSphere, Shape::kTorus}) {
        auto s = gradedScene<Tr>(shape);
        auto f = [](double x, double y, double z) {
            return x * x + 2 * y * y + 3 * z * z - x + 0.1;
        };
        s.template addScalar<S>("q", f, false);
        ASSERT_TRUE(analyze<LaplacianOperator>("q", "", false, *s.object));
        std::int64_t away = 0, atJumps = 0;
        double worstAtJumps = 0;
        forEachVoxelPlace<S>(
            s, "q_laplacian", 1, [&](S const& v, double h, auto const& p, StencilPlace const& at) {
                if (!at.covered)
                    return;
                double const mag = 3.0 * (p.x * p.x + p.y * p.y + p.z * p.z) + 12.0 * h * h +
                                   std::abs(p.x) + h + 1.0;
                double const rounding =
                    4.0 * roundingTol<S>(mag * at.coarseRatio * at.coarseRatio, h * h);
                if (!at.jump) {
                    EXPECT_NEAR(v, 12.0, rounding);
                    ++away;
                    return;
                }
                double const r2 = double(Tr::kRatio) * double(Tr::kRatio);
                double const bound =
                    at.coarseNeighbours * at.coarseRatio * at.coarseRatio * (1.0 + r2) / 4.0 * 6.0;
                EXPECT_NEAR(v, 12.0, bound + rounding);
                worstAtJumps =
                    std::max(worstAtJumps, std::abs(double(v) - 12.0) / std::max(bound, 1e-30));
                ++atJumps;
            });
        EXPECT_GT(away, 1000);
        EXPECT_GT(atJumps, 200);
        std::printf("    %s: worst Laplacian error at jumps %.3f of the bound (%lld voxels)\n",
                    shape == Shape::kSphere ? "sphere" : "torus", worstAtJumps, (long long)atJumps);
    }
}

namespace {

/// Largest relative errors of |gradient| and of the mean curvature of a sphere's exact distance
/// near its surface (the deepest voxels within two voxels of it), over all such voxels and over
/// those whose stencil reaches a coarser tile.
struct SphereErrors {
    double gradient = 0, curvature = 0, gradientAtJumps = 0, curvatureAtJumps = 0;
    std::int64_t near = 0, atJumps = 0;
};

template <typename Tr, typename S> SphereErrors sphereErrors(double bandTiles, double radius)
{
    auto s = gradedScene<Tr>(Shape::kSphere, bandTiles, radius);
    double const r = radius * kVoxel;
    s.template addScalar<S>(
        "d",
        [radius](double x, double y, double z) {
            return shapeDistance(Shape::kSphere, x, y, z, radius);
        },
        false);
    SphereErrors out;
    auto nearSurface = [r](double h, auto const& p) {
        double const len = std::sqrt(p.x * p.x + p.y * p.y + p.z * p.z);
        return std::abs(len - r) <= 2.0 * h && h < 1.01 * kVoxel;
    };
    EXPECT_TRUE(analyze<GradientOperator>("d", "", false, *s.object));
    forEachVoxelPlace<Vec3<S>>(
        s, "d_gradient", 1, [&](auto const& g, double h, auto const& p, StencilPlace const& at) {
            if (!at.covered || !nearSurface(h, p))
                return;
            double const e = std::abs(
                std::sqrt(double(g.x) * g.x + double(g.y) * g.y + double(g.z) * g.z) - 1.0);
            out.gradient = std::max(out.gradient, e);
            if (at.jump)
                out.gradientAtJumps = std::max(out.gradientAtJumps, e);
            ++out.near;
            out.atJumps += at.jump;
        });
    s.object->removeComponent("d_gradient");
    EXPECT_TRUE(analyze<MeanCurvatureOperator>("d", "", false, *s.object));
    forEachVoxelPlace<S>(
        s, "d_gradient", 2, [&](S const& v, double h, auto const& p, StencilPlace const& at) {
            if (!at.covered || !nearSurface(h, p))
                return;
            double const len = std::sqrt(p.x * p.x + p.y * p.y + p.z * p.z);
            double const e =
                std::abs(double(v) * len - 1.0); // the level set through p has radius len
            out.curvature = std::max(out.curvature, e);
            if (at.jump)
                out.curvatureAtJumps = std::max(out.curvatureAtJumps, e);
        });
    std::printf("    band %.0f tiles: %lld voxels near the surface (%lld at jumps): max relative "
                "error |gradient| "
                "%.4f (at jumps %.4f), mean curvature %.4f (at jumps %.4f)\n",
                bandTiles, (long long)out.near, (long long)out.atJumps, out.gradient,
                out.gradientAtJumps, out.curvature, out.curvatureAtJumps);
    return out;
}

} // namespace

TYPED_TEST(AnalyzeAcrossJumps, SphereDistanceNearTheSurfaceHasUnitGradientAndItsCurvature)
{
    using Tr = typename TypeParam::Traits;
    using S = typename TypeParam::Scalar;
    constexpr double kGradientTol = 0.05; // relative error of |gradient|
    constexpr double kCurvatureTol = 0.1; // relative error of the mean curvature
    SphereErrors const e = sphereErrors<Tr, S>(1.0, kSphereRadius);
    EXPECT_GT(e.near, 1000);
    EXPECT_LE(e.gradient, kGradientTol);
    EXPECT_LE(e.curvature, kCurvatureTol);
}

/// A tree refined only where tiles cross the surface, then graded, puts resolution jumps inside
/// the stencils of voxels next to the surface. The trilinear rim keeps the gradient there within
/// 5 %: its error at a jump grows like r^2 h / R (r the refinement ratio, R the radius), so the
/// sphere of the ratio-5 tree is larger. Second differences divide the rim's error by h^2: the
/// trilinear rim's O(H^2) error would make that O(1) (about r^2 / 4 of the curvature per coarse
/// neighbour); the mean curvature reads the tricubic rim, whose O(H^4) error leaves
/// O(r^4 h^2 / R^2) of it.
TYPED_TEST(AnalyzeAcrossJumps, SphereDistanceGradientStaysUnitAcrossJumpsNextToTheSurface)
{
    using Tr = typename TypeParam::Traits;
    using S = typename TypeParam::Scalar;
    constexpr double kGradientTol = 0.05;
    constexpr double kCurvatureAtJumpsTol = 0.1; // relative
    double const radius = (std::is_same_v<Tr, Traits55> ? 3.5 : 2.0) * kSphereRadius;
    SphereErrors const e = sphereErrors<Tr, S>(0.0, radius);
    EXPECT_GT(e.atJumps, 1000);
    EXPECT_LE(e.gradient, kGradientTol);
    EXPECT_LE(e.curvatureAtJumps, kCurvatureAtJumpsTol);
}
