// Volume objects: typed lookup, extract/put ownership, sharing, scope guards, creation commands,
// the free channel updates, the pairs of a removal recovered from the layout before it.
#include <gtest/gtest.h>

#include "support/random_trees.h"
#include <algorithm>
#include <cstdint>
#include <hexmold/logging/logger.h>
#include <hexmold/substrate/channel_update.h>
#include <hexmold/substrate/commands.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/topology.h>
#include <stdexcept>

using namespace TVL::TileTree3D;
using TVL::Object;

namespace {

template <typename Tr> class ObjectTest : public ::testing::Test {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(ObjectTest, TraitsTypes, TraitsNames);

template <typename Tr> constexpr int kR = Tr::kRatio;
template <typename Tr> constexpr int kTW = Tr::kTileWidth;

/// An object with a tree of a few tiles, its topology and two channels.
template <typename Tr> Quillon::Ptr<Object> makeVolume()
{
    auto object = Command::createVoxelTVL<Tr>("", "", 0.5f, kVoxelOffsetCenter);
    auto container = object->template component<Container<Tr>>(Command::kDefaultContainerName);
    auto topology = object->template component<VoxelTopology<Tr>>(Command::kDefaultTopologyName);
    auto acc = container->tileAccessor();
    acc.addTile(0, 0, 0, 2);
    acc.addTile(-1, -1, -1, 2);
    topology->update(*container);
    Command::createChannel<float, kR<Tr>, kTW<Tr>, kTW<Tr>, 0>(
        "density", *topology, *object, 1.0f, kDataElementInitializerDefaultValue, 0, Tr::kMaxDepth);
    Command::createChannel<float3, kR<Tr>, kTW<Tr>, kTW<Tr>, 0>(
        "velocity", *topology, *object, float3{0, 0, 0}, kDataElementInitializerDefaultValue, 0,
        Tr::kMaxDepth);
    return object;
}

std::vector<std::string> sorted(std::vector<std::string> v)
{
    std::sort(v.begin(), v.end());
    return v;
}

} // namespace

TYPED_TEST(ObjectTest, TypedLookupOfAnotherElementTypeIsNull)
{
    auto object = makeVolume<TypeParam>();
    using F = Channel<TypeParam, float, kTW<TypeParam>, 0, 0>;
    using F3 = Channel<TypeParam, float3, kTW<TypeParam>, 0, 0>;
    using FHalo = Channel<TypeParam, float, kTW<TypeParam>, 1, 0>;
    EXPECT_FALSE(object->template component<F>("velocity"));
    EXPECT_TRUE(object->template component<F3>("velocity"));
    EXPECT_TRUE(object->template component<F>("density"));
    EXPECT_FALSE(object->template component<FHalo>("density"));
    EXPECT_TRUE(object->template component<ChannelBase>("density"));
    EXPECT_TRUE(object->template component<TVL::Component>("density"));
    EXPECT_FALSE(object->component("missing"));
}

TYPED_TEST(ObjectTest, ExtractThenPutKeepsTheSameNames)
{
    auto object = makeVolume<TypeParam>();
    auto const before = sorted(object->componentRange());
    ASSERT_EQ(before.size(), 4u);
    auto c = object->template extractComponent<Channel<TypeParam, float, kTW<TypeParam>, 0, 0>>(
        "density");
    ASSERT_TRUE(c);
    EXPECT_FALSE(object->hasComponentFromName("density"));
    EXPECT_EQ(object->componentRange().size(), 3u);
    object->putComponent(std::move(c));
    EXPECT_EQ(sorted(object->componentRange()), before);
    EXPECT_EQ(sorted(*object->keys()), before);
}

TYPED_TEST(ObjectTest, RemovingAnAbsentComponentDoesNothing)
{
    auto object = makeVolume<TypeParam>();
    auto const before = sorted(object->componentRange());
    auto topology = object->component(Command::kDefaultTopologyName);
    object->removeComponent("missing", topology.get());
    object->removeComponent("", nullptr);
    EXPECT_EQ(sorted(object->componentRange()), before);
    object->removeComponent("density", topology.get());
    EXPECT_FALSE(object->hasComponentFromName("density"));
}

TYPED_TEST(ObjectTest, ContainerAndTopologyAreNotChannels)
{
    auto object = makeVolume<TypeParam>();
    EXPECT_FALSE(
        object->template hasComponentFromName<ChannelBase>(Command::kDefaultContainerName));
    EXPECT_FALSE(object->template hasComponentFromName<ChannelBase>(Command::kDefaultTopologyName));
    EXPECT_TRUE(object->template hasComponentFromName<ChannelBase>("density"));
    EXPECT_TRUE(object->template hasComponentFromName<Container<TypeParam>>(
        Command::kDefaultContainerName));
    EXPECT_FALSE(object->template hasComponentFromName<ChannelBase>("missing"));
}

TYPED_TEST(ObjectTest, ExtractOfAMissingComponentIsNull)
{
    auto object = makeVolume<TypeParam>();
    auto const before = sorted(object->componentRange());
    EXPECT_FALSE(object->template extractComponent<Container<TypeParam>>("missing"));
    EXPECT_FALSE(object->extractComponent("missing"));
    // Of another type: null, and the component stays.
    EXPECT_FALSE(object->template extractComponent<Container<TypeParam>>("density"));
    EXPECT_FALSE((object->template extractComponent<Channel<TypeParam, int, kTW<TypeParam>, 0, 0>>(
        "density")));
    EXPECT_EQ(sorted(object->componentRange()), before);
    object->putComponent(Quillon::MutablePtr<TVL::Component>());
    EXPECT_EQ(sorted(object->componentRange()), before);
}

TYPED_TEST(ObjectTest, ShallowCopiesShareTheTableUntilOneChanges)
{
    auto object = makeVolume<TypeParam>();
    EXPECT_EQ(object->componentsUseCount(), 1);
    Object copy(*object);
    EXPECT_EQ(object->componentsUseCount(), 2);
    EXPECT_EQ(copy.component("density"), object->component("density"));
    copy.removeComponent("velocity");
    EXPECT_EQ(object->componentsUseCount(), 1);
    EXPECT_TRUE(object->hasComponentFromName("velocity"));
    EXPECT_FALSE(copy.hasComponentFromName("velocity"));
    EXPECT_EQ(copy.component("density"), object->component("density"));
}

TYPED_TEST(ObjectTest, ExtractOfASharedComponentGivesAPrivateCopy)
{
    using C = Channel<TypeParam, float, kTW<TypeParam>, 0, 0>;
    auto object = makeVolume<TypeParam>();
    Object copy(*object);
    auto shared = object->template component<C>("density");
    C const* original = shared.get();
    shared.reset();
    auto mine = copy.template extractComponent<C>("density");
    ASSERT_TRUE(mine);
    EXPECT_NE(mine.get(), original);
    mine->tileData(0, 0)[0] = -3.0f;
    EXPECT_EQ(object->template component<C>("density")->tileData(0, 0)[0], 1.0f);
    copy.putComponent(std::move(mine));
    EXPECT_NE(copy.component("density"), object->component("density"));

    // Not shared: the very component comes out.
    auto alone = object->template extractComponent<C>("density");
    EXPECT_EQ(alone.get(), original);
    object->putComponent(std::move(alone));
}

TYPED_TEST(ObjectTest, GuardPutsTheComponentBackAlsoDuringUnwinding)
{
    using C = Channel<TypeParam, float, kTW<TypeParam>, 0, 0>;
    auto object = makeVolume<TypeParam>();
    {
        TVL::ComponentGuard<C> guard(*object, "density");
        ASSERT_TRUE(guard);
        EXPECT_FALSE(object->hasComponentFromName("density"));
        guard->tileData(0, 0)[1] = 8.0f;
    }
    ASSERT_TRUE(object->hasComponentFromName("density"));
    EXPECT_EQ(object->template component<C>("density")->tileData(0, 0)[1], 8.0f);
    EXPECT_THROW(
        {
            TVL::ComponentGuard<Container<TypeParam>> tree(*object, Command::kDefaultContainerName);
            TVL::ComponentGuard<C> density(*object, "density");
            throw std::runtime_error("cancelled");
        },
        std::runtime_error);
    EXPECT_TRUE(object->hasComponentFromName("density"));
    EXPECT_TRUE(object->hasComponentFromName(Command::kDefaultContainerName));
    {
        TVL::ComponentGuard<C> missing(*object, "missing");
        EXPECT_FALSE(missing);
    }
    EXPECT_FALSE(object->hasComponentFromName("missing"));
}

TYPED_TEST(ObjectTest, CreateVoxelTVLNamesAndBindsItsComponents)
{
    auto object = Command::createVoxelTVL<TypeParam>("tree", "voxels", 0.25f, kVoxelOffsetCorner);
    auto tree = object->template component<Container<TypeParam>>("tree");
    auto topo = object->template component<VoxelTopology<TypeParam>>("voxels");
    ASSERT_TRUE(tree);
    ASSERT_TRUE(topo);
    EXPECT_EQ(tree->voxelSize(), 0.25f);
    EXPECT_EQ(topo->targetName(), "tree");
    EXPECT_EQ(topo->offsetType(), kVoxelOffsetCorner);
    EXPECT_EQ(topo->tileCount(-1), 0);
    auto defaults = Command::createVoxelTVL<TypeParam>("", "", 1.0f, kVoxelOffsetCenter);
    EXPECT_TRUE(defaults->hasComponentFromName("voxel_tile_tree"));
    EXPECT_TRUE(defaults->hasComponentFromName("voxel_topology"));
    EXPECT_EQ(TVL::createEmptyTVL()->componentCount(), 0u);
}

TYPED_TEST(ObjectTest, CreateChannelBindsAndAllocates)
{
    auto object = makeVolume<TypeParam>();
    auto topo = object->template component<VoxelTopology<TypeParam>>(Command::kDefaultTopologyName);
    auto c = Command::createChannel<int, kR<TypeParam>, kTW<TypeParam>, kTW<TypeParam>, 2>(
        "flags", *topo, *object, 3, kDataElementInitializerDefaultValue, 0, TypeParam::kMaxDepth);
    ASSERT_TRUE(c);
    EXPECT_EQ(c->targetName(), topo->name());
    EXPECT_EQ(c->tileCount(-1), topo->tileCount(-1));
    EXPECT_EQ(object->component("flags"), Quillon::Ptr<TVL::Component>(c));
    constexpr int E = kTW<TypeParam> + 4;
    EXPECT_EQ(c->tileData(0, 1).size(), std::size_t(E * E * E));
    EXPECT_EQ(c->tileData(0, 1)(-2, -2, -2), 3);
}

TYPED_TEST(ObjectTest, PropertiesAreKeptByName)
{
    auto object = TVL::createEmptyTVL();
    EXPECT_FALSE(object->getProperty("units").has_value());
    object->setProperty("units", Quillon::Any(2.5f));
    EXPECT_TRUE(object->hasProperty("units"));
    EXPECT_EQ(std::any_cast<float>(object->getProperty("units")), 2.5f);
}

TYPED_TEST(ObjectTest, FreeUpdatesReachTheChannelsInTheObjectOnly)
{
    using C = Channel<TypeParam, float, kTW<TypeParam>, 0, 0>;
    auto object = makeVolume<TypeParam>();
    Object sharing(*object);
    auto extracted =
        object->template extractComponent<Container<TypeParam>>(Command::kDefaultContainerName);
    auto topo =
        object->template extractComponent<VoxelTopology<TypeParam>>(Command::kDefaultTopologyName);
    auto velocity =
        object->template extractComponent<Channel<TypeParam, float3, kTW<TypeParam>, 0, 0>>(
            "velocity");
    std::int64_t const before = extracted->tileCount(-1);
    extracted->tileAccessor().addTile(12345, -777, 4242, TypeParam::kMaxDepth);
    topo->update(*extracted);
    velocity->update(*topo);
    updateTilesAdded(*topo, *object);
    EXPECT_EQ(velocity->tileCount(-1), extracted->tileCount(-1));
    EXPECT_EQ(object->template component<C>("density")->tileCount(-1), extracted->tileCount(-1));
    // The object sharing the channel before the change does not see it.
    EXPECT_EQ(sharing.template component<C>("density")->tileCount(-1), before);

    // And back: remove everything below the root's first children.
    TileIndexLists<TypeParam> toRemove;
    for (std::int64_t i = 0; i < extracted->tileCount(1); ++i)
        toRemove[1].push_back(i);
    TileMoveLists<TypeParam> moved;
    extracted->removeTiles(toRemove, moved, true);
    topo->update(*extracted);
    velocity->updateTilesRemoved(moved, *topo);
    updateTilesRemoved(moved, *topo, *object);
    EXPECT_EQ(object->template component<C>("density")->tileCount(-1), 1);
    EXPECT_EQ(velocity->tileCount(-1), 1);
    object->putComponent(std::move(velocity));
    object->putComponent(std::move(topo));
    object->putComponent(std::move(extracted));
    EXPECT_EQ(object->componentRange().size(), 4u);
}

TYPED_TEST(ObjectTest, TheLayoutBeforeARemovalGivesTheRemovalsOwnPairs)
{
    using Tr = TypeParam;
    for (std::uint32_t seed : {1u, 2u, 3u}) {
        Container<Tr> c("t", 1.0f);
        testtrees::growRandomTree(c, seed, 40, 64, Tr::kMaxDepth - 4, 0.3);
        TileLayout<Tr> const layout = recordTileLayout(c);
        // Every third tile of every depth but 0; their descendants go with them.
        TileIndexLists<Tr> toRemove;
        for (int d = 1; d <= Tr::kMaxDepth; ++d)
            for (std::int64_t t = seed % 3; t < c.tileCount(d); t += 3)
                toRemove[d].push_back(t);
        TileMoveLists<Tr> moved;
        ASSERT_GT(c.removeTiles(toRemove, moved, true), 0);
        TileMoveLists<Tr> const recovered = tileMovesSince(layout, c);
        for (int d = 0; d <= Tr::kMaxDepth; ++d)
            EXPECT_EQ(recovered[d], moved[d]) << "seed " << seed << ", depth " << d;
    }
}

TYPED_TEST(ObjectTest, TheLayoutOfATreeThatGainedTilesGivesPairsOnlyUpToTheFirstNewTile)
{
    using Tr = TypeParam;
    int const d = Tr::kMaxDepth;
    std::int64_t const w = Tr::tileVoxelWidth(d);
    Container<Tr> c("t", 1.0f);
    c.tileAccessor().addTiles(int3{0, 0, 0}, int3{int(4 * w - 1), int(w - 1), int(w - 1)}, d);
    TileLayout<Tr> const layout = recordTileLayout(c);
    TileIndexLists<Tr> toRemove;
    toRemove[d] = {0};
    TileMoveLists<Tr> moved;
    c.removeTiles(toRemove, moved, true);
    c.tileAccessor().addTile(-w, 0, 0, d);
    int const saved = CoreGL::Logger::errorVerboseLevel();
    CoreGL::Logger::setErrorVerboseLevel(0);
    TileMoveLists<Tr> const recovered = tileMovesSince(layout, c);
    CoreGL::Logger::setErrorVerboseLevel(saved);
    EXPECT_EQ(recovered[d], moved[d]);
}
