// hexmold::sample: the values of the linear sampler called directly, the background beyond the
// tiles, and every refused input.
#include "support/api_volumes.h"
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <hexmold/api/create_level_set.h>
#include <hexmold/api/error.h>
#include <hexmold/api/sample.h>
#include <hexmold/platform/quillon/job.h>
#include <hexmold/platform/tavrel/math_support.h>
#include <hexmold/sampling/linear_sampler.h>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

using namespace testapi;
using hexmold::Volume;
using Tavrel::Math::double3;

namespace {

template <typename Tr> class SampleApi : public ::testing::Test {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(SampleApi, TraitsTypes, TraitsNames);

template <typename Tr> Volume torus()
{
    hexmold::LevelSetOptions o;
    o.traits = kindOf<Tr>();
    o.voxelSize = 0.05;
    o.layout = hexmold::TreeLayout::kAdaptive;
    return hexmold::createLevelSetTorus({0, 0, 0}, 1.0, 0.3, o);
}

} // namespace

TYPED_TEST(SampleApi, SameValuesAsTheSamplerCalledDirectly)
{
    using Tr = TypeParam;
    Volume const v = torus<Tr>();
    std::mt19937 rng(5);
    std::uniform_real_distribution<double> u(-1.6, 1.6);
    std::vector<double3> points;
    for (int n = 0; n < 3000; ++n)
        points.push_back({u(rng), u(rng), 0.25 * u(rng)});
    std::vector<float> const values = hexmold::sample(v, points);
    VoxelSamplerLinear<Tr, float, Tr::kTileWidth, 2, double3> sampler(
        treeOf<Tr>(v.object()), topologyOf<Tr>(v.object()), channelOf<Tr>(v.object()));
    ASSERT_EQ(values.size(), points.size());
    int differ = 0;
    for (std::size_t n = 0; n < points.size(); ++n) {
        float const expected = sampler.value(points[n]);
        differ += std::memcmp(&expected, &values[n], sizeof(float)) != 0;
    }
    EXPECT_EQ(differ, 0);
    EXPECT_EQ(hexmold::sample(v, points[7]), values[7]);
}

TEST(SampleApi, NoPositionsGiveNoValues)
{
    Volume const v = torus<Traits24>();
    EXPECT_TRUE(hexmold::sample(v, std::span<double3 const>()).empty());
}

TEST(SampleApi, RefusesAPositionThatIsNotFinite)
{
    Volume const v = torus<Traits24>();
    std::vector<double3> const points{{0, 0, 0}, {0, 0, 0}, {0, INFINITY, 0}};
    EXPECT_EQ(errorOf([&] { hexmold::sample(v, points); }),
              "hexmold::sample: position 2 (0.000000, inf, 0.000000) is not finite");
}

TEST(SampleApi, RefusesAMissingChannelOrAnotherElementType)
{
    Volume v = torus<Traits55>();
    EXPECT_EQ(
        errorOf([&] {
            hexmold::sample(v, double3{0, 0, 0}, {"phi"});
        }),
        "hexmold::sample: channel \"phi\" is not in the volume (channels: voxel_signed_distance)");
    Command::createChannel<unsigned char, 5, 5, 5, 0>(
        "phi", topologyOf<Traits55>(v.object()), v.object(), (unsigned char)0,
        kDataElementInitializerDefaultValue, 0, Traits55::kMaxDepth);
    EXPECT_EQ(errorOf([&] {
                  hexmold::sample(v, double3{0, 0, 0}, {"phi"});
              }),
              "hexmold::sample: channel \"phi\" holds uint8 elements; hexmold::sample takes a "
              "float channel with one "
              "element per voxel");
}

TEST(SampleApi, RefusesAnEmptyVolume)
{
    Volume const empty;
    EXPECT_EQ(errorOf([&] {
                  hexmold::sample(empty, double3{0, 0, 0});
              }),
              "hexmold::sample: the volume is empty (it holds no tile tree)");
}

TEST(SampleApi, CancellationThrowsTheSharedMessage)
{
    Volume const v = torus<Traits24>();
    std::vector<double3> const points(10000, double3{0.5, 0.5, 0.0});
    Quillon::requestJobCancellation();
    std::string message;
    try {
        hexmold::sample(v, points);
    } catch (std::runtime_error const& e) {
        message = e.what();
    }
    Quillon::clearJobCancellation();
    EXPECT_EQ(message, TVL::exceptionMessage);
}
