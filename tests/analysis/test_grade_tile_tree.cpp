// Grading: on random ungraded trees of both tree types the graded result passes the check and a
// brute-force check by corner lookups, keeps every tile it had and reports exactly the tiles it
// added; the edge cases of the depth bounds, of one-depth jumps and of bad domain boxes; colours.
#include <gtest/gtest.h>

#include "fixtures/trees.h"
#include "support/random_trees.h"
#include <cstdint>
#include <hexmold/analysis/grade_tile_tree.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/quillon/job.h>
#include <hexmold/substrate/parallel.h>
#include <set>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

using namespace TVL::TileTree3D;
using CoreGL::TileTree3D::checkGraded;
using CoreGL::TileTree3D::coarsestDepthFromDimensions;
using CoreGL::TileTree3D::gradeTileTree;
using CoreGL::TileTree3D::TileColor;

namespace {

template <typename Tr> class GradeTileTree : public ::testing::Test {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(GradeTileTree, TraitsTypes, TraitsNames);

using Key = testtrees::TileKey;

using testtrees::tileSet;

/// Grading from its definition: no tile of depth in [lo, hi] sees, one tile step away in any of
/// the 26 directions, a deepest tile (at most its own depth) that is two or more depths coarser
/// and of depth at least @p neighbourMin. Lookups by corner, not by the tree's accessors.
template <typename Tr>
int bruteForceUngraded(Container<Tr> const& c, int lo, int hi, int neighbourMin = 0)
{
    testtrees::TileSet<Tr> tiles(c);
    int offences = 0;
    for (int d = lo; d <= hi; ++d)
        for (std::int64_t t = 0; t < c.tileCount(d); ++t) {
            auto const& tile = c.tile(t, d);
            std::int64_t const w = Tr::tileVoxelWidth(d);
            for (int dz = -1; dz <= 1; ++dz)
                for (int dy = -1; dy <= 1; ++dy)
                    for (int dx = -1; dx <= 1; ++dx) {
                        if (!dx && !dy && !dz)
                            continue;
                        auto const* n = tiles.deepest(tile.ti() + dx * w, tile.tj() + dy * w,
                                                      tile.tk() + dz * w, d);
                        if (n && n->depth() < d - 1 && n->depth() >= neighbourMin)
                            ++offences;
                    }
        }
    return offences;
}

TYPED_TEST(GradeTileTree, RandomTreesBecomeGradedByOnlyAddingTiles)
{
    using Tr = TypeParam;
    for (std::uint32_t seed = 1; seed <= 4; ++seed) {
        Container<Tr> c("tree", 1.0f);
        testtrees::growRandomTree(c, seed, 6, 200, Tr::kMaxDepth - 6, 0.3);
        ASSERT_GT(bruteForceUngraded(c, 2, Tr::kMaxDepth), 0)
            << "the random tree should start ungraded";
        EXPECT_FALSE(checkGraded(c, 0, Tr::kMaxDepth));
        auto const before = tileSet(c);
        TileCornerLists<Tr> added;
        gradeTileTree(c, &added, nullptr, 0, Tr::kMaxDepth);
        auto const after = tileSet(c);
        EXPECT_TRUE(checkGraded(c, 0, Tr::kMaxDepth)) << "seed " << seed;
        EXPECT_EQ(bruteForceUngraded(c, 2, Tr::kMaxDepth), 0) << "seed " << seed;
        for (Key const& k : before)
            EXPECT_EQ(after.count(k), 1u);
        // The reported tiles are exactly the new ones.
        std::set<Key> reported;
        std::size_t count = 0;
        for (int d = 0; d <= Tr::kMaxDepth; ++d)
            for (int3 const& p : added[d]) {
                reported.emplace(d, p.x, p.y, p.z);
                ++count;
            }
        EXPECT_EQ(count, reported.size());
        EXPECT_EQ(reported.size() + before.size(), after.size());
        for (Key const& k : reported)
            EXPECT_EQ(before.count(k), 0u);
    }
}

TYPED_TEST(GradeTileTree, CheckAgreesWithBruteForceOnUngradedTrees)
{
    using Tr = TypeParam;
    for (std::uint32_t seed = 10; seed < 16; ++seed) {
        Container<Tr> c("tree", 1.0f);
        testtrees::growRandomTree(c, seed, 3, 100, Tr::kMaxDepth - 4, 0.5);
        int const saved = CoreGL::Logger::errorVerboseLevel();
        CoreGL::Logger::setErrorVerboseLevel(0);
        bool const graded = checkGraded(c, 0, Tr::kMaxDepth);
        CoreGL::Logger::setErrorVerboseLevel(saved);
        EXPECT_EQ(graded, bruteForceUngraded(c, 0, Tr::kMaxDepth) == 0) << "seed " << seed;
    }
}

TYPED_TEST(GradeTileTree, FinestDepthOfOneOrLessDoesNothing)
{
    using Tr = TypeParam;
    Container<Tr> c("tree", 1.0f);
    testtrees::growRandomTree(c, 21, 5, 150, Tr::kMaxDepth - 3, 0.3);
    auto const before = tileSet(c);
    for (int finest : {1, 0, -3}) {
        gradeTileTree(c, nullptr, nullptr, -1, finest);
        EXPECT_EQ(tileSet(c), before) << "finestDepth " << finest;
    }
    // Depths 0 and 1 are never graded even when asked for everything.
    gradeTileTree(c, nullptr, nullptr, -5, Tr::kMaxDepth);
    EXPECT_EQ(bruteForceUngraded(c, 2, Tr::kMaxDepth), 0);
}

TYPED_TEST(GradeTileTree, CoarsestDepthSixAboveStopsGradingThere)
{
    using Tr = TypeParam;
    int const D = std::is_same_v<Tr, Traits24> ? 20 : Tr::kMaxDepth;
    Container<Tr> c("tree", 1.0f);
    auto acc = c.tileAccessor();
    acc.addTile(0, 0, 0, D); // one deep tile and its ancestors: jumps of many depths around it
    // And a tile above the graded depths, at the low corner of its ancestors down to depth 2,
    // whose neighbour towards -x is a tile of depth 2.
    int const m = D - 7;
    std::int64_t const w2 = Tr::tileVoxelWidth(2);
    std::int64_t const x =
        (Tr::kCentreOffset / w2 + 1) * w2 - Tr::kCentreOffset; // next depth-2 corner above 0
    acc.addTile(x, 0, 0, m);
    gradeTileTree(c, nullptr, nullptr, D - 6, D);
    // Depths D - 5 to D are graded against neighbours of any depth at least D - 6.
    EXPECT_EQ(bruteForceUngraded(c, D - 5, D), 0);
    int const saved = CoreGL::Logger::errorVerboseLevel();
    CoreGL::Logger::setErrorVerboseLevel(0);
    EXPECT_TRUE(checkGraded(c, D - 5, D));
    // Above that the tree stays as it was.
    EXPECT_FALSE(checkGraded(c, 0, D));
    CoreGL::Logger::setErrorVerboseLevel(saved);
    EXPECT_GT(bruteForceUngraded(c, m, m), 0);
}

TYPED_TEST(GradeTileTree, NeighbourOneDepthCoarserAddsNothing)
{
    using Tr = TypeParam;
    int const d = Tr::kMaxDepth - 1;
    // 3 x 3 x 3 tiles of depth d - 1 and one child of depth d under the centre one: every
    // neighbour of the child is exactly one depth coarser.
    Container<Tr> c("tree", 1.0f);
    testtrees::addBlock(c, d - 1, {-1, -1, -1}, {1, 1, 1});
    testtrees::addBlock(c, d, {0, 0, 0}, {0, 0, 0});
    auto const before = tileSet(c);
    TileCornerLists<Tr> added;
    // Only depth d is graded (the block's own rim may face coarser ancestors).
    gradeTileTree(c, &added, nullptr, d - 1, d);
    EXPECT_EQ(tileSet(c), before);
    for (int q = 0; q <= Tr::kMaxDepth; ++q)
        EXPECT_EQ(added[q].size(), 0u) << "depth " << q;
    EXPECT_EQ(bruteForceUngraded(c, d, d), 0);
}

TYPED_TEST(GradeTileTree, BadBoundsGiveMinusOneAndGradingFallsToTheFloorOfTwo)
{
    using Tr = TypeParam;
    float3 const bad[2] = {{1.0f, 0.0f, 0.0f}, {0.0f, 1.0f, 1.0f}};
    int const saved = CoreGL::Logger::verboseLevel();
    CoreGL::Logger::setVerboseLevel(1);
    ::testing::internal::CaptureStdout();
    int const depth = coarsestDepthFromDimensions(bad, 0.5f);
    std::string const printed = ::testing::internal::GetCapturedStdout();
    CoreGL::Logger::setVerboseLevel(saved);
    EXPECT_EQ(depth, -1);
    EXPECT_NE(printed.find("Invalid user-input tile domain dimensions: "), std::string::npos)
        << printed;
    EXPECT_NE(printed.find(" to "), std::string::npos);

    Container<Tr> a("tree", 1.0f), b("tree", 1.0f);
    testtrees::growRandomTree(a, 31, 5, 300, Tr::kMaxDepth - 4, 0.3);
    testtrees::growRandomTree(b, 31, 5, 300, Tr::kMaxDepth - 4, 0.3);
    gradeTileTree(a, nullptr, nullptr, depth, Tr::kMaxDepth);
    gradeTileTree(b, nullptr, nullptr, 1, Tr::kMaxDepth);
    EXPECT_EQ(tileSet(a), tileSet(b));
    EXPECT_EQ(bruteForceUngraded(a, 2, Tr::kMaxDepth), 0);
}

TEST(CoarsestDepthFromDimensions, SmallestExtentInVoxelsSetsTheDepth)
{
    float3 const box1024[2] = {{-512.0f, -600.0f, -700.0f}, {512.0f, 600.0f, 700.0f}};
    EXPECT_EQ(coarsestDepthFromDimensions(box1024, 1.0f), 28 - 10);
    float3 const box1000[2] = {{0.0f, 0.0f, 0.0f}, {100.0f, 200.0f, 300.0f}};
    EXPECT_EQ(coarsestDepthFromDimensions(box1000, 0.1f), 28 - 9); // 1000 voxels: floor(log2) = 9
    // Floors and ceilings: 0.05 to 0.95 voxels spans one voxel.
    float3 const tiny[2] = {{0.05f, 0.05f, 0.05f}, {0.95f, 0.95f, 0.95f}};
    EXPECT_EQ(coarsestDepthFromDimensions(tiny, 1.0f), 28);
    // Never below 0.
    float3 const huge[2] = {{-1e30f, -1e30f, -1e30f}, {1e30f, 1e30f, 1e30f}};
    EXPECT_EQ(coarsestDepthFromDimensions(huge, 1.0f), 0);
}

TYPED_TEST(GradeTileTree, UncolouredTilesGradeNothingAndNewTilesAreColoured)
{
    using Tr = TypeParam;
    Container<Tr> c("tree", 1.0f);
    testtrees::growRandomTree(c, 41, 4, 200, Tr::kMaxDepth - 5, 0.3);
    auto const before = tileSet(c);
    std::vector<std::vector<TileColor>> none(Tr::kDepthCount);
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        none[d].assign(std::size_t(c.tileCount(d)), TileColor{0, 0});
    gradeTileTree(c, nullptr, none.data(), 0, Tr::kMaxDepth);
    EXPECT_EQ(tileSet(c), before);

    // All coloured: the same result as without colours, and every colour vector follows its depth.
    Container<Tr> plain(c);
    gradeTileTree(plain, nullptr, nullptr, 0, Tr::kMaxDepth);
    std::vector<std::vector<TileColor>> all(Tr::kDepthCount);
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        all[d].assign(std::size_t(c.tileCount(d)), TileColor{1, 7});
    gradeTileTree(c, nullptr, all.data(), 0, Tr::kMaxDepth);
    EXPECT_EQ(tileSet(c), tileSet(plain));
    for (int d = 0; d <= Tr::kMaxDepth; ++d) {
        ASSERT_EQ(all[d].size(), std::size_t(c.tileCount(d)));
        for (std::size_t t = 0; t < all[d].size(); ++t)
            EXPECT_EQ(all[d][t].colored, 1);
    }
}

TYPED_TEST(GradeTileTree, OneAndAllThreadsGiveTheSameTreeInTheSameOrder)
{
    using Tr = TypeParam;
    Container<Tr> a("tree", 1.0f);
    testtrees::growRandomTree(a, 51, 8, 300, Tr::kMaxDepth - 6, 0.4);
    Container<Tr> b(a);
    {
        TVL::Parallel::global_control limit(TVL::Parallel::global_control::max_allowed_parallelism,
                                            1);
        gradeTileTree(a, nullptr, nullptr, 0, Tr::kMaxDepth);
    }
    gradeTileTree(b, nullptr, nullptr, 0, Tr::kMaxDepth);
    for (int d = 0; d <= Tr::kMaxDepth; ++d) {
        ASSERT_EQ(a.tileCount(d), b.tileCount(d));
        for (std::int64_t t = 0; t < a.tileCount(d); ++t)
            EXPECT_EQ(a.tile(t, d).tijk(), b.tile(t, d).tijk());
    }
}

TYPED_TEST(GradeTileTree, CancellationThrowsAndLeavesAValidTree)
{
    using Tr = TypeParam;
    Container<Tr> c("tree", 1.0f);
    testtrees::growRandomTree(c, 61, 6, 200, Tr::kMaxDepth - 5, 0.3);
    std::int64_t const before = c.tileCount(-1);
    Quillon::requestJobCancellation();
    EXPECT_THROW(gradeTileTree(c, nullptr, nullptr, 0, Tr::kMaxDepth), std::runtime_error);
    Quillon::clearJobCancellation();
    EXPECT_GE(c.tileCount(-1), before);
    gradeTileTree(c, nullptr, nullptr, 0, Tr::kMaxDepth);
    EXPECT_TRUE(checkGraded(c, 0, Tr::kMaxDepth));
}

} // namespace
