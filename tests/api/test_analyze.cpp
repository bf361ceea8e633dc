// hexmold::analyze: the same bits as analyze<Operator> called directly, the output names
// returned, the mean curvature of a sphere, copies left alone, and every refused input.
#include "support/api_volumes.h"
#include <cmath>
#include <gtest/gtest.h>
#include <hexmold/analysis/analyze.h>
#include <hexmold/api/analyze.h>
#include <hexmold/api/create_level_set.h>
#include <hexmold/api/error.h>
#include <string>
#include <vector>

using namespace testapi;
using hexmold::AnalyzeOperator;
using hexmold::Volume;
namespace Analyze = VolumeGL::TileTree3D::Analyze;

namespace {

template <typename Tr> class AnalyzeApi : public ::testing::Test {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(AnalyzeApi, TraitsTypes, TraitsNames);

constexpr double kRadius = 1.0;

template <typename Tr> Volume sphere()
{
    hexmold::LevelSetOptions o;
    o.traits = kindOf<Tr>();
    o.voxelSize = 0.1;
    o.layout = hexmold::TreeLayout::kAdaptive;
    return hexmold::createLevelSetSphere({0, 0, 0}, kRadius, o);
}

} // namespace

TYPED_TEST(AnalyzeApi, SameBitsAsTheDirectCall)
{
    using Tr = TypeParam;
    Volume api = sphere<Tr>();
    Volume const original = api;
    TVL::Object byHand = original.object();

    EXPECT_EQ(hexmold::analyze(api, AnalyzeOperator::kLaplacian),
              std::vector<std::string>{"voxel_signed_distance_laplacian"});
    VolumeGL::TileTree3D::analyze<Analyze::LaplacianOperator>(hexmold::kDistanceChannel, "", false,
                                                              byHand);
    EXPECT_EQ(hashOnOneThread<Tr>(api.object(), "voxel_signed_distance_laplacian"),
              hashOnOneThread<Tr>(byHand, "voxel_signed_distance_laplacian"));
    EXPECT_TRUE(sameBits<Tr>(api.object(), byHand, "voxel_signed_distance_laplacian"));

    EXPECT_EQ(hexmold::analyze(api, AnalyzeOperator::kGradient),
              std::vector<std::string>{"voxel_signed_distance_gradient"});
    VolumeGL::TileTree3D::analyze<Analyze::GradientOperator>(hexmold::kDistanceChannel, "", false,
                                                             byHand);
    EXPECT_TRUE((sameBits<Tr, float3>(api.object(), byHand, "voxel_signed_distance_gradient")));

    // A vector operator on the gradient, named by a pattern.
    hexmold::AnalyzeOptions o;
    o.channels = "*_gradient";
    EXPECT_EQ(hexmold::analyze(api, AnalyzeOperator::kDivergence, o),
              std::vector<std::string>{"voxel_signed_distance_gradient_divergence"});
    VolumeGL::TileTree3D::analyze<Analyze::DivergenceOperator>("*_gradient", "", false, byHand);
    EXPECT_TRUE(sameBits<Tr>(api.object(), byHand, "voxel_signed_distance_gradient_divergence"));

    EXPECT_EQ(original.channels().size(), 1u) << "a copy of the volume is left alone";
}

TYPED_TEST(AnalyzeApi, MeanCurvatureOfASphereIsTheInverseRadius)
{
    using Tr = TypeParam;
    Volume v = sphere<Tr>();
    hexmold::AnalyzeOptions o;
    o.replaceInput = false;
    ASSERT_EQ(hexmold::analyze(v, AnalyzeOperator::kMeanCurvature, o),
              std::vector<std::string>{"voxel_signed_distance_gradient"});
    auto const& tree = treeOf<Tr>(v.object());
    auto const& phi = channelOf<Tr>(v.object());
    auto const& kappa = channelOf<Tr>(v.object(), "voxel_signed_distance_gradient");
    double const h = tree.voxelSize();
    // Half the divergence of the unit normal: 1 / (r + phi) on the level set phi; second-order
    // differences of the exact distance meet it within a few per cent at the finest depth.
    constexpr double kRelativeTol = 0.05;
    int const d = Tr::kMaxDepth;
    double worst = 0;
    for (std::int64_t t = 0; t < tree.tileCount(d); ++t) {
        auto const a = phi.tileData(t, d);
        auto const b = kappa.tileData(t, d);
        for (int k = 0; k < Tr::kTileWidth; ++k)
            for (int j = 0; j < Tr::kTileWidth; ++j)
                for (int i = 0; i < Tr::kTileWidth; ++i) {
                    if (std::abs(a(i, j, k)) > 2 * h)
                        continue;
                    double const exact = 1.0 / (kRadius + a(i, j, k));
                    worst = std::max(worst, std::abs(b(i, j, k) - exact) / exact);
                }
    }
    EXPECT_LE(worst, kRelativeTol);
}

TEST(AnalyzeApi, RefusesAMissingChannel)
{
    Volume v = sphere<Traits24>();
    hexmold::AnalyzeOptions o;
    o.channels = "phi";
    EXPECT_EQ(errorOf([&] { hexmold::analyze(v, AnalyzeOperator::kGradient, o); }),
              "hexmold::analyze: no channel matches \"phi\" (channels: voxel_signed_distance)");
}

TEST(AnalyzeApi, RefusesChannelsOfAnotherElementType)
{
    Volume v = sphere<Traits55>();
    EXPECT_EQ(errorOf([&] { hexmold::analyze(v, AnalyzeOperator::kCurl); }),
              "hexmold::analyze: curl takes float3 or double3 channels; \"voxel_signed_distance\" "
              "selects only "
              "voxel_signed_distance (float)");
    hexmold::analyze(v, AnalyzeOperator::kGradient);
    hexmold::AnalyzeOptions o;
    o.channels = "*gradient";
    EXPECT_EQ(
        errorOf([&] { hexmold::analyze(v, AnalyzeOperator::kLaplacian, o); }),
        "hexmold::analyze: laplacian takes float or double channels; \"*gradient\" selects only "
        "voxel_signed_distance_gradient (float3)");
}

TEST(AnalyzeApi, RefusesAPatternThatDoesNotParse)
{
    Volume v = sphere<Traits24>();
    hexmold::AnalyzeOptions o;
    o.channels = "a^b";
    EXPECT_NE(errorOf([&] {
                  hexmold::analyze(v, AnalyzeOperator::kGradient, o);
              }).find("hexmold::analyze: the channel pattern \"a^b\" does not parse: "),
              std::string::npos);
}

TEST(AnalyzeApi, RefusesABadMask)
{
    Volume v = sphere<Traits24>();
    hexmold::AnalyzeOptions o;
    o.mask = "mask";
    EXPECT_EQ(errorOf([&] { hexmold::analyze(v, AnalyzeOperator::kGradient, o); }),
              "hexmold::analyze: channel \"mask\" is not in the volume (channels: "
              "voxel_signed_distance)");
    hexmold::analyze(v, AnalyzeOperator::kGradient);
    o.mask = "voxel_signed_distance_gradient";
    EXPECT_EQ(errorOf([&] { hexmold::analyze(v, AnalyzeOperator::kLaplacian, o); }),
              "hexmold::analyze: channel \"voxel_signed_distance_gradient\" holds float3 elements; "
              "hexmold::analyze "
              "takes a float mask channel with one element per voxel");
}

TEST(AnalyzeApi, RefusesAnEmptyVolumeAndAnUnknownOperator)
{
    Volume empty;
    EXPECT_EQ(errorOf([&] { hexmold::analyze(empty, AnalyzeOperator::kGradient); }),
              "hexmold::analyze: the volume is empty (it holds no tile tree)");
    Volume v = sphere<Traits24>();
    EXPECT_EQ(errorOf([&] { hexmold::analyze(v, AnalyzeOperator(42)); }),
              "hexmold::analyze: unknown operator 42");
}
