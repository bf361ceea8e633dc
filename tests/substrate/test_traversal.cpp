// Traversal and reduction over tile trees: tile sets and orders of the modes, visitor copies,
// joins, determinism across thread counts, cancellation and exceptions.
#include <gtest/gtest.h>

#include "fixtures/trees.h"
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <hexmold/platform/quillon/job.h>
#include <hexmold/platform/tavrel/math_support.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/visitor.h>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace TVL::TileTree3D;

namespace {

template <typename Tr> class Traversal : public ::testing::Test {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(Traversal, TraitsTypes, TraitsNames);

auto const noop = [](auto&&...) {};

/// A tree of several depths: graded towards a sphere, a few hundred to a few thousand tiles.
template <typename Tr> Container<Tr> makeTree()
{
    Container<Tr> c("tree", 1.0f);
    int const finest = Tr::kMaxDepth;
    double const r = std::is_same_v<Tr, Traits24> ? 24.0 : 40.0;
    testtrees::buildGradedSphere(c, r, finest, 0.5);
    return c;
}

/// Flat index over all depths of a tile.
template <typename Tr> std::int64_t flat(Container<Tr> const& c, TreeIndex t)
{
    return c.tileIndex(t);
}

/// Per tile, the order in which it was visited (a global counter), filled by a traversal.
template <typename Tr>
std::vector<std::int64_t> visitOrder(Container<Tr> const& c, TraversalMode mode, int lo, int hi,
                                     TreeIndex start = kNoTile)
{
    std::vector<std::atomic<std::int64_t>> seq(static_cast<std::size_t>(c.tileCount(-1)));
    for (auto& s : seq)
        s = -1;
    std::atomic<std::int64_t> counter{0};
    std::atomic<int> repeats{0};
    c.traverse(
        noop, noop,
        [&](Tile<Tr> const& t) {
            std::int64_t const was = seq[flat(c, t.treeIndex())].exchange(counter++);
            if (was >= 0)
                ++repeats;
        },
        noop, NoVoxelVisit{}, mode, start, lo, hi, 1, true, 0, 2, false, 25);
    EXPECT_EQ(repeats.load(), 0) << "a tile was visited twice";
    std::vector<std::int64_t> out(seq.size());
    for (std::size_t n = 0; n < seq.size(); ++n)
        out[n] = seq[n];
    return out;
}

} // namespace

TYPED_TEST(Traversal, EmptyTreeCallsOnlyBeginAndEndTraverse)
{
    using Tr = TypeParam;
    Container<Tr> const c("empty", 1.0f);
    int begins = 0, ends = 0;
    std::atomic<int> tiles{0}, voxels{0};
    c.traverse([&] { ++begins; }, [&] { ++ends; }, [&](Tile<Tr> const&) { ++tiles; },
               [&](Tile<Tr> const&) { ++tiles; },
               [&](Tile<Tr> const&, int3 const&) {
                   ++voxels;
                   return true;
               },
               kTraversalUnordered, kNoTile, 0, Tr::kMaxDepth, 1, true, 0, 2, false, 25);
    EXPECT_EQ(begins, 1);
    EXPECT_EQ(ends, 1);
    EXPECT_EQ(tiles.load(), 0);
    EXPECT_EQ(voxels.load(), 0);
}

TYPED_TEST(Traversal, ReductionWithEmptyRangeReturnsInitialValue)
{
    using Tr = TypeParam;
    auto const c = makeTree<Tr>();
    auto count = [](Tile<Tr> const&, std::int64_t& acc) { ++acc; };
    auto join = [](std::int64_t& l, std::int64_t const& r) { l += r; };
    for (auto [lo, hi] : {std::pair{5, 3}, std::pair{40, 50}, std::pair{-7, -1}}) {
        std::int64_t value = 42;
        c.reduce(noop, noop, count, noop, NoVoxelVisit{}, join, value, kTraversalUnordered, kNoTile,
                 lo, hi, 50, 0, 2);
        EXPECT_EQ(value, 42) << "range " << lo << ".." << hi;
    }
}

TYPED_TEST(Traversal, EveryModeVisitsEveryTileOfTheRangeOnce)
{
    using Tr = TypeParam;
    auto const c = makeTree<Tr>();
    int const lo = 2, hi = Tr::kMaxDepth - 1;
    for (TraversalMode mode :
         {kTraversalDepthRange, kTraversalSubtree, kTraversalClampedRange, kTraversalChildrenFirst,
          kTraversalCoarsen, kTraversalUnordered, kTraversalUnorderedSecond}) {
        auto const seq = visitOrder(c, mode, lo, hi);
        for (int d = 0; d <= Tr::kMaxDepth; ++d)
            for (std::int64_t t = 0; t < c.tileCount(d); ++t) {
                bool const inRange = d >= lo && d <= hi;
                EXPECT_EQ(seq[flat(c, {t, d})] >= 0, inRange) << "mode " << mode << " depth " << d;
            }
    }
}

TYPED_TEST(Traversal, RangesAreClampedToTheTree)
{
    using Tr = TypeParam;
    auto const c = makeTree<Tr>();
    auto const seq = visitOrder(c, kTraversalUnordered, -10, 1000);
    EXPECT_EQ(std::count_if(seq.begin(), seq.end(), [](std::int64_t s) { return s >= 0; }),
              c.tileCount(-1));
}

TYPED_TEST(Traversal, ChildrenFirstVisitsATileAfterItsChildren)
{
    using Tr = TypeParam;
    auto const c = makeTree<Tr>();
    auto const seq = visitOrder(c, kTraversalChildrenFirst, 0, Tr::kMaxDepth);
    int checked = 0;
    for (int d = 0; d < Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < c.tileCount(d); ++t)
            for (int s = 0; s < Tr::kChildCount; ++s)
                if (std::int64_t const ch = c.tile(t, d).childIndex(s); ch >= 0) {
                    EXPECT_GT(seq[flat(c, {t, d})], seq[flat(c, {ch, d + 1})]);
                    ++checked;
                }
    EXPECT_GT(checked, 100);
}

TYPED_TEST(Traversal, OrderedModesVisitParentsBeforeChildren)
{
    using Tr = TypeParam;
    auto const c = makeTree<Tr>();
    for (TraversalMode mode :
         {kTraversalDepthRange, kTraversalSubtree, kTraversalClampedRange, kTraversalCoarsen}) {
        auto const seq = visitOrder(c, mode, 0, Tr::kMaxDepth);
        // Depth after depth: every tile of depth d before every tile of depth d + 1.
        for (int d = 0; d < Tr::kMaxDepth; ++d) {
            std::int64_t latest = -1, earliest = std::numeric_limits<std::int64_t>::max();
            for (std::int64_t t = 0; t < c.tileCount(d); ++t)
                latest = std::max(latest, seq[flat(c, {t, d})]);
            for (std::int64_t t = 0; t < c.tileCount(d + 1); ++t)
                earliest = std::min(earliest, seq[flat(c, {t, d + 1})]);
            if (c.tileCount(d + 1) > 0)
                EXPECT_LT(latest, earliest) << "mode " << mode << " depth " << d;
        }
    }
}

TYPED_TEST(Traversal, SingleDepthModeVisitsOnlyTheMinimumDepth)
{
    using Tr = TypeParam;
    auto const c = makeTree<Tr>();
    int const d = Tr::kMaxDepth - 1;
    for (int hi : {d, Tr::kMaxDepth}) {
        auto const seq = visitOrder(c, kTraversalSingleDepth, d, hi);
        for (int e = 0; e <= Tr::kMaxDepth; ++e)
            for (std::int64_t t = 0; t < c.tileCount(e); ++t)
                EXPECT_EQ(seq[flat(c, {t, e})] >= 0, e == d);
    }
}

TYPED_TEST(Traversal, StartTileRestrictsTheWalkToItsSubtree)
{
    using Tr = TypeParam;
    auto const c = makeTree<Tr>();
    // A tile two depths above the finest that has children.
    int const d = Tr::kMaxDepth - 2;
    std::int64_t pick = -1;
    for (std::int64_t t = 0; t < c.tileCount(d) && pick < 0; ++t)
        if (!c.tile(t, d).isLeaf())
            pick = t;
    ASSERT_GE(pick, 0);
    Tile<Tr> const& root = c.tile(pick, d);
    std::int64_t const w = root.tileVoxelWidth();
    auto const seq = visitOrder(c, kTraversalSubtree, d + 1, Tr::kMaxDepth, root.treeIndex());
    std::int64_t visited = 0;
    for (int e = 0; e <= Tr::kMaxDepth; ++e)
        for (std::int64_t t = 0; t < c.tileCount(e); ++t) {
            Tile<Tr> const& tile = c.tile(t, e);
            bool const inside = e > d && tile.ti() >= root.ti() && tile.ti() < root.ti() + w &&
                                tile.tj() >= root.tj() && tile.tj() < root.tj() + w &&
                                tile.tk() >= root.tk() && tile.tk() < root.tk() + w;
            EXPECT_EQ(seq[flat(c, {t, e})] >= 0, inside);
            visited += inside;
        }
    EXPECT_GT(visited, 0);
    // A start tile that is not in the tree selects nothing.
    auto const none =
        visitOrder(c, kTraversalSubtree, 0, Tr::kMaxDepth, TreeIndex{c.tileCount(d) + 5, d});
    EXPECT_EQ(std::count_if(none.begin(), none.end(), [](std::int64_t s) { return s >= 0; }), 0);
}

TYPED_TEST(Traversal, VoxelModeZeroNeverVisitsVoxels)
{
    using Tr = TypeParam;
    auto const c = makeTree<Tr>();
    struct Counting : Visitor<Container<Tr>> {
        std::atomic<std::int64_t>* voxels;
        std::atomic<std::int64_t>* tiles;
        using Visitor<Container<Tr>>::beginTile;
        using Visitor<Container<Tr>>::visitInteriorVoxel;
        void beginTile(Tile<Tr> const&) override { ++*tiles; }
        bool visitInteriorVoxel(Tile<Tr> const&, int3 const&) override
        {
            ++*voxels;
            return true;
        }
        Visitor<Container<Tr>>* copy() const override { return new Counting(*this); }
    };
    std::atomic<std::int64_t> voxels{0}, tiles{0};
    Counting v;
    v.voxels = &voxels;
    v.tiles = &tiles;
    c.traverseInternalNonInlined(&v, kTraversalUnordered, kNoTile, 0, Tr::kMaxDepth, 1, true, 0, 2,
                                 kVisitInteriorVoxelNone, 25);
    EXPECT_EQ(voxels.load(), 0);
    EXPECT_EQ(tiles.load(), c.tileCount(-1));
    c.reduceInternalNonInlined(&v, kTraversalUnordered, kNoTile, 0, Tr::kMaxDepth, 50, 0, 2,
                               kVisitInteriorVoxelNone);
    EXPECT_EQ(voxels.load(), 0);
    // With mode 1 every voxel of every tile is visited.
    c.traverseInternalNonInlined(&v, kTraversalUnordered, kNoTile, 0, Tr::kMaxDepth, 1, true, 0, 2,
                                 kVisitInteriorVoxelAll, 25);
    EXPECT_EQ(voxels.load(), c.tileCount(-1) * Tr::kTileSize);
}

TYPED_TEST(Traversal, VoxelsAreVisitedWithIFastestBetweenBeginAndEndTile)
{
    using Tr = TypeParam;
    auto const c = makeTree<Tr>();
    constexpr int W = Tr::kTileWidth;
    std::atomic<int> bad{0};
    // A visitor whose state is the voxel counter of the tile in hand.
    struct Ordered : Visitor<Container<Tr>> {
        std::atomic<int>* bad;
        int next = -1;
        using Visitor<Container<Tr>>::beginTile;
        using Visitor<Container<Tr>>::endTile;
        using Visitor<Container<Tr>>::visitInteriorVoxel;
        void beginTile(Tile<Tr> const&) override
        {
            if (next != -1)
                ++*bad;
            next = 0;
        }
        bool visitInteriorVoxel(Tile<Tr> const&, int3 const& v) override
        {
            if (v.x + W * (v.y + W * v.z) != next)
                ++*bad;
            ++next;
            return true;
        }
        void endTile(Tile<Tr> const&) override
        {
            if (next != W * W * W)
                ++*bad;
            next = -1;
        }
        Visitor<Container<Tr>>* copy() const override { return new Ordered(*this); }
    };
    Ordered v;
    v.bad = &bad;
    c.traverseInternalNonInlined(&v, kTraversalUnordered, kNoTile, 0, Tr::kMaxDepth, 1, true, 0, 2,
                                 kVisitInteriorVoxelAll, 25);
    EXPECT_EQ(bad.load(), 0);
}

TYPED_TEST(Traversal, FalseFromVoxelVisitSkipsTheRestOfTheTile)
{
    using Tr = TypeParam;
    auto const c = makeTree<Tr>();
    std::atomic<std::int64_t> voxels{0}, ends{0};
    c.traverse(
        noop, noop, noop, [&](Tile<Tr> const&) { ++ends; },
        [&](Tile<Tr> const&, int3 const& v) {
            ++voxels;
            return v.x < 1; // stops at the second voxel
        },
        kTraversalUnordered, kNoTile, 0, Tr::kMaxDepth, 1, true, 0, 2, false, 25);
    EXPECT_EQ(voxels.load(), 2 * c.tileCount(-1));
    EXPECT_EQ(ends.load(), c.tileCount(-1));
}

TYPED_TEST(Traversal, WorkersRunOnCopiesAndTheCallerGetsBeginAndEnd)
{
    using Tr = TypeParam;
    auto const c = makeTree<Tr>();
    struct Tracking : Visitor<Container<Tr>> {
        std::atomic<int>* copies;
        std::vector<int> scratch = std::vector<int>(8, 0); ///< per-worker value member
        bool original = true;
        int begins = 0, ends = 0;
        std::atomic<int>* sharedScratch;
        using Visitor<Container<Tr>>::beginTile;
        Tracking() = default;
        Tracking(Tracking const& o)
            : Visitor<Container<Tr>>(o), copies(o.copies), scratch(o.scratch), original(false),
              sharedScratch(o.sharedScratch)
        {
            ++*copies;
        }
        void beginTraverse() override { ++begins; }
        void endTraverse() override { ++ends; }
        void beginTile(Tile<Tr> const& t) override
        {
            if (original)
                ++*sharedScratch; // tile work must not reach the caller's visitor
            for (int& s : scratch)
                s = static_cast<int>(t.index());
            for (int s : scratch)
                if (s != static_cast<int>(t.index()))
                    ++*sharedScratch;
        }
        Visitor<Container<Tr>>* copy() const override { return new Tracking(*this); }
    };
    std::atomic<int> copies{0}, badness{0};
    Tracking v;
    v.copies = &copies;
    v.sharedScratch = &badness;
    c.traverseInternalNonInlined(&v, kTraversalUnordered, kNoTile, 0, Tr::kMaxDepth, 1, true, 0, 2,
                                 kVisitInteriorVoxelNone, 25);
    EXPECT_EQ(v.begins, 1);
    EXPECT_EQ(v.ends, 1);
    EXPECT_EQ(badness.load(), 0);
    EXPECT_GE(copies.load(), 1);
    EXPECT_LE(copies.load(), TVL::Parallel::maxConcurrency());
}

TYPED_TEST(Traversal, SerialTraversalVisitsInTileOrderOnTheCallersVisitor)
{
    using Tr = TypeParam;
    auto const c = makeTree<Tr>();
    std::vector<TreeIndex> seen;
    c.traverse(
        noop, noop, [&](Tile<Tr> const& t) { seen.push_back(t.treeIndex()); }, noop, NoVoxelVisit{},
        kTraversalUnordered, kNoTile, 0, Tr::kMaxDepth, 1, false, 0, 2, false, 25);
    ASSERT_EQ(std::int64_t(seen.size()), c.tileCount(-1));
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
}

TYPED_TEST(Traversal, JoinMergesRangesInOrder)
{
    using Tr = TypeParam;
    auto const c = makeTree<Tr>();
    using List = std::vector<TreeIndex>;
    for (TraversalMode mode : {kTraversalUnordered, kTraversalChildrenFirst}) {
        List all;
        c.reduce(
            noop, noop, [](Tile<Tr> const& t, List& acc) { acc.push_back(t.treeIndex()); }, noop,
            NoVoxelVisit{}, [](List& l, List const& r) { l.insert(l.end(), r.begin(), r.end()); },
            all, mode, kNoTile, 0, Tr::kMaxDepth, 1, 0, 2);
        ASSERT_EQ(std::int64_t(all.size()), c.tileCount(-1));
        if (mode == kTraversalUnordered) {
            // One construct over all depths from coarse to fine: range order is tile order.
            EXPECT_TRUE(std::is_sorted(all.begin(), all.end()));
        } else {
            // Depth by depth from fine to coarse, each depth in index order.
            EXPECT_TRUE(
                std::is_sorted(all.begin(), all.end(), [](TreeIndex const& a, TreeIndex const& b) {
                    return a.depth != b.depth ? a.depth > b.depth : a.index < b.index;
                }));
        }
    }
}

TYPED_TEST(Traversal, SumReductionAgreesOnOneAndAllThreads)
{
    using Tr = TypeParam;
    auto const c = makeTree<Tr>();
    // A sum of many values of different magnitudes, so that the order of additions shows.
    auto sum = [&] {
        double total = 0;
        c.reduceVoxels(
            [](Tile<Tr> const& t, int3 const& v, double& acc) {
                acc += std::sin(0.001 * double(t.ti() + v.x)) * double(t.voxelDataWidth()) +
                       1e-3 * v.z;
            },
            total, kTraversalUnordered, kNoTile, 0, Tr::kMaxDepth, 50, 0, 2);
        return total;
    };
    double one, all;
    {
        TVL::Parallel::global_control limit(TVL::Parallel::global_control::max_allowed_parallelism,
                                            1);
        one = sum();
    }
    all = sum();
    EXPECT_NEAR(one, all, 1e-9 * std::max(1.0, std::abs(one)));
    std::int64_t count = 0;
    c.reduceVoxels([](Tile<Tr> const&, int3 const&, std::int64_t& acc) { ++acc; }, count,
                   kTraversalUnordered, kNoTile, 0, Tr::kMaxDepth, 50, 0, 2);
    EXPECT_EQ(count, c.tileCount(-1) * Tr::kTileSize);
}

TYPED_TEST(Traversal, MutableTraversalPassesMutableTilesAndSetsTheTileFlag)
{
    using Tr = TypeParam;
    auto c = makeTree<Tr>();
    std::atomic<std::int64_t> tiles{0};
    c.traverse(
        noop, noop, [&](Tile<Tr>& t) { tiles += t.valid(); }, noop, NoVoxelVisit{},
        kTraversalUnordered, kNoTile, 0, Tr::kMaxDepth, 1, true, 0, 2, true, 25);
    EXPECT_EQ(tiles.load(), c.tileCount(-1));
    // The flag reaches the base at each endTile.
    detail::MyVisitor<Container<Tr>, Tile<Tr> const&, decltype(noop), decltype(noop),
                      decltype(noop), decltype(noop), NoVoxelVisit>
        v(noop, noop, noop, noop, NoVoxelVisit{}, true);
    EXPECT_FALSE(v.tileFlag());
    v.endTile(std::as_const(c).tile(0, 0));
    EXPECT_TRUE(v.tileFlag());
    // The slots of the other constness stay the base's.
    v.beginTile(c.tile(0, 0));
}

TYPED_TEST(Traversal, TraverseVoxelsVisitsEveryVoxel)
{
    using Tr = TypeParam;
    auto const c = makeTree<Tr>();
    std::atomic<std::int64_t> n{0};
    c.traverseVoxels([&](Tile<Tr> const&, int3 const&) { ++n; }, kTraversalUnordered, kNoTile, 0,
                     Tr::kMaxDepth, 1, true, 0, 2, false, 25);
    EXPECT_EQ(n.load(), c.tileCount(-1) * Tr::kTileSize);
}

TYPED_TEST(Traversal, NestedTraversalsComplete)
{
    using Tr = TypeParam;
    auto const c = makeTree<Tr>();
    std::atomic<std::int64_t> inner{0};
    int const d = Tr::kMaxDepth - 1;
    c.traverse(
        noop, noop,
        [&](Tile<Tr> const& t) {
            c.traverse(
                noop, noop, [&](Tile<Tr> const&) { ++inner; }, noop, NoVoxelVisit{},
                kTraversalSubtree, t.treeIndex(), d + 1, d + 1, 1, true, 0, 2, false, 25);
        },
        noop, NoVoxelVisit{}, kTraversalSingleDepth, kNoTile, d, d, 1, true, 0, 2, false, 25);
    EXPECT_EQ(inner.load(), c.tileCount(d + 1));
}

TYPED_TEST(Traversal, ExceptionFromAVisitorLeavesTheTraversal)
{
    using Tr = TypeParam;
    auto const c = makeTree<Tr>();
    EXPECT_THROW(c.traverse(
                     noop, noop,
                     [&](Tile<Tr> const& t) {
                         if (t.depth() == Tr::kMaxDepth)
                             throw std::logic_error("visitor failed");
                     },
                     noop, NoVoxelVisit{}, kTraversalUnordered, kNoTile, 0, Tr::kMaxDepth, 1, true,
                     0, 2, false, 25),
                 std::logic_error);
}

TYPED_TEST(Traversal, CancellationStopsWorkersAndThrows)
{
    using Tr = TypeParam;
    auto const c = makeTree<Tr>();
    std::int64_t const total = c.tileCount(-1);
    ASSERT_GT(total, 200);
    for (bool reduction : {false, true}) {
        Quillon::clearJobCancellation();
        std::atomic<std::int64_t> visited{0};
        auto slowTile = [&](Tile<Tr> const&) {
            if (++visited == 20)
                Quillon::requestJobCancellation();
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        };
        bool ended = false;
        auto const t0 = std::chrono::steady_clock::now();
        try {
            if (reduction) {
                int value = 0;
                c.reduce(
                    noop, [&](int&) { ended = true; },
                    [&](Tile<Tr> const& t, int&) { slowTile(t); }, noop, NoVoxelVisit{},
                    [](int&, int const&) {}, value, kTraversalUnordered, kNoTile, 0, Tr::kMaxDepth,
                    1, 0, 2);
            } else {
                c.traverse(
                    noop, [&] { ended = true; }, slowTile, noop, NoVoxelVisit{},
                    kTraversalUnordered, kNoTile, 0, Tr::kMaxDepth, 1, true, 0, 2, false, 25);
            }
            ADD_FAILURE() << "no exception";
        } catch (std::runtime_error const& e) {
            EXPECT_EQ(std::string(e.what()), TVL::exceptionMessage);
        }
        double const seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        Quillon::clearJobCancellation();
        EXPECT_FALSE(ended);
        EXPECT_LT(visited.load(), total / 2) << "workers did not stop early";
        EXPECT_LT(seconds, 1.0);
    }
}

TYPED_TEST(Traversal, CancellationOfASerialTraversalThrows)
{
    using Tr = TypeParam;
    auto const c = makeTree<Tr>();
    Quillon::clearJobCancellation();
    std::int64_t visited = 0;
    EXPECT_THROW(c.traverse(
                     noop, noop,
                     [&](Tile<Tr> const&) {
                         if (++visited == 5)
                             Quillon::requestJobCancellation();
                     },
                     noop, NoVoxelVisit{}, kTraversalUnordered, kNoTile, 0, Tr::kMaxDepth, 1, false,
                     0, 2, false, 25),
                 std::runtime_error);
    Quillon::clearJobCancellation();
    EXPECT_EQ(visited, 5);
}
