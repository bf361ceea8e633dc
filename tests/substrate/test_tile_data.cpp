// Tile data handles: indexing, halos, ownership, dynamic blocks, the block allocator.
#include <gtest/gtest.h>

#include <cstdint>
#include <hexmold/substrate/tile_data.h>

using namespace TVL::TileTree3D;

namespace {

template <int W_, int H_> struct Form {
    static constexpr int W = W_;
    static constexpr int H = H_;
    using TD = TileData<float, W_, H_, 0>;
};
template <typename F> class TileDataHaloTest : public ::testing::Test {
};
using HaloForms = ::testing::Types<Form<4, 1>, Form<5, 1>, Form<4, 2>, Form<5, 2>, Form<8, 1>>;
struct FormNames {
    template <typename F> static std::string GetName(int)
    {
        return "W" + std::to_string(F::W) + "_H" + std::to_string(F::H);
    }
};
TYPED_TEST_SUITE(TileDataHaloTest, HaloForms, FormNames);

/// Number of coordinates of (i, j, k) outside [0, W).
template <int W> int outside(int i, int j, int k)
{
    return (i < 0 || i >= W) + (j < 0 || j >= W) + (k < 0 || k >= W);
}

/// A block whose element n holds n, so every position is recognisable.
template <typename TD> TD numbered()
{
    TD td(TD::kVoxelCount, 0.0f);
    for (std::size_t n = 0; n < td.size(); ++n)
        td[n] = float(n);
    return td;
}

} // namespace

TYPED_TEST(TileDataHaloTest, ElementsAreStoredXFastestWithTheHaloOffset)
{
    using TD = typename TypeParam::TD;
    constexpr int W = TypeParam::W, H = TypeParam::H, E = W + 2 * H;
    TD td = numbered<TD>();
    ASSERT_EQ(td.size(), std::size_t(E * E * E));
    for (int k = -H; k < W + H; ++k)
        for (int j = -H; j < W + H; ++j)
            for (int i = -H; i < W + H; ++i)
                EXPECT_EQ(td(i, j, k), float((i + H) + E * ((j + H) + E * (k + H))));
    EXPECT_EQ(td(int3{1, 2, 0}), td(1, 2, 0));
    EXPECT_EQ(td(std::size_t(7)), td[7]);
}

TYPED_TEST(TileDataHaloTest, HaloCornersAreAddressable)
{
    using TD = typename TypeParam::TD;
    constexpr int W = TypeParam::W;
    TD td = numbered<TD>();
    EXPECT_EQ(td(-1, -1, -1), float(TD::flatIndex(-1, -1, -1)));
    EXPECT_EQ(td(W, W, W), float(TD::flatIndex(W, W, W)));
    td(-1, -1, -1) = -5.0f;
    td(W, W, W) = -6.0f;
    EXPECT_EQ(td(-1, -1, -1), -5.0f);
    EXPECT_EQ(td(W, W, W), -6.0f);
}

TYPED_TEST(TileDataHaloTest, SetHaloLeavesTheInteriorUnchanged)
{
    using TD = typename TypeParam::TD;
    constexpr int W = TypeParam::W, H = TypeParam::H;
    TD td = numbered<TD>();
    td.setHalo(-1.0f);
    for (int k = -H; k < W + H; ++k)
        for (int j = -H; j < W + H; ++j)
            for (int i = -H; i < W + H; ++i) {
                if (outside<W>(i, j, k) == 0)
                    EXPECT_EQ(td(i, j, k), float(TD::flatIndex(i, j, k)));
                else
                    EXPECT_EQ(td(i, j, k), -1.0f);
            }
}

TYPED_TEST(TileDataHaloTest, SetHaloEdgesLeavesTheInteriorAndTheFacesUnchanged)
{
    using TD = typename TypeParam::TD;
    constexpr int W = TypeParam::W, H = TypeParam::H;
    TD td = numbered<TD>();
    td.setHaloEdges(-1.0f);
    int edges = 0;
    for (int k = -H; k < W + H; ++k)
        for (int j = -H; j < W + H; ++j)
            for (int i = -H; i < W + H; ++i) {
                if (outside<W>(i, j, k) < 2) {
                    EXPECT_EQ(td(i, j, k), float(TD::flatIndex(i, j, k)));
                } else {
                    EXPECT_EQ(td(i, j, k), -1.0f);
                    ++edges;
                }
            }
    // 12 edges of length W and 8 corners, each H x H (x H) thick.
    EXPECT_EQ(edges, 12 * W * H * H + 8 * H * H * H);
}

TEST(TileData, DefaultHandleIsEmpty)
{
    TileData<float, 4, 0, 0> td;
    EXPECT_TRUE(td.empty());
    EXPECT_EQ(td.size(), 0u);
    EXPECT_FALSE(static_cast<bool>(td));
    ConstTileData<float, 4, 0, 0> ctd(nullptr);
    EXPECT_TRUE(ctd.empty());
    td.set(3.0f); // no elements: nothing happens
    td.setHalo(1.0f);
}

TEST(TileData, CopiesOfOwningHandlesDoNotShareElements)
{
    TileData<float, 4, 1, 0> a(216, 1.0f);
    TileData<float, 4, 1, 0> b(a);
    TileData<float, 4, 1, 0> c;
    c = a;
    ASSERT_EQ(b.size(), 216u);
    EXPECT_NE(a.data(), b.data());
    EXPECT_NE(a.data(), c.data());
    b(0, 0, 0) = 2.0f;
    c(0, 0, 0) = 3.0f;
    EXPECT_EQ(a(0, 0, 0), 1.0f);
    EXPECT_EQ(b(0, 0, 0), 2.0f);
    EXPECT_EQ(c(0, 0, 0), 3.0f);
    EXPECT_TRUE(b.ownsBlock());
}

TEST(TileData, SizedHandleIsValueInitialised)
{
    TileData<float3, 5, 0, 0> td(125);
    for (std::size_t n = 0; n < td.size(); ++n)
        EXPECT_EQ(td[n], (float3{0, 0, 0}));
}

TEST(TileData, CopiesOfReferringHandlesWriteTheSameBlock)
{
    TileDataBlock<int> block(64, 0);
    TileData<int, 4, 0, 0> a(&block);
    TileData<int, 4, 0, 0> b(a);
    EXPECT_FALSE(a.ownsBlock());
    b(1, 2, 3) = 7;
    EXPECT_EQ(a(1, 2, 3), 7);
    EXPECT_EQ(block[1 + 4 * (2 + 4 * 3)], 7);
    ConstTileData<int, 4, 0, 0> c(&block);
    EXPECT_EQ(c(1, 2, 3), 7);
}

TEST(TileData, SetFillsTheBlock)
{
    TileDataBlock<double> block(64, 0.0);
    TileData<double, 4, 0, 0> td(&block);
    td.set(2.5);
    for (double v : block)
        EXPECT_EQ(v, 2.5);
}

TEST(TileData, SetFromAnotherHandleTakesOverItsBlock)
{
    TileDataBlock<float> channelBlock(64, 0.0f);
    TileData<float, 4, 0, 0> target(&channelBlock);
    TileData<float, 4, 0, 0> scratch(64, 9.0f);
    float const* storage = scratch.data();
    target.set(std::move(scratch));
    EXPECT_EQ(channelBlock.data(), storage); // moved, not copied
    EXPECT_EQ(target.data(), storage);
    EXPECT_EQ(target(3, 3, 3), 9.0f);
    EXPECT_TRUE(scratch.empty());

    TileData<float, 4, 0, 0> none;
    TileData<float, 4, 0, 0> other(64, 4.0f);
    none.set(std::move(other));
    EXPECT_TRUE(none.ownsBlock());
    EXPECT_EQ(none.size(), 64u);
    EXPECT_EQ(none[10], 4.0f);
}

TEST(TileData, MoveLeavesTheSourceEmpty)
{
    TileData<float, 4, 0, 0> a(64, 1.0f);
    float const* p = a.data();
    TileData<float, 4, 0, 0> b(std::move(a));
    EXPECT_EQ(b.data(), p);
    EXPECT_TRUE(a.empty());
}

TEST(DynamicTileData, ResizeReportsTheElementsAdded)
{
    TileDataBlock<float> block(3, 1.0f);
    DynamicTileData<TileData<float, 4, 0, 0>> d(&block);
    EXPECT_EQ(d.elementsAddedSize(), 0u);
    d.resize(5, 2.0f);
    EXPECT_EQ(block.size(), 5u);
    EXPECT_EQ(d.size(), 5u);
    EXPECT_EQ(d.elementsAddedSize(), 2u);
    EXPECT_EQ(d.endElementsAdded() - d.beginElementsAdded(), 2);
    EXPECT_EQ(*d.beginElementsAdded(), 2.0f);
    d.push_back(3.0f);
    EXPECT_EQ(d.elementsAddedSize(), 3u);
    d.clearElementsAdded();
    EXPECT_EQ(d.elementsAddedSize(), 0u);
    d.resize(1, 0.0f);
    EXPECT_EQ(d.elementsAddedSize(), 0u);
    EXPECT_EQ(d[0], 1.0f);

    DynamicTileData<TileData<float, 4, 0, 0>> owned;
    owned.resize(4, 5.0f);
    EXPECT_TRUE(owned.ownsBlock());
    EXPECT_EQ(owned.elementsAddedSize(), 4u);
}

TEST(TileDataAllocator, BlocksAreAlignedAndZeroSizesAreValid)
{
    void* p = allocate_jemalloc(0, 16);
    EXPECT_NE(p, nullptr);
    deallocate_jemalloc(p);
    deallocate_jemalloc(nullptr);
    for (std::size_t align : {16u, 32u, 64u, 128u}) {
        void* q = allocate_jemalloc(100, align);
        ASSERT_NE(q, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(q) % align, 0u);
        deallocate_jemalloc(q);
    }
    TileDataBlock<double3> block(343);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block.data()) % 16, 0u);
}
