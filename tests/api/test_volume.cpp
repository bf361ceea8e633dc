// hexmold::Volume: the queries against the tree they read, construction from an existing object
// and its refusals, independent copies, and the empty volume.
#include "support/api_volumes.h"
#include <cstdint>
#include <gtest/gtest.h>
#include <hexmold/api/create_level_set.h>
#include <hexmold/api/error.h>
#include <hexmold/api/volume.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/substrate/commands.h>
#include <string>

using namespace testapi;
using hexmold::Volume;

namespace {

template <typename Tr> class VolumeTyped : public ::testing::Test {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(VolumeTyped, TraitsTypes, TraitsNames);

template <typename Tr> Volume sphere()
{
    hexmold::LevelSetOptions o;
    o.traits = kindOf<Tr>();
    o.voxelSize = 0.1;
    return hexmold::createLevelSetSphere({0.25, 0.0, -0.5}, 1.0, o);
}

} // namespace

TEST(Volume, DefaultNamesAreTheRuntimeStandardNames)
{
    hexmold::VolumeNames const names;
    EXPECT_EQ(names.tree, Tavrel::Geometry::sVoxelTileTree);
    EXPECT_EQ(names.topology, Tavrel::Geometry::sVoxelComp);
    EXPECT_EQ(std::string(hexmold::kDistanceChannel), Tavrel::Geometry::sVoxelSignedDistance);
}

TYPED_TEST(VolumeTyped, QueriesReadTheTreeAndChannels)
{
    using Tr = TypeParam;
    Volume const v = sphere<Tr>();
    auto const& tree = treeOf<Tr>(v.object());
    EXPECT_EQ(v.traits(), kindOf<Tr>());
    EXPECT_EQ(v.voxelSize(), 0.1f);
    auto const tiles = v.tilesPerDepth();
    ASSERT_EQ(tiles.size(), std::size_t(Tr::kDepthCount));
    std::int64_t total = 0;
    for (int d = 0; d < Tr::kDepthCount; ++d) {
        EXPECT_EQ(tiles[std::size_t(d)], tree.tileCount(d)) << "depth " << d;
        total += tiles[std::size_t(d)];
    }
    EXPECT_GT(tiles.back(), 0) << "the band lies at the deepest depth";
    EXPECT_EQ(v.voxelCount(), std::uint64_t(total) * Tr::kTileSize);

    // The leaf tiles cover the band around the sphere of radius 1 about (0.25, 0, -0.5).
    hexmold::WorldBox const box = v.bbox();
    ASSERT_FALSE(box.empty());
    EXPECT_LE(box.min.x, 0.25 - 1.0);
    EXPECT_GE(box.max.x, 0.25 + 1.0);
    EXPECT_LE(box.min.z, -0.5 - 1.0);
    EXPECT_GE(box.max.z, -0.5 + 1.0);

    auto const channels = v.channels();
    ASSERT_EQ(channels.size(), 1u);
    EXPECT_EQ(channels[0].name, hexmold::kDistanceChannel);
    EXPECT_EQ(channels[0].elementType, "float");
    EXPECT_EQ(channels[0].minDepth, 0);
    EXPECT_EQ(channels[0].maxDepth, Tr::kMaxDepth);
    EXPECT_TRUE(channels[0].voxelForm);

    // At least the channel's values: 4 bytes per voxel.
    EXPECT_GE(v.memoryBytes(), v.voxelCount() * sizeof(float));
    {
        // One thread, so that the parallel sums split alike.
        TVL::Parallel::global_control limit(TVL::Parallel::global_control::max_allowed_parallelism,
                                            1);
        EXPECT_EQ(v.voxelHash(), CoreGL::voxelHash(tree, channelOf<Tr>(v.object())));
    }
}

TYPED_TEST(VolumeTyped, AdoptsAnObjectMadeElsewhere)
{
    using Tr = TypeParam;
    auto object = Command::createVoxelTVL<Tr>("", "", 0.5f, kVoxelOffsetCenter);
    Volume const v = Volume::adopt(object);
    EXPECT_EQ(v.traits(), kindOf<Tr>());
    EXPECT_EQ(v.voxelSize(), 0.5f);
    EXPECT_EQ(v.voxelCount(), 0u);
    EXPECT_TRUE(v.bbox().empty());
    EXPECT_TRUE(v.channels().empty());
    // The volume shares the components with the caller's object until either side writes.
    EXPECT_EQ(v.object().component("voxel_tile_tree").get(),
              object->component("voxel_tile_tree").get());
}

TYPED_TEST(VolumeTyped, CopiesAreIndependent)
{
    using Tr = TypeParam;
    Volume a = sphere<Tr>();
    Volume const b = a;
    double const before = hashOnOneThread<Tr>(b.object());
    rewrite<Tr>(a.object(), [](float v) { return 2.0f * v; });
    EXPECT_EQ(hashOnOneThread<Tr>(b.object()), before);
    EXPECT_NE(hashOnOneThread<Tr>(a.object()), before);
}

TEST(Volume, RefusesAnObjectWithoutTree)
{
    auto const empty = TVL::createEmptyTVL();
    EXPECT_EQ(errorOf([&] { Volume v(*empty); }),
              "hexmold::Volume: the object holds no tile tree named \"voxel_tile_tree\"");
}

TEST(Volume, RefusesATreeNameThatIsNoTree)
{
    auto object = Command::createVoxelTVL<Traits24>("", "", 0.5f, kVoxelOffsetCenter);
    hexmold::VolumeNames names;
    names.tree = "voxel_topology";
    EXPECT_EQ(
        errorOf([&] { Volume v(*object, names); }),
        "hexmold::Volume: component \"voxel_topology\" is not a Traits24 or Traits55 tile tree");
}

TEST(Volume, RefusesAnObjectWithoutTopology)
{
    auto object = Command::createVoxelTVL<Traits55>("", "", 0.5f, kVoxelOffsetCenter);
    object->removeComponent("voxel_topology");
    EXPECT_EQ(
        errorOf([&] { Volume v(*object); }),
        "hexmold::Volume: the object holds no Traits55 voxel topology named \"voxel_topology\"");
}

TEST(Volume, RefusesANullObject)
{
    EXPECT_EQ(errorOf([] { Volume::adopt(nullptr); }),
              "hexmold::Volume::adopt: the object pointer is null");
}

TEST(Volume, EmptyVolumeRefusesEveryQuery)
{
    Volume v;
    EXPECT_TRUE(v.empty());
    std::string const empty = "hexmold::Volume: the volume is empty (it holds no tile tree)";
    EXPECT_EQ(errorOf([&] { v.traits(); }), empty);
    EXPECT_EQ(errorOf([&] { v.voxelSize(); }), empty);
    EXPECT_EQ(errorOf([&] { v.tilesPerDepth(); }), empty);
    EXPECT_EQ(errorOf([&] { v.voxelCount(); }), empty);
    EXPECT_EQ(errorOf([&] { v.bbox(); }), empty);
    EXPECT_EQ(errorOf([&] { v.channels(); }), empty);
    EXPECT_EQ(errorOf([&] { v.memoryBytes(); }), empty);
    EXPECT_EQ(errorOf([&] { v.voxelHash(); }), empty);
    EXPECT_EQ(errorOf([&] { v.object(); }), empty);
}

TEST(Volume, MovedFromVolumeIsEmpty)
{
    Volume a = sphere<Traits24>();
    Volume b = std::move(a);
    EXPECT_TRUE(a.empty());
    EXPECT_FALSE(b.empty());
}

TEST(Volume, VoxelHashRefusesAMissingChannel)
{
    Volume const v = sphere<Traits24>();
    EXPECT_EQ(errorOf([&] { v.voxelHash("phi"); }),
              "hexmold::Volume::voxelHash: channel \"phi\" is not in the volume (channels: "
              "voxel_signed_distance)");
}

TEST(Volume, VoxelHashRefusesAChannelOfAnotherForm)
{
    Volume v = sphere<Traits24>();
    auto const& topology = topologyOf<Traits24>(v.object());
    Command::createChannel<float, 2, 4, 4, 1>("halo", topology, v.object(), 0.0f,
                                              kDataElementInitializerDefaultValue, 0,
                                              Traits24::kMaxDepth);
    EXPECT_EQ(errorOf([&] { v.voxelHash("halo"); }),
              "hexmold::Volume::voxelHash: \"halo\" is not a channel with one element per voxel of "
              "the volume's tree "
              "type");
    auto const channels = v.channels();
    ASSERT_EQ(channels.size(), 2u);
    EXPECT_EQ(channels[0].name, "halo");
    EXPECT_FALSE(channels[0].voxelForm);
}
