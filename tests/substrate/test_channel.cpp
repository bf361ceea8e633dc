// Channels over a topology: ranges, initialisers, updates after tree changes, point channels.
#include <gtest/gtest.h>

#include <hexmold/platform/quillon/array.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/topology.h>
#include <sstream>
#include <vector>

using namespace TVL::TileTree3D;

namespace {

template <typename Tr> class ChannelTest : public ::testing::Test {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(ChannelTest, TraitsTypes, TraitsNames);

template <typename Tr> constexpr int kTW = Tr::kTileWidth;
template <typename Tr> using FloatChannel = Channel<Tr, float, Tr::kTileWidth, 0, 0>;
template <typename Tr> using HaloChannel = Channel<Tr, float, Tr::kTileWidth, 1, 0>;

/// A voxel topology with @p counts[d] tiles at depth d and no tree behind it.
template <typename Tr> VoxelTopology<Tr> topologyWith(std::vector<std::int64_t> const& counts)
{
    VoxelTopology<Tr> t("topology", "tree", 0.1f);
    for (std::size_t d = 0; d < counts.size(); ++d)
        t.setTileCount(int(d), counts[d]);
    return t;
}

/// A channel of initialiser 2 over [minDepth, depth], bound to and sized from @p topo.
template <typename C, typename Topo>
C makeChannel(Topo const& topo, typename C::ValueType value, int minDepth, int depth)
{
    C c("density", &value, kDataElementInitializerDefaultValue, false, true, minDepth, depth);
    c.setTargetName(topo.name());
    c.update(topo);
    return c;
}

/// Writes into every element of tile (index, depth) a value that names it.
template <typename C> void stamp(C& c, std::int64_t index, int depth)
{
    auto td = c.tileData(index, depth);
    for (std::size_t n = 0; n < td.size(); ++n)
        td[n] = float(1000 * index + 100000 * depth + n);
}
template <typename C>
bool hasStamp(C const& c, std::int64_t index, int depth, std::int64_t stampIndex)
{
    auto td = c.tileData(index, depth);
    if (td.empty())
        return false;
    for (std::size_t n = 0; n < td.size(); ++n)
        if (td[n] != float(1000 * stampIndex + 100000 * depth + n))
            return false;
    return true;
}

} // namespace

TYPED_TEST(ChannelTest, TileDataDeeperThanDepthIsEmpty)
{
    auto topo = topologyWith<TypeParam>({1, 3, 5});
    auto c = makeChannel<FloatChannel<TypeParam>>(topo, 0.0f, 0, 1);
    auto td = c.tileData(TreeIndex{0, 2});
    EXPECT_TRUE(td.empty());
    EXPECT_EQ(td.size(), 0u);
    EXPECT_FALSE(static_cast<bool>(td));
    EXPECT_FALSE(c.tileData(TreeIndex{0, 1}).empty());
    EXPECT_EQ(c.tileCount(2), 0);
    EXPECT_EQ(c.depth(), 1);
}

TYPED_TEST(ChannelTest, TileDataOutsideTheRangeOrTheTilesIsEmpty)
{
    auto topo = topologyWith<TypeParam>({1, 3, 5});
    auto c = makeChannel<FloatChannel<TypeParam>>(topo, 0.0f, 1, 2);
    FloatChannel<TypeParam> const& cc = c;
    EXPECT_TRUE(c.tileData(0, 0).empty()); // shallower than minDepth
    EXPECT_TRUE(c.tileData(-1, 1).empty());
    EXPECT_TRUE(c.tileData(3, 1).empty());
    EXPECT_TRUE(c.tileData(0, -1).empty());
    EXPECT_TRUE(c.tileData(0, 1000).empty());
    EXPECT_TRUE(cc.tileData(kNoTile).empty());
    EXPECT_TRUE(cc.tileData(5, 2).empty());
    EXPECT_FALSE(cc.tileData(4, 2).empty());
    EXPECT_EQ(c.elementCount(TreeIndex{7, 1}), 0u);
}

TYPED_TEST(ChannelTest, HaloOneChannelAnswersItsHaloCorners)
{
    constexpr int W = kTW<TypeParam>;
    auto topo = topologyWith<TypeParam>({2});
    auto c = makeChannel<HaloChannel<TypeParam>>(topo, 1.0f, 0, 0);
    auto td = c.tileData(1, 0);
    ASSERT_EQ(td.size(), std::size_t((W + 2) * (W + 2) * (W + 2)));
    EXPECT_EQ(td(-1, -1, -1), 1.0f);
    EXPECT_EQ(td(W, W, W), 1.0f);
    td(-1, -1, -1) = 2.0f;
    td(W, W, W) = 3.0f;
    EXPECT_EQ(c.tileData(1, 0)[0], 2.0f);
    EXPECT_EQ(c.tileData(1, 0)[td.size() - 1], 3.0f);
}

TYPED_TEST(ChannelTest, NewTileOfInitializerTwoReadsTheDefaultEverywhere)
{
    auto topo = topologyWith<TypeParam>({1, 2});
    auto c = makeChannel<FloatChannel<TypeParam>>(topo, 7.5f, 0, TypeParam::kMaxDepth);
    stamp(c, 0, 1);
    topo.setTileCount(1, 4);
    topo.setTileCount(2, 3);
    c.updateTilesAdded(topo);
    for (auto t : {TreeIndex{2, 1}, TreeIndex{3, 1}, TreeIndex{0, 2}, TreeIndex{2, 2}}) {
        auto td = c.tileData(t);
        ASSERT_EQ(td.size(), std::size_t(TypeParam::kTileSize));
        for (float v : td)
            EXPECT_EQ(v, 7.5f);
    }
    EXPECT_TRUE(hasStamp(c, 0, 1, 0));
}

TYPED_TEST(ChannelTest, InitializerZeroConstructsOnlyWhenAsked)
{
    auto topo = topologyWith<TypeParam>({2});
    float const d = 3.0f;
    FloatChannel<TypeParam> constructed("", &d, kDataElementInitializerTemporary, false, true, 0,
                                        0);
    constructed.update(topo);
    for (float v : constructed.tileData(1, 0))
        EXPECT_EQ(v, 0.0f);
    FloatChannel<TypeParam> raw("", &d, kDataElementInitializerTemporary, false, false, 0, 0);
    raw.update(topo);
    EXPECT_EQ(raw.tileData(1, 0).size(), std::size_t(TypeParam::kTileSize));
    FloatChannel<TypeParam> one("", &d, kDataElementInitializerConstruct, false, false, 0, 0);
    one.update(topo);
    for (float v : one.tileData(0, 0))
        EXPECT_EQ(v, 0.0f);
}

TYPED_TEST(ChannelTest, SurvivingBlocksKeepTheirValuesAfterUpdateTilesRemoved)
{
    auto topo = topologyWith<TypeParam>({1, 6});
    auto c = makeChannel<FloatChannel<TypeParam>>(topo, 0.0f, 0, 1);
    for (int i = 0; i < 6; ++i)
        stamp(c, i, 1);
    float const* block4 = c.tileData(4, 1).data();
    // Tiles 1 and 3 are removed: 2 -> 1, 4 -> 2, 5 -> 3.
    std::vector<TileMoveList> moved(TypeParam::kDepthCount);
    moved[1] = {{2, 1}, {4, 2}, {5, 3}};
    topo.setTileCount(1, 4);
    c.updateTilesRemoved(moved, topo);
    ASSERT_EQ(c.tileCount(1), 4);
    EXPECT_TRUE(hasStamp(c, 0, 1, 0));
    EXPECT_TRUE(hasStamp(c, 1, 1, 2));
    EXPECT_TRUE(hasStamp(c, 2, 1, 4));
    EXPECT_TRUE(hasStamp(c, 3, 1, 5));
    EXPECT_EQ(c.tileData(2, 1).data(), block4); // the block moved, its elements did not
}

TYPED_TEST(ChannelTest, RemovalPairsNamingNoBlockAreIgnoredWithAMessage)
{
    auto topo = topologyWith<TypeParam>({1, 3});
    auto c = makeChannel<FloatChannel<TypeParam>>(topo, 0.0f, 0, 1);
    for (int i = 0; i < 3; ++i)
        stamp(c, i, 1);
    std::vector<TileMoveList> moved(TypeParam::kDepthCount);
    moved[1] = {{-1, 0}, {7, 1}, {2, 99}, {2, 1}};
    topo.setTileCount(1, 2);
    ::testing::internal::CaptureStderr();
    c.updateTilesRemoved(moved, topo);
    std::string const err = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("updateTilesRemoved.error: 3"), std::string::npos) << err;
    ASSERT_EQ(c.tileCount(1), 2);
    EXPECT_TRUE(hasStamp(c, 0, 1, 0));
    EXPECT_TRUE(hasStamp(c, 1, 1, 2));
}

TYPED_TEST(ChannelTest, PermutationReordersBlocksAndABadOneChangesNothing)
{
    auto topo = topologyWith<TypeParam>({1, 4});
    auto c = makeChannel<FloatChannel<TypeParam>>(topo, 0.0f, 0, 1);
    for (int i = 0; i < 4; ++i)
        stamp(c, i, 1);
    std::vector<TilePermutation> perm(TypeParam::kDepthCount);
    perm[0] = {0};
    perm[1] = {2, 0, 3, 1};
    c.updateTilesPermuted(perm);
    EXPECT_TRUE(hasStamp(c, 0, 1, 2));
    EXPECT_TRUE(hasStamp(c, 1, 1, 0));
    EXPECT_TRUE(hasStamp(c, 2, 1, 3));
    EXPECT_TRUE(hasStamp(c, 3, 1, 1));
    perm[1] = {0, 0, 1, 2};
    ::testing::internal::CaptureStderr();
    c.updateTilesPermuted(perm);
    EXPECT_NE(::testing::internal::GetCapturedStderr().find("updateTilesPermuted.error"),
              std::string::npos);
    EXPECT_TRUE(hasStamp(c, 0, 1, 2));
    EXPECT_TRUE(hasStamp(c, 3, 1, 1));
}

TYPED_TEST(ChannelTest, UpdateFollowsTheTopologyBothWays)
{
    auto topo = topologyWith<TypeParam>({1, 5, 2});
    auto c = makeChannel<FloatChannel<TypeParam>>(topo, 1.0f, 0, TypeParam::kMaxDepth);
    EXPECT_EQ(c.tileCount(-1), 8);
    EXPECT_EQ(c.elementCount(-1), 8u * TypeParam::kTileSize);
    EXPECT_EQ(c.size(), 8u * TypeParam::kTileSize);
    EXPECT_EQ(c.elementCount(TreeIndex{1, 1}), std::uint64_t(TypeParam::kTileSize));
    topo.setTileCount(1, 2);
    c.updateTilesAdded(topo); // adds only: nothing dropped
    EXPECT_EQ(c.tileCount(1), 5);
    c.update(topo);
    EXPECT_EQ(c.tileCount(1), 2);
    EXPECT_EQ(c.tileCount(-1), 5);
    EXPECT_FALSE(c.empty());
}

TYPED_TEST(ChannelTest, DepthRangeChangesAllocateAndFree)
{
    auto topo = topologyWith<TypeParam>({1, 2, 4});
    auto c = makeChannel<FloatChannel<TypeParam>>(topo, 2.0f, 1, 1);
    EXPECT_EQ(c.tileCount(-1), 2);
    c.setMinDepth(0, topo);
    c.setDepth(2, topo);
    EXPECT_EQ(c.minDepth(), 0);
    EXPECT_EQ(c.depth(), 2);
    EXPECT_EQ(c.tileCount(-1), 7);
    for (float v : c.tileData(3, 2))
        EXPECT_EQ(v, 2.0f);
    c.setMinDepth(2, topo);
    EXPECT_EQ(c.tileCount(-1), 4);
    EXPECT_TRUE(c.tileData(0, 1).empty());
    c.setDepth(-7, topo); // clamped: an empty range
    EXPECT_EQ(c.tileCount(-1), 0);
    EXPECT_TRUE(c.empty());
}

TYPED_TEST(ChannelTest, CopiesAreIndependent)
{
    auto topo = topologyWith<TypeParam>({1, 2});
    auto c = makeChannel<FloatChannel<TypeParam>>(topo, 0.0f, 0, 1);
    stamp(c, 1, 1);
    FloatChannel<TypeParam> copy(c);
    EXPECT_EQ(copy.name(), "density");
    EXPECT_EQ(copy.targetName(), "topology");
    EXPECT_EQ(copy.dataUseCount(), 1);
    EXPECT_TRUE(hasStamp(copy, 1, 1, 1));
    copy.tileData(1, 1)[0] = -1.0f;
    EXPECT_TRUE(hasStamp(c, 1, 1, 1));

    Quillon::Ptr<TVL::Component> other;
    c.copyTo(other);
    auto* typed = dynamic_cast<FloatChannel<TypeParam>*>(other.get());
    ASSERT_NE(typed, nullptr);
    typed->tileData(1, 1)[0] = -2.0f;
    EXPECT_TRUE(hasStamp(c, 1, 1, 1));
    EXPECT_EQ(typed->tileCount(-1), 3);
}

TYPED_TEST(ChannelTest, ElementTypeQueries)
{
    FloatChannel<TypeParam> c;
    EXPECT_TRUE(c.hasElementType(Quillon::Any(1.0f)));
    EXPECT_FALSE(c.hasElementType(Quillon::Any(1.0)));
    EXPECT_FALSE(c.hasElementType(Quillon::Any()));
    EXPECT_TRUE(c.elementType() == typeid(float));
    ChannelBase const& base = c;
    EXPECT_EQ(base.depth(), TypeParam::kMaxDepth);
    EXPECT_EQ(base.minDepth(), 0);
}

TYPED_TEST(ChannelTest, ChannelDataRoundTrips)
{
    auto topo = topologyWith<TypeParam>({1, 3});
    auto c = makeChannel<FloatChannel<TypeParam>>(topo, 0.0f, 0, 1);
    for (int i = 0; i < 3; ++i)
        stamp(c, i, 1);
    auto data = c.channelData(1, Quillon::Any(0.0f));
    ASSERT_TRUE(data);
    auto const& values = *static_cast<Quillon::Array<float> const*>(data.get());
    EXPECT_EQ(values.size(), 3u * TypeParam::kTileSize);
    EXPECT_FALSE(c.channelData(1, Quillon::Any(0)));    // another element type
    EXPECT_FALSE(c.channelData(5, Quillon::Any(0.0f))); // outside the range
    auto other = makeChannel<FloatChannel<TypeParam>>(topo, 0.0f, 0, 1);
    EXPECT_TRUE(other.setChannelData(1, Quillon::Any(0.0f), data));
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(hasStamp(other, i, 1, i));
    auto shorter = std::make_shared<Quillon::Array<float>>(5, 0.0f);
    EXPECT_FALSE(other.setChannelData(1, Quillon::Any(0.0f), shorter));
    EXPECT_FALSE(other.setChannelData(1, Quillon::Any(0.0f), nullptr));
}

TYPED_TEST(ChannelTest, AllocateEmptyBracketSizesBlocks)
{
    auto topo = topologyWith<TypeParam>({1});
    auto c = makeChannel<FloatChannel<TypeParam>>(topo, 4.0f, 0, 1);
    c.enableAllocateEmptyTileData();
    EXPECT_TRUE(c.allocateEmptyTileData());
    topo.setTileCount(1, 3);
    c.update(topo);
    c.disableAllocateEmptyTileData();
    EXPECT_EQ(c.tileData(2, 1).size(), std::size_t(TypeParam::kTileSize));
    topo.setTileCount(1, 4);
    c.update(topo);
    for (float v : c.tileData(3, 1))
        EXPECT_EQ(v, 4.0f);
}

TYPED_TEST(ChannelTest, SetDefaultValueAppliesToNewBlocks)
{
    auto topo = topologyWith<TypeParam>({1});
    auto c = makeChannel<FloatChannel<TypeParam>>(topo, 1.0f, 0, 0);
    float const two = 2.0f;
    c.setDefaultValue(&two);
    EXPECT_EQ(c.defaultValue(), 2.0f);
    topo.setTileCount(0, 2);
    c.update(topo);
    EXPECT_EQ(c.tileData(0, 0)[0], 1.0f);
    EXPECT_EQ(c.tileData(1, 0)[0], 2.0f);
    c.setDefaultValue(nullptr);
    EXPECT_EQ(c.defaultValue(), 0.0f);
}

TYPED_TEST(ChannelTest, DumpAndMemoryUse)
{
    auto topo = topologyWith<TypeParam>({1, 2});
    auto c = makeChannel<FloatChannel<TypeParam>>(topo, 0.0f, 0, 1);
    std::ostringstream out;
    c.dump(out);
    EXPECT_NE(out.str().find("'density'"), std::string::npos);
    EXPECT_NE(out.str().find("float"), std::string::npos);
    std::size_t used = 0, reserved = 0;
    c.memUse(used, reserved, true);
    EXPECT_GE(used, 3u * TypeParam::kTileSize * sizeof(float));
    EXPECT_GE(reserved, used);
}

TYPED_TEST(ChannelTest, PointChannelBlocksFollowTheElementCounts)
{
    PointTopology<TypeParam> points("tree");
    EXPECT_EQ(points.name(), Const::TileTreePointTopologyName);
    points.setTileCount(0, 1);
    points.setTileCount(1, 3);
    points.setElementCount(TreeIndex{0, 1}, 2);
    points.setElementCount(TreeIndex{2, 1}, 5);
    auto c = makeChannel<Channel<TypeParam, float3, kTW<TypeParam>, 0, 0>>(points, float3{1, 2, 3},
                                                                           0, 1);
    EXPECT_EQ(c.elementCount(TreeIndex{0, 1}), 2u);
    EXPECT_EQ(c.elementCount(TreeIndex{1, 1}), 0u);
    EXPECT_EQ(c.elementCount(TreeIndex{2, 1}), 5u);
    EXPECT_EQ(c.elementCount(TreeIndex{0, 0}), 0u);
    EXPECT_EQ(c.tileData(2, 1)[4], (float3{1, 2, 3}));

    // Element 1 of tile 0 and element 3 of tile 2 go to tile 1.
    auto block0 = c.tileData(0, 1);
    block0[1] = float3{9, 9, 9};
    c.tileData(2, 1)[3] = float3{8, 8, 8};
    std::vector<std::vector<ElementToFrom>> moves(TypeParam::kDepthCount);
    moves[1] = {{1, 0, 0, 1}, {1, 1, 2, 3}, {0, 1, 0, 0}};
    c.updateElements(moves);
    points.setElementCount(TreeIndex{0, 1}, 1);
    points.setElementCount(TreeIndex{1, 1}, 2);
    points.setElementCount(TreeIndex{2, 1}, 3);
    c.updateElementResize(points);
    EXPECT_EQ(c.tileData(1, 1)[0], (float3{9, 9, 9}));
    EXPECT_EQ(c.tileData(1, 1)[1], (float3{8, 8, 8}));
    EXPECT_EQ(c.tileData(0, 1).size(), 1u);
    EXPECT_EQ(c.tileData(2, 1).size(), 3u);

    auto dyn = c.dynamicTileData(TreeIndex{1, 1});
    dyn.resize(4, float3{0, 0, 1});
    EXPECT_EQ(dyn.elementsAddedSize(), 2u);
    EXPECT_EQ(c.elementCount(TreeIndex{1, 1}), 4u);
}

TYPED_TEST(ChannelTest, BadElementMovesAreIgnoredWithAMessage)
{
    PointTopology<TypeParam> points("tree");
    points.setTileCount(0, 2);
    points.setElementCount(TreeIndex{0, 0}, 2);
    auto c = makeChannel<Channel<TypeParam, int, kTW<TypeParam>, 0, 0>>(points, 5, 0, 0);
    std::vector<std::vector<ElementToFrom>> moves(1);
    moves[0] = {{1, 0, 0, 7}, {9, 0, 0, 0}, {1, 0, -1, 0}};
    ::testing::internal::CaptureStderr();
    c.updateElements(moves);
    EXPECT_NE(::testing::internal::GetCapturedStderr().find("updateElements.error: 3"),
              std::string::npos);
    EXPECT_EQ(c.elementCount(TreeIndex{1, 0}), 0u);
}

TYPED_TEST(ChannelTest, PointTopologyFollowsRemovalAndPermutation)
{
    PointTopology<TypeParam> points("tree");
    points.setTileCount(1, 3);
    for (int i = 0; i < 3; ++i)
        points.setElementCount(TreeIndex{i, 1}, std::uint64_t(10 + i));
    VoxelTopology<TypeParam> after = topologyWith<TypeParam>({0, 2});
    std::vector<TileMoveList> moved(TypeParam::kDepthCount);
    moved[1] = {{2, 1}};
    points.updateTilesRemoved(moved, after);
    EXPECT_EQ(points.tileCount(1), 2);
    EXPECT_EQ(points.elementCount(TreeIndex{1, 1}), 12u);
    std::vector<TilePermutation> perm(TypeParam::kDepthCount);
    perm[1] = {1, 0};
    points.updateTilesPermuted(perm);
    EXPECT_EQ(points.elementCount(TreeIndex{0, 1}), 12u);
    EXPECT_EQ(points.elementCount(1), 22u);
}
