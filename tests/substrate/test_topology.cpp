// Voxel and point topologies: offsets, spaces, tile counts, and the first values of new tiles.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <hexmold/substrate/channel_update.h>
#include <hexmold/substrate/commands.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/topology.h>

using namespace TVL::TileTree3D;

namespace {

template <typename Tr> class TopologyTest : public ::testing::Test {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(TopologyTest, TraitsTypes, TraitsNames);

} // namespace

TYPED_TEST(TopologyTest, OffsetTypesPlaceTheSample)
{
    VoxelTopology<TypeParam> t("voxels", "tree", 1.0f);
    EXPECT_EQ(t.offsetType(), kVoxelOffsetCenter);
    EXPECT_EQ(t.offset(), (float3{0.5f, 0.5f, 0.5f}));
    t.setOffsetType(kVoxelOffsetCorner);
    EXPECT_EQ(t.offset(), (float3{0, 0, 0}));
    t.setOffsetType(kVoxelOffsetFaceY);
    EXPECT_EQ(t.offset(), (float3{0, 0.5f, 0}));
}

TYPED_TEST(TopologyTest, SamplesOfTheDeepestVoxelsLieOnIntegerTileCoordinates)
{
    float const h = 0.25f;
    VoxelTopology<TypeParam> t("voxels", "tree", h);
    Container<TypeParam> c("tree", h);
    double const C = double(TypeParam::kCentreOffset);
    // Centres of the deepest voxels with (signed) corners 3, -7 and 0: world (corner + 1/2) h.
    double3 const world{3.5 * h, -6.5 * h, 0.5 * h};
    double3 const p = t.toTileSpace(world);
    EXPECT_NEAR(p.x - C, 3.0, 1e-6);
    EXPECT_NEAR(p.y - C, -7.0, 1e-6);
    EXPECT_NEAR(p.z - C, 0.0, 1e-6);
    // The container's transform differs by the offset alone.
    double3 const q = c.toTileSpace(world);
    EXPECT_NEAR(q.x - p.x, 0.5, 1e-6);
    double3 const back = t.toWorldSpace(p);
    EXPECT_NEAR(back.x, world.x, 1e-9);
    EXPECT_NEAR(back.y, world.y, 1e-9);
    float3 const pf = t.toTileSpace(float3{0.0f, 0.0f, 0.0f});
    float3 const wf = t.toWorldSpace(pf);
    // Single precision spaces tile-space values near the centre offset (< 2^30) 64 apart.
    float const kFloatTol = 64.0f * h;
    EXPECT_NEAR(wf.x, 0.0f, kFloatTol);
}

TYPED_TEST(TopologyTest, UpdateRecordsTheContainersTileCounts)
{
    Container<TypeParam> c("tree", 0.5f);
    c.tileAccessor().addTile(0, 0, 0, 3);
    VoxelTopology<TypeParam> t("voxels", "tree", 1.0f);
    t.update(c);
    EXPECT_EQ(t.voxelSize(), 0.5f);
    for (int d = -1; d < TypeParam::kDepthCount; ++d)
        EXPECT_EQ(t.tileCount(d), c.tileCount(d));
    EXPECT_EQ(t.elementCount(-1), std::uint64_t(4 * TypeParam::kTileSize));
    EXPECT_EQ(t.elementCount(TreeIndex{0, 3}), std::uint64_t(TypeParam::kTileSize));
    EXPECT_EQ(t.elementCount(TreeIndex{1, 3}), 0u);
    EXPECT_EQ(t.minDepth(), 0);
    EXPECT_EQ(t.tileCount(99), 0);
    ::testing::internal::CaptureStderr();
    t.setTileCount(-2, 5);
    t.setTileCount(0, -5);
    EXPECT_NE(::testing::internal::GetCapturedStderr().find("setTileCount.error"),
              std::string::npos);
    EXPECT_EQ(t.tileCount(0), 1);
}

TYPED_TEST(TopologyTest, PointTopologyCountsElementsPerTile)
{
    Container<TypeParam> c("tree", 1.0f);
    c.tileAccessor().addTile(0, 0, 0, 1);
    PointTopology<TypeParam> p("tree");
    p.update(c);
    EXPECT_EQ(p.tileCount(-1), 2);
    EXPECT_EQ(p.elementCount(-1), 0u);
    EXPECT_TRUE(p.empty());
    p.setElementCount(TreeIndex{0, 1}, 7);
    EXPECT_EQ(p.elementCount(TreeIndex{0, 1}), 7u);
    EXPECT_EQ(p.size(), 7u);
    ::testing::internal::CaptureStderr();
    p.setElementCount(TreeIndex{5, 1}, 7);
    EXPECT_NE(::testing::internal::GetCapturedStderr().find("setElementCount.error"),
              std::string::npos);
    EXPECT_EQ(p.elementCount(TreeIndex{5, 1}), 0u);
}

TYPED_TEST(TopologyTest, NewTilesTakeTheValueOfTheParentVoxelCoveringThem)
{
    constexpr int TW = TypeParam::kTileWidth;
    using C = Channel<TypeParam, float, TW, 0, 0>;
    auto object = Command::createVoxelTVL<TypeParam>("", "", 1.0f, kVoxelOffsetCenter);
    auto tree = object->template component<Container<TypeParam>>(Command::kDefaultContainerName);
    auto topo = object->template component<VoxelTopology<TypeParam>>(Command::kDefaultTopologyName);
    tree->tileAccessor().addTile(0, 0, 0, 1);
    topo->update(*tree);
    auto a = Command::createChannel<float, TypeParam::kRatio, TW, TW, 0>(
        "a", *topo, *object, -1.0f, kDataElementInitializerDefaultValue, 0, TypeParam::kMaxDepth);
    auto shallow = Command::createChannel<float, TypeParam::kRatio, TW, TW, 0>(
        "shallow", *topo, *object, -2.0f, kDataElementInitializerDefaultValue, 2,
        TypeParam::kMaxDepth);
    PointTopology<TypeParam> points(tree->name());
    points.update(*tree);
    auto pointChannel =
        Quillon::makePtr<C>("p", nullptr, kDataElementInitializerDefaultValue, false, true, 0, 2);
    pointChannel->setTargetName(points.name());
    object->addComponent(pointChannel);
    auto const& parent = tree->tile(0, 1);
    auto pd = a->tileData(parent.treeIndex());
    for (std::size_t n = 0; n < pd.size(); ++n)
        pd[n] = float(n);
    // The values by themselves: the handle goes with the channel the update replaces.
    TileData<float, TW, 0, 0> parentValues(pd.size(), 0.0f);
    std::copy(pd.begin(), pd.end(), parentValues.begin());

    // One child of the depth-1 tile, in its last slot on each axis.
    auto* scratch = tree->threadLocalContainer(0);
    std::int64_t const w2 = Container<TypeParam>::tileVoxelWidth(2);
    int3 const corner{int(parent.ti() + (TypeParam::kSlotsPerAxis - 1) * w2), parent.tj(),
                      int(parent.tk() + w2)};
    scratch->tileAccessor().addTile(corner.x, corner.y, corner.z, 2);
    TileCornerLists<TypeParam> newTiles;
    tree->refine(*scratch, &newTiles, true);
    tree->freeThreadLocalContainer(scratch);
    ASSERT_EQ(newTiles[2].size(), 1u);
    topo->update(*tree);
    updateTilesAdded(*topo, *object);
    initializeTileData(*tree, newTiles, *object);

    // The update copied the channels that were shared (with the pointers held here): read again.
    a = object->template component<C>("a");
    shallow = object->template component<C>("shallow");
    auto const& child = tree->tileAccessor().tile(corner.x, corner.y, corner.z, 2);
    ASSERT_EQ(child.depth(), 2);
    auto cd = a->tileData(child.treeIndex());
    ASSERT_EQ(cd.size(), std::size_t(TypeParam::kTileSize));
    std::int64_t const cw = Container<TypeParam>::voxelDataWidth(2);
    std::int64_t const pw = Container<TypeParam>::voxelDataWidth(1);
    for (int k = 0; k < TW; ++k)
        for (int j = 0; j < TW; ++j)
            for (int i = 0; i < TW; ++i) {
                // Parent voxel under the child voxel's centre, in tile space.
                auto cover = [&](int c, std::int64_t childCorner, std::int64_t parentCorner) {
                    double const centre = double(childCorner) + (c + 0.5) * double(cw);
                    return int(std::floor((centre - double(parentCorner)) / double(pw)));
                };
                int const pi = cover(i, child.ti(), parent.ti());
                int const pj = cover(j, child.tj(), parent.tj());
                int const pk = cover(k, child.tk(), parent.tk());
                EXPECT_EQ(cd(i, j, k), parentValues(pi, pj, pk)) << i << ' ' << j << ' ' << k;
            }
    // The parent lies outside the shallow channel's range: the new tile keeps the default.
    for (float v : shallow->tileData(child.treeIndex()))
        EXPECT_EQ(v, -2.0f);
    // Channels bound to a point topology are not touched.
    EXPECT_EQ(pointChannel->tileCount(-1), 0);
}
