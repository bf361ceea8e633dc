// The analyze operators against OpenVDB's gradient, Laplacian and mean curvature, voxel by voxel,
// on a uniform band around a sphere (OpenVDB is an independent oracle here; skipped when absent).
#include <gtest/gtest.h>

#include "support/analysis_scene.h"
#include <cmath>
#include <hexmold/analysis/analyze.h>

#if HEXMOLD_HAVE_OPENVDB
#include <openvdb/openvdb.h>
#include <openvdb/tools/GridOperators.h>
#endif

using namespace TVL::TileTree3D;
using namespace VolumeGL::TileTree3D;
using Tavrel::Math::Vec3;

namespace {

template <typename Tr> class AnalyzeOracle : public ::testing::Test {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(AnalyzeOracle, TraitsTypes, TraitsNames);

} // namespace

TYPED_TEST(AnalyzeOracle, AgreesWithOpenVDBOnAUniformBand)
{
#if !HEXMOLD_HAVE_OPENVDB
    GTEST_SKIP() << "OpenVDB not available";
#else
    using Tr = TypeParam;
    constexpr int W = Tr::kTileWidth;
    constexpr float kVoxel = 0.05f;
    constexpr double kRadius = 16.0;
    testscene::Scene<Tr> s(kVoxel);
    s.buildUniformBand(kRadius, 3.0);
    double const r = kRadius * kVoxel;
    s.template addScalar<float>(
        "d", [r](double x, double y, double z) { return std::sqrt(x * x + y * y + z * z) - r; },
        false);
    ASSERT_TRUE(analyze<Analyze::GradientOperator>("d", "", false, *s.object));
    ASSERT_TRUE(analyze<Analyze::LaplacianOperator>("d", "", false, *s.object));
    // The mean curvature output takes the gradient's name: keep the gradient under another name.
    auto grad = s.object->template component<Channel<Tr, float3, W, 0, 0>>("d_gradient");
    s.object->removeComponent("d_gradient");
    ASSERT_TRUE(analyze<Analyze::MeanCurvatureOperator>("d", "", false, *s.object));

    // The same finest voxels, at the same coordinates, in an OpenVDB grid.
    openvdb::initialize();
    auto grid = openvdb::FloatGrid::create(0.0f);
    grid->setTransform(openvdb::math::Transform::createLinearTransform(kVoxel));
    auto const& tree = s.tree();
    auto const& input = s.template channel<float>("d");
    int const d = Tr::kMaxDepth;
    {
        auto acc = grid->getAccessor();
        for (std::int64_t t = 0; t < tree.tileCount(d); ++t) {
            auto const& tile = tree.tile(t, d);
            auto const td = input.tileData(t, d);
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i)
                        acc.setValueOn(openvdb::Coord(tile.ti() + i, tile.tj() + j, tile.tk() + k),
                                       td(i, j, k));
        }
    }
    auto const vGrad = openvdb::tools::gradient(*grid);
    auto const vLap = openvdb::tools::laplacian(*grid);
    auto const vCurv = openvdb::tools::meanCurvature(*grid);
    auto gAcc = vGrad->getConstAccessor();
    auto lAcc = vLap->getConstAccessor();
    auto cAcc = vCurv->getConstAccessor();
    auto active = grid->getConstAccessor();

    auto const& lap = s.template channel<float>("d_laplacian");
    auto const& curv = s.template channel<float>("d_gradient");
    std::int64_t compared = 0;
    for (std::int64_t t = 0; t < tree.tileCount(d); ++t) {
        auto const& tile = tree.tile(t, d);
        auto const g = std::as_const(*grad).tileData(t, d);
        auto const l = lap.tileData(t, d);
        auto const c = curv.tileData(t, d);
        for (int k = 0; k < W; ++k)
            for (int j = 0; j < W; ++j)
                for (int i = 0; i < W; ++i) {
                    openvdb::Coord const ijk(tile.ti() + i, tile.tj() + j, tile.tk() + k);
                    // Only where both read real data: every stencil voxel is in the band.
                    bool inside = true;
                    for (int a = -1; a <= 1 && inside; ++a)
                        for (int b = -1; b <= 1 && inside; ++b)
                            for (int e = -1; e <= 1 && inside; ++e)
                                if ((a != 0) + (b != 0) + (e != 0) <= 2)
                                    inside = active.isValueOn(ijk.offsetBy(a, b, e));
                    if (!inside)
                        continue;
                    auto const vg = gAcc.getValue(ijk);
                    // Rounding of float differences of values up to ~3 voxels, over one voxel.
                    float const tolG = 1e-5f;
                    EXPECT_NEAR(g(i, j, k).x, vg.x(), tolG);
                    EXPECT_NEAR(g(i, j, k).y, vg.y(), tolG);
                    EXPECT_NEAR(g(i, j, k).z, vg.z(), tolG);
                    EXPECT_NEAR(l(i, j, k), lAcc.getValue(ijk), 1e-5f / kVoxel);
                    EXPECT_NEAR(c(i, j, k), cAcc.getValue(ijk),
                                1e-4f * std::abs(cAcc.getValue(ijk)) + 1e-4f);
                    ++compared;
                }
    }
    EXPECT_GT(compared, 1000);
#endif
}
