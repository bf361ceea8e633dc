// Compressed halo tables of the tile tree: agreement with accessor lookups, and their lifetime.
#include <gtest/gtest.h>

#include "fixtures/trees.h"
#include <hexmold/substrate/container.h>

using namespace TVL::TileTree3D;

namespace {

template <typename Tr> class HaloTables : public ::testing::Test {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(HaloTables, TraitsTypes, TraitsNames);

template <typename Tr> Container<Tr> makeTree()
{
    Container<Tr> c("tree", 1.0f);
    testtrees::buildGradedSphere(c, std::is_same_v<Tr, Traits24> ? 24.0 : 40.0, Tr::kMaxDepth, 0.5);
    return c;
}

} // namespace

TYPED_TEST(HaloTables, CompressedTableAgreesWithLookups)
{
    using Tr = TypeParam;
    auto c = makeTree<Tr>();
    Container<Tr> const& cc = c;
    c.precomputeCompressedTileHalos();
    ASSERT_TRUE(c.hasCompressedTileHalos());
    auto acc = cc.tileAccessor();
    std::int64_t coarser = 0, missing = 0;
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < c.tileCount(d); ++t) {
            Tile<Tr> const& tile = cc.tile(t, d);
            for (int dir = 0; dir < 27; ++dir) {
                Tile<Tr> const& expected =
                    dir == kNeighborSelf ? tile : acc.tileNeighbor(tile, dir);
                Tile<Tr> const& got = cc.compressedHaloNeighbor(tile, dir);
                ASSERT_EQ(&got, &expected) << "depth " << d << " tile " << t << " dir " << dir;
                coarser += expected.valid() && expected.depth() < d;
                missing += !expected.valid();
            }
        }
    EXPECT_GT(coarser, 0);
    EXPECT_GT(missing, 0);
    // Built on top of the neighbour table, the result is the same.
    c.precomputeTileNeighbors();
    c.precomputeCompressedTileHalos();
    auto acc2 = cc.tileAccessor();
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < c.tileCount(d); t += 7)
            for (int dir = 0; dir < 27; ++dir)
                if (dir != kNeighborSelf)
                    EXPECT_EQ(&cc.compressedHaloNeighbor(cc.tile(t, d), dir),
                              &acc2.tileNeighbor(cc.tile(t, d), dir));
}

TYPED_TEST(HaloTables, TablesAreDroppedByTreeChangesAndByClear)
{
    using Tr = TypeParam;
    auto c = makeTree<Tr>();
    c.precomputeCompressedTileHalos();
    c.clearPrecomputedTileNeighbors();
    EXPECT_FALSE(c.hasCompressedTileHalos());
    c.precomputeCompressedTileHalos();
    auto acc = c.tileAccessor();
    acc.addTile(Tr::tileVoxelWidth(Tr::kMaxDepth) * 1000, 0, 0, Tr::kMaxDepth);
    EXPECT_FALSE(c.hasCompressedTileHalos());
    c.precomputeCompressedTileHalos();
    c.sortIntoMortonOrder();
    EXPECT_FALSE(c.hasCompressedTileHalos());
}

TYPED_TEST(HaloTables, EmptyTreeBuildsAnEmptyTable)
{
    using Tr = TypeParam;
    Container<Tr> c("empty", 1.0f);
    c.precomputeCompressedTileHalos();
    EXPECT_EQ(c.tileCount(-1), 0);
}
