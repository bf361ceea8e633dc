// hexmold::resize: the same bits as resize called directly on both tree types, the band widened,
// copies left alone, and every refused input.
#include "support/api_volumes.h"
#include <cmath>
#include <gtest/gtest.h>
#include <hexmold/api/create_level_set.h>
#include <hexmold/api/error.h>
#include <hexmold/api/resize.h>
#include <hexmold/levelset/resize.h>
#include <hexmold/logging/logger.h>
#include <string>

using namespace testapi;
using hexmold::Volume;

namespace {

template <typename Tr> class ResizeApi : public ::testing::Test {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(ResizeApi, TraitsTypes, TraitsNames);

template <typename Tr> Volume band()
{
    hexmold::LevelSetOptions o;
    o.traits = kindOf<Tr>();
    o.voxelSize = 0.1;
    o.bandVoxels = 2.0;
    return hexmold::createLevelSetSphere({0.1, 0.0, 0.0}, 1.0, o);
}

} // namespace

TYPED_TEST(ResizeApi, SameBitsAsTheDirectCall)
{
    using Tr = TypeParam;
    Volume api = band<Tr>();
    Volume const original = api;
    double const before = hashOnOneThread<Tr>(original.object());
    TVL::Object byHand = original.object();
    hexmold::ResizeOptions o;
    o.bandVoxels = 6.0;
    hexmold::resize(api, o);
    VolumeGL::TileTree3D::LevelSet::resize(float(6.0 * double(api.voxelSize())), byHand,
                                           "voxel_tile_tree", "voxel_topology",
                                           hexmold::kDistanceChannel, CoreGL::NOPLogger{});
    EXPECT_EQ(hashOnOneThread<Tr>(api.object()), hashOnOneThread<Tr>(byHand));
    EXPECT_TRUE(sameBits<Tr>(api.object(), byHand));
    EXPECT_GT(api.tilesPerDepth().back(), original.tilesPerDepth().back()) << "the band widened";
    EXPECT_EQ(hashOnOneThread<Tr>(original.object()), before)
        << "a copy of the volume is left alone";
}

TEST(ResizeApi, RefusesAWidthTooSmallOrNotFinite)
{
    Volume v = band<Traits24>();
    hexmold::ResizeOptions o;
    o.bandVoxels = 1e-9;
    EXPECT_EQ(errorOf([&] { hexmold::resize(v, o); }),
              "hexmold::resize: a band of 0.000000 voxels is 0.000000 world units; the width must "
              "exceed 1.1920929e-7");
    o.bandVoxels = -2.0;
    EXPECT_EQ(errorOf([&] { hexmold::resize(v, o); }),
              "hexmold::resize: a band of -2.000000 voxels is -0.200000 world units; the width "
              "must exceed "
              "1.1920929e-7");
    o.bandVoxels = std::nan("");
    EXPECT_EQ(errorOf([&] { hexmold::resize(v, o); }),
              "hexmold::resize: bandVoxels is nan, not a finite number");
}

TEST(ResizeApi, RefusesAMissingChannelOrAnotherElementType)
{
    Volume v = band<Traits55>();
    hexmold::ResizeOptions o;
    o.channel = "phi";
    EXPECT_EQ(
        errorOf([&] { hexmold::resize(v, o); }),
        "hexmold::resize: channel \"phi\" is not in the volume (channels: voxel_signed_distance)");
    Command::createChannel<int, 5, 5, 5, 0>("phi", topologyOf<Traits55>(v.object()), v.object(), 0,
                                            kDataElementInitializerDefaultValue, 0,
                                            Traits55::kMaxDepth);
    EXPECT_EQ(errorOf([&] { hexmold::resize(v, o); }),
              "hexmold::resize: channel \"phi\" holds int32 elements; hexmold::resize takes a "
              "float channel with one "
              "element per voxel");
}

TEST(ResizeApi, RefusesAnEmptyVolume)
{
    Volume empty;
    EXPECT_EQ(errorOf([&] { hexmold::resize(empty); }),
              "hexmold::resize: the volume is empty (it holds no tile tree)");
    Volume noTiles =
        Volume::adopt(Command::createVoxelTVL<Traits55>("", "", 0.1f, kVoxelOffsetCenter));
    EXPECT_EQ(errorOf([&] { hexmold::resize(noTiles); }),
              "hexmold::resize: the volume's tree has no tiles");
}
