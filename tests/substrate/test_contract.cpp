// The substrate's precondition checks: a wrong index into tile data, a tile store or a tree's
// depth stops the program with the condition named (in builds where the checks are on: without
// NDEBUG, as the sanitizer build, or with HEXMOLD_CONTRACTS).
#include <gtest/gtest.h>

#include <cstdint>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/contract.h>
#include <hexmold/substrate/tile_data.h>
#include <hexmold/substrate/tile_store.h>

using namespace TVL::TileTree3D;

namespace {

bool contractsOn()
{
    return HEXMOLD_CONTRACTS_ON != 0;
}

} // namespace

TEST(Contract, InRangeAccessPasses)
{
    TileData<float, 4, 1, 0> td(TileData<float, 4, 1, 0>::kVoxelCount, 1.0f);
    EXPECT_EQ(td(-1, -1, -1), 1.0f);
    EXPECT_EQ(td(4, 4, 4), 1.0f);
    EXPECT_EQ(td[td.size() - 1], 1.0f);
    TVL::TileTree3D::detail::TileStore<int> store;
    store.push_back(7);
    EXPECT_EQ(store[0], 7);
}

TEST(ContractDeathTest, TileDataOutsideItsBlockStops)
{
    if (!contractsOn())
        GTEST_SKIP() << "precondition checks are off in this build (NDEBUG)";
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    TileData<float, 4, 1, 0> td(TileData<float, 4, 1, 0>::kVoxelCount, 1.0f);
    EXPECT_DEATH((void)td(5, 0, 0), "precondition failed");
    EXPECT_DEATH((void)td(0, -2, 0), "precondition failed");
    EXPECT_DEATH((void)td[td.size()], "precondition failed");
    TileData<float, 4, 1, 0> empty;
    EXPECT_DEATH((void)empty[0], "precondition failed");
}

TEST(ContractDeathTest, TileStorePastItsSizeStops)
{
    if (!contractsOn())
        GTEST_SKIP() << "precondition checks are off in this build (NDEBUG)";
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    TVL::TileTree3D::detail::TileStore<int> store;
    store.push_back(1);
    EXPECT_DEATH((void)store[1], "precondition failed");
    EXPECT_DEATH((void)store[-1], "precondition failed");
}

TEST(ContractDeathTest, TreeDepthOutsideTheTreeStops)
{
    if (!contractsOn())
        GTEST_SKIP() << "precondition checks are off in this build (NDEBUG)";
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Container<Traits24> tree("tree", 1.0f);
    tree.tileAccessor().addTile(0, 0, 0, 2);
    EXPECT_EQ(tree.tile(0, 0).depth(), 0);
    EXPECT_DEATH((void)tree.tile(0, Traits24::kMaxDepth + 1), "precondition failed");
    EXPECT_DEATH((void)tree.tile(5, 0), "precondition failed");
}
