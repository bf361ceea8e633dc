// Conversion between the volume object and the runtime's geometry object, and channel naming.
#include <gtest/gtest.h>

#include <algorithm>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/commands.h>
#include <hexmold/substrate/scene_conversion.h>

using namespace TVL::TileTree3D;

namespace {

Quillon::Ptr<TVL::Object> makeVolume()
{
    auto volume = Command::createVoxelTVL<Traits24>("tree", "topology", 0.5f, VoxelOffsetType(7));
    auto topo = volume->component<VoxelTopology<Traits24>>("topology");
    Command::createChannel<float, 2, 4, 4, 0>("voxel_density", *topo, *volume, 1.5f,
                                              kDataElementInitializerDefaultValue, 0, 28);
    return volume;
}

std::vector<Quillon::String> sorted(Quillon::Array<Quillon::String> v)
{
    std::sort(v.begin(), v.end());
    return {v.begin(), v.end()};
}

} // namespace

TEST(SceneConversion, MoveToGeometryAndBackKeepsEveryComponent)
{
    auto volume = makeVolume();
    auto const names = sorted(volume->componentRange());
    TVL::Component const* tree = volume->component("tree").get();
    ASSERT_EQ(names.size(), 3u);
    Tavrel::Object geo = Tavrel::Geometry::move_tvl_volume_to_object(*volume);
    EXPECT_EQ(volume->componentRange().size(), 0u);
    EXPECT_TRUE(geo.isInstanceOf(Tavrel::Geometry::getVolumePrototype()));
    TVL::Object back = Tavrel::Geometry::move_object_to_tvl_volume(geo);
    EXPECT_EQ(sorted(back.componentRange()), names);
    EXPECT_EQ(back.component("tree").get(), tree); // moved, not copied
    EXPECT_EQ(geo.propertyCount(), 0u);
}

TEST(SceneConversion, ShallowCopySharesComponents)
{
    auto volume = makeVolume();
    Tavrel::Object geo = Tavrel::Geometry::move_tvl_volume_to_object(*volume);
    auto a = Tavrel::Geometry::shallow_copy_object_to_tvl_volume(geo);
    auto b = Tavrel::Geometry::shallow_copy_object_to_tvl_volume(geo);
    ASSERT_TRUE(a);
    ASSERT_TRUE(b);
    EXPECT_EQ(a->component("voxel_density").get(), b->component("voxel_density").get());
    // A writer gets a private copy, and the other holder keeps the original.
    auto mine = a->extractComponent<Channel<Traits24, float, 4, 0, 0>>("voxel_density");
    ASSERT_TRUE(mine);
    EXPECT_NE(static_cast<TVL::Component*>(mine.get()), b->component("voxel_density").get());
    a->putComponent(std::move(mine));
    EXPECT_EQ(geo.propertyCount(), 3u);
}

TEST(SceneConversion, ObjectsThatAreNotVolumesGiveNothing)
{
    Tavrel::Object plain;
    plain.setProperty("something", Quillon::Any(3));
    EXPECT_FALSE(Tavrel::Geometry::shallow_copy_object_to_tvl_volume(plain));
    TVL::Object v = Tavrel::Geometry::move_object_to_tvl_volume(plain);
    EXPECT_EQ(v.componentRange().size(), 0u);
    EXPECT_TRUE(plain.hasProperty("something"));
}

TEST(SceneConversion, PropertyNamesMapToVoxelChannels)
{
    Tavrel::Object plain;
    EXPECT_EQ(Tavrel::mapGeoPropertyNameToTVLVolume("temperature", plain), "voxel_temperature");
    EXPECT_EQ(Tavrel::mapGeoPropertyNameToTVLVolume("voxel_temperature", plain),
              "voxel_temperature");
    EXPECT_EQ(Tavrel::mapGeoPropertyNameToTVLVolume("voxel_", plain), "voxel_voxel_");
    EXPECT_EQ(Tavrel::mapGeoPropertyNameToTVLVolume("", plain), "");
    auto volume = makeVolume();
    Tavrel::Object geo = Tavrel::Geometry::move_tvl_volume_to_object(*volume);
    EXPECT_EQ(Tavrel::mapGeoPropertyNameToTVLVolume("density", geo), "density");
}
