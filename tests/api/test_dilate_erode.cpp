// hexmold::dilate and hexmold::erode: the same bits as the operators called directly followed by
// the topology and channel updates by hand, every channel following the tree, the counts
// returned, copies left alone, and every refused input.
#include "support/api_volumes.h"
#include <cmath>
#include <gtest/gtest.h>
#include <hexmold/api/create_level_set.h>
#include <hexmold/api/dilate_erode.h>
#include <hexmold/api/error.h>
#include <hexmold/levelset/dilate_erode.h>
#include <hexmold/logging/logger.h>
#include <hexmold/substrate/channel_update.h>
#include <span>
#include <string>
#include <utility>

using namespace testapi;
using hexmold::Volume;

namespace {

template <typename Tr> class DilateErodeApi : public ::testing::Test {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(DilateErodeApi, TraitsTypes, TraitsNames);

/// A sphere band with a second channel, "density", that must follow the tree.
template <typename Tr> Volume band(double bandVoxels)
{
    hexmold::LevelSetOptions o;
    o.traits = kindOf<Tr>();
    o.voxelSize = 0.1;
    o.bandVoxels = bandVoxels;
    Volume v = hexmold::createLevelSetSphere({0.0, 0.1, 0.0}, 1.0, o);
    o.channel = "density";
    Volume const other = hexmold::createLevelSetSphere({0.0, 0.1, 0.0}, 1.0, o);
    v.object().addComponent(other.object().component("density"));
    rewrite<Tr>(
        v.object(), [](float d) { return 1.0f - d; }, "density");
    return v;
}

/// The grow step as a caller of the operator writes it: dilate, then the topology and every
/// channel follow, and the new tiles take their parents' values.
template <typename Tr> void dilateByHand(TVL::Object& object, float bandwidth)
{
    TVL::ComponentGuard<Container<Tr>> tree(object, "voxel_tile_tree");
    TVL::ComponentGuard<VoxelTopology<Tr>> topology(object, "voxel_topology");
    TVL::ComponentGuard<VoxelChannel<Tr, float>> phi(object, hexmold::kDistanceChannel);
    TileCornerLists<Tr> newTiles;
    VolumeGL::TileTree3D::LevelSet::dilate(bandwidth, *tree, *phi, newTiles, CoreGL::NOPLogger{}, 0,
                                           Tr::kMaxDepth);
    topology->update(*tree);
    phi->update(*topology);
    VoxelTopology<Tr> const& inObject = *topology;
    topology.restore();
    phi.restore();
    updateTilesAdded(inObject, object);
    initializeTileData(*tree, newTiles, object);
}

/// The shrink step by hand: erode, then the topology and every channel follow the removal.
template <typename Tr> void erodeByHand(TVL::Object& object, float bandwidth)
{
    TVL::ComponentGuard<Container<Tr>> tree(object, "voxel_tile_tree");
    TVL::ComponentGuard<VoxelTopology<Tr>> topology(object, "voxel_topology");
    TVL::ComponentGuard<VoxelChannel<Tr, float>> phi(object, hexmold::kDistanceChannel);
    TileLayout<Tr> const layout = recordTileLayout(std::as_const(*tree));
    VolumeGL::TileTree3D::LevelSet::erode(bandwidth, *tree, *phi, CoreGL::NOPLogger{});
    TileMoveLists<Tr> const moved = tileMovesSince(layout, std::as_const(*tree));
    std::span<TileMoveList const> const pairs(moved.data(), moved.size());
    topology->update(*tree);
    phi->updateTilesRemoved(pairs, *topology);
    updateTilesRemoved(pairs, *topology, object);
}

} // namespace

TYPED_TEST(DilateErodeApi, DilateGivesTheSameBitsAsTheDirectCall)
{
    using Tr = TypeParam;
    Volume api = band<Tr>(1.0);
    Volume const original = api;
    TVL::Object byHand = original.object();
    std::int64_t const before = treeOf<Tr>(original.object()).tileCount(-1);
    hexmold::DilateOptions o;
    o.bandVoxels = 4.0;
    std::int64_t const added = hexmold::dilate(api, o);
    dilateByHand<Tr>(byHand, float(4.0 * double(api.voxelSize())));
    EXPECT_GT(added, 0);
    EXPECT_EQ(treeOf<Tr>(api.object()).tileCount(-1), before + added);
    EXPECT_EQ(topologyOf<Tr>(api.object()).tileCount(-1), before + added) << "the topology follows";
    EXPECT_EQ(hashOnOneThread<Tr>(api.object()), hashOnOneThread<Tr>(byHand));
    EXPECT_TRUE(sameBits<Tr>(api.object(), byHand));
    EXPECT_TRUE(sameBits<Tr>(api.object(), byHand, "density"));
    EXPECT_EQ(treeOf<Tr>(original.object()).tileCount(-1), before)
        << "a copy of the volume is left alone";
}

TYPED_TEST(DilateErodeApi, ErodeGivesTheSameBitsAsTheDirectCall)
{
    using Tr = TypeParam;
    Volume api = band<Tr>(8.0);
    Volume const original = api;
    TVL::Object byHand = original.object();
    std::int64_t const before = treeOf<Tr>(original.object()).tileCount(-1);
    hexmold::ErodeOptions o;
    o.bandVoxels = 0.0;
    std::int64_t const removed = hexmold::erode(api, o);
    erodeByHand<Tr>(byHand, 0.0f);
    EXPECT_GT(removed, 0);
    EXPECT_EQ(treeOf<Tr>(api.object()).tileCount(-1), before - removed);
    EXPECT_EQ(topologyOf<Tr>(api.object()).tileCount(-1), before - removed)
        << "the topology follows";
    EXPECT_EQ(hashOnOneThread<Tr>(api.object()), hashOnOneThread<Tr>(byHand));
    EXPECT_TRUE(sameBits<Tr>(api.object(), byHand));
    EXPECT_TRUE(sameBits<Tr>(api.object(), byHand, "density"));
    EXPECT_EQ(treeOf<Tr>(original.object()).tileCount(-1), before)
        << "a copy of the volume is left alone";
}

TEST(DilateErodeApi, RefusesABadDistance)
{
    Volume v = band<Traits24>(1.0);
    hexmold::DilateOptions d;
    d.bandVoxels = -1.0;
    EXPECT_EQ(errorOf([&] { hexmold::dilate(v, d); }),
              "hexmold::dilate: bandVoxels must not be negative, not -1.000000");
    hexmold::ErodeOptions e;
    e.bandVoxels = std::nan("");
    EXPECT_EQ(errorOf([&] { hexmold::erode(v, e); }),
              "hexmold::erode: bandVoxels is nan, not a finite number");
}

TEST(DilateErodeApi, RefusesABadDepthRange)
{
    Volume v = band<Traits55>(1.0);
    hexmold::DilateOptions d;
    d.maxDepth = 13;
    EXPECT_EQ(errorOf([&] { hexmold::dilate(v, d); }),
              "hexmold::dilate: depth range [0, 13] is not within [0, 12] of Traits55 with the "
              "minimum at most the "
              "maximum");
}

TEST(DilateErodeApi, RefusesAMissingChannelOrAnotherElementType)
{
    Volume v = band<Traits24>(1.0);
    hexmold::DilateOptions d;
    d.channel = "phi";
    EXPECT_EQ(errorOf([&] { hexmold::dilate(v, d); }),
              "hexmold::dilate: channel \"phi\" is not in the volume (channels: density, "
              "voxel_signed_distance)");
    Command::createChannel<float3, 2, 4, 4, 0>(
        "velocity", topologyOf<Traits24>(v.object()), v.object(), float3{},
        kDataElementInitializerDefaultValue, 0, Traits24::kMaxDepth);
    hexmold::ErodeOptions e;
    e.channel = "velocity";
    EXPECT_EQ(errorOf([&] { hexmold::erode(v, e); }),
              "hexmold::erode: channel \"velocity\" holds float3 elements; hexmold::erode takes a "
              "float channel with "
              "one element per voxel");
}

TEST(DilateErodeApi, RefusesAnEmptyVolume)
{
    Volume empty;
    EXPECT_EQ(errorOf([&] { hexmold::dilate(empty); }),
              "hexmold::dilate: the volume is empty (it holds no tile tree)");
    Volume noTiles =
        Volume::adopt(Command::createVoxelTVL<Traits24>("", "", 0.1f, kVoxelOffsetCenter));
    EXPECT_EQ(errorOf([&] { hexmold::erode(noTiles); }),
              "hexmold::erode: the volume's tree has no tiles");
}
