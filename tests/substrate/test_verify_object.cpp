// Object structure checks and channel name tests.
#include <gtest/gtest.h>

#include <hexmold/logging/logger.h>
#include <hexmold/substrate/commands.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/verify_object.h>
#include <sstream>

using namespace TVL::TileTree3D;

namespace {

template <typename Tr> class VerifyObjectTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        CoreGL::Logger::setVerboseLevel(CoreGL::Logger::kDefaultVerboseLevel);
        CoreGL::Logger::setErrorVerboseLevel(CoreGL::Logger::kDefaultErrorVerboseLevel);
        CoreGL::Logger::setDebugFileStream(nullptr);
    }
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(VerifyObjectTest, TraitsTypes, TraitsNames);

template <typename Tr> Quillon::Ptr<TVL::Object> volume()
{
    auto object = Command::createVoxelTVL<Tr>("tree", "voxels", 1.0f, kVoxelOffsetCenter);
    auto topo = object->template component<VoxelTopology<Tr>>("voxels");
    Command::createChannel<float, Tr::kRatio, Tr::kTileWidth, Tr::kTileWidth, 0>(
        "density", *topo, *object, 0.0f, kDataElementInitializerDefaultValue, 0, Tr::kMaxDepth);
    return object;
}

/// verifyObject's result and what it wrote to the error stream.
std::pair<bool, std::string> verify(TVL::Object const& o, std::string const& topo,
                                    std::string const& tree)
{
    ::testing::internal::CaptureStderr();
    bool const ok = CoreGL::verifyObject(o, topo, tree);
    return {ok, ::testing::internal::GetCapturedStderr()};
}

} // namespace

TYPED_TEST(VerifyObjectTest, WellFormedObjectPasses)
{
    auto object = volume<TypeParam>();
    auto [ok, err] = verify(*object, "voxels", "tree");
    EXPECT_TRUE(ok);
    EXPECT_EQ(err, "");
}

TYPED_TEST(VerifyObjectTest, ChannelBoundElsewhereFailsAndIsNamed)
{
    auto object = volume<TypeParam>();
    auto topo = object->template component<VoxelTopology<TypeParam>>("voxels");
    auto stray = Command::createChannel<int, TypeParam::kRatio, TypeParam::kTileWidth,
                                        TypeParam::kTileWidth, 0>(
        "stray", *topo, *object, 0, kDataElementInitializerDefaultValue, 0, 0);
    stray->setTargetName("tree");
    auto [ok, err] = verify(*object, "voxels", "tree");
    EXPECT_FALSE(ok);
    EXPECT_EQ(err, "verifyObject.error: channel 'stray' is not a target of topology\n");
}

TYPED_TEST(VerifyObjectTest, MissingComponentsAreReported)
{
    auto object = volume<TypeParam>();
    auto [ok1, err1] = verify(*object, "voxels", "nothing");
    EXPECT_FALSE(ok1);
    EXPECT_EQ(err1, "verifyObject.error: container is nullptr\n"
                    "verifyObject.error: channel 'tree' is not a target of topology\n");
    auto [ok2, err2] = verify(*object, "nothing", "tree");
    EXPECT_FALSE(ok2);
    EXPECT_EQ(err2, "verifyObject.error: topology is nullptr\n");
    auto empty = TVL::createEmptyTVL();
    auto [ok3, err3] = verify(*empty, "voxels", "tree");
    EXPECT_FALSE(ok3);
    EXPECT_EQ(
        err3,
        "verifyObject.error: container is nullptr\nverifyObject.error: topology is nullptr\n");
}

TYPED_TEST(VerifyObjectTest, WrongTargetsOfContainerAndTopologyAreReported)
{
    auto object = volume<TypeParam>();
    object->component("tree")->setTargetName("voxels");
    object->component("voxels")->setTargetName("elsewhere");
    auto [ok, err] = verify(*object, "voxels", "tree");
    EXPECT_FALSE(ok);
    EXPECT_EQ(err,
              "verifyObject.error: container has a target (it should not since it is the root)\n"
              "verifyObject.error: topology does not target container\n");
}

TYPED_TEST(VerifyObjectTest, ErrorsAreSilentAtErrorLevelZeroAndBeginEndShowAtVerboseThree)
{
    auto object = volume<TypeParam>();
    object->component("density")->setTargetName("tree");
    CoreGL::Logger::setErrorVerboseLevel(0);
    std::ostringstream debug;
    CoreGL::Logger::setDebugFileStream(&debug);
    CoreGL::Logger::setVerboseLevel(3);
    auto [ok, err] = verify(*object, "voxels", "tree");
    EXPECT_FALSE(ok);
    EXPECT_EQ(err, "");
    EXPECT_EQ(debug.str(), "verifyObject.begin\nverifyObject.end (success = false)\n");
    CoreGL::Logger::setVerboseLevel(2);
    debug.str("");
    verify(*object, "voxels", "tree");
    EXPECT_EQ(debug.str(), "");
}

TEST(ChannelNames, FuelEmissionRateAndMappable)
{
    EXPECT_FALSE(CoreGL::isMappable("voxel_"));
    EXPECT_TRUE(CoreGL::isMappable("voxel_density"));
    EXPECT_FALSE(CoreGL::isMappable("density"));
    EXPECT_FALSE(CoreGL::isMappable("voxe"));
    EXPECT_FALSE(CoreGL::isFuel("voxel_fuel"));
    EXPECT_TRUE(CoreGL::isFuel("voxel_fuel_2"));
    EXPECT_FALSE(CoreGL::isFuel("voxel_fue"));
    EXPECT_FALSE(CoreGL::isEmissionRate("_emission_rate"));
    EXPECT_TRUE(CoreGL::isEmissionRate("fire_emission_rate"));
    EXPECT_FALSE(CoreGL::isEmissionRate("fire_emission_rates"));
    EXPECT_FALSE(CoreGL::isEmissionRate(""));
}
