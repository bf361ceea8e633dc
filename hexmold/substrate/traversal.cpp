/// @file  substrate/traversal.cpp
/// @brief The parallel walks behind `Container::traverse` and `Container::reduce`, compiled once
///        per tree type and constness.
/// @details A walk first lists the tiles it will visit as segments (one per depth: either the
///          whole tile array of the depth or, under a start tile, a sorted list of indices), then
///          runs one parallel construct over all segments when no order is asked for, or one per
///          depth, in the order of the mode, when it is. Each construct runs with its own task
///          group context, isolated from enclosing parallel work, and is followed by the
///          cancellation test.
#include <hexmold/substrate/container.h>

#include <algorithm>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/quillon/job.h>
#include <hexmold/substrate/cancel.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/type_lists.h>
#include <hexmold/substrate/visitor.h>
#include <iostream>
#include <memory>
#include <vector>

namespace TVL::TileTree3D {

namespace {

/// Tiles of one depth to visit: indices [0, count) or, when `indices` is set, those listed.
struct Segment {
    int depth = 0;
    std::int64_t count = 0;
    std::int64_t const* indices = nullptr;
    std::int64_t offset = 0; ///< position of the first tile in the concatenation of segments
    std::int64_t index(std::int64_t n) const { return indices ? indices[n] : n; }
};

/// The tiles of a walk, in depth order from coarse to fine.
template <typename Traits> struct TileSelection {
    std::vector<Segment> segments;
    std::vector<std::int64_t> lists[Traits::kDepthCount]; ///< storage of the listed indices
    std::int64_t total = 0;

    void finish()
    {
        total = 0;
        for (Segment& s : segments) {
            s.offset = total;
            total += s.count;
        }
    }
};

enum class Order { kNone, kCoarseToFine, kFineToCoarse };

Order orderOf(TraversalMode mode)
{
    switch (mode) {
    case kTraversalDepthRange:
    case kTraversalSubtree:
    case kTraversalClampedRange:
    case kTraversalCoarsen:
        return Order::kCoarseToFine;
    case kTraversalChildrenFirst:
        return Order::kFineToCoarse;
    default:
        return Order::kNone;
    }
}

/// Lists the tiles of (mode, start, depth range). An unknown start tile selects nothing.
template <typename C>
void selectTiles(C const& c, TraversalMode mode, TreeIndex const& start, int minDepth, int maxDepth,
                 TileSelection<typename C::Traits>& out)
{
    using Traits = typename C::Traits;
    int lo = std::max(minDepth, 0);
    int hi = std::min(maxDepth, Traits::kMaxDepth);
    if (mode == kTraversalSingleDepth)
        hi = std::min(hi, lo);
    if (lo > hi)
        return;
    if (start == kNoTile) {
        for (int d = lo; d <= hi; ++d)
            if (std::int64_t const n = c.tileCount(d); n > 0)
                out.segments.push_back({d, n, nullptr, 0});
        out.finish();
        return;
    }
    if (!c.contains(start)) {
        if (CoreGL::Logger::errorVerboseLevel() > 0)
            std::cerr << "traverse.error: start tile (index " << start.index << ", depth "
                      << start.depth << ") is not in the tree; nothing visited\n";
        return;
    }
    // Breadth first from the start tile, one depth at a time; sorted lists keep memory order.
    out.lists[start.depth].push_back(start.index);
    for (int d = start.depth; d < hi; ++d) {
        for (std::int64_t t : out.lists[d]) {
            auto const& tile = c.tile(t, d);
            for (int s = 0; s < Traits::kChildCount; ++s)
                if (std::int64_t const ch = tile.childIndex(s); ch >= 0)
                    out.lists[d + 1].push_back(ch);
        }
        std::sort(out.lists[d + 1].begin(), out.lists[d + 1].end());
    }
    for (int d = std::max(lo, start.depth); d <= hi; ++d)
        if (!out.lists[d].empty())
            out.segments.push_back({d, std::int64_t(out.lists[d].size()), out.lists[d].data(), 0});
    out.finish();
}

/// Visits one tile on @p v: beginTile, the voxels (i fastest) when asked, endTile.
template <typename V, typename TileT>
inline void visitTile(V* v, TileT& tile, VisitInteriorVoxelMode voxelMode)
{
    v->beginTile(tile);
    if (voxelMode == kVisitInteriorVoxelAll) {
        constexpr int W = std::remove_const_t<TileT>::kW;
        int3 ijk;
        for (ijk.z = 0; ijk.z < W; ++ijk.z)
            for (ijk.y = 0; ijk.y < W; ++ijk.y)
                for (ijk.x = 0; ijk.x < W; ++ijk.x)
                    if (!v->visitInteriorVoxel(tile, ijk))
                        goto done;
    }
done:
    v->endTile(tile);
}

/// Visits the tiles at positions [begin, end) of the concatenated segments [first, last).
/// Stops early, having cancelled the running task group, when the host cancels the job.
/// @return false when it stopped early.
template <typename C, typename V>
bool visitPositions(C& c, V* v, Segment const* first, Segment const* last, std::int64_t begin,
                    std::int64_t end, VisitInteriorVoxelMode voxelMode)
{
    Segment const* s =
        std::upper_bound(first, last, begin,
                         [](std::int64_t p, Segment const& seg) { return p < seg.offset; }) -
        1;
    for (std::int64_t p = begin; p < end; ++p) {
        while (p >= s->offset + s->count)
            ++s;
        if (Quillon::isJobCancelled()) {
            bodyCancelled();
            return false;
        }
        visitTile(v, c.tile(s->index(p - s->offset), s->depth), voxelMode);
    }
    return true;
}

/// Runs the walk over segment groups in the order of the mode: all segments in one construct
/// when unordered, else one construct per depth. @p run(first, last) runs one construct.
template <typename Run>
void forEachGroup(std::vector<Segment> const& segments, Order order, Run const& run)
{
    if (segments.empty())
        return;
    Segment const* b = segments.data();
    Segment const* e = b + segments.size();
    switch (order) {
    case Order::kNone:
        run(b, e);
        break;
    case Order::kCoarseToFine:
        for (Segment const* s = b; s != e; ++s)
            run(s, s + 1);
        break;
    case Order::kFineToCoarse:
        for (Segment const* s = e; s != b; --s)
            run(s - 1, s);
        break;
    }
}

/// Re-bases a group so that its first position is 0; returns its size.
std::int64_t groupSize(Segment const* first, Segment const* last)
{
    return (last - 1)->offset + (last - 1)->count - first->offset;
}

template <typename C, typename V>
void traverseImpl(C& c, V* visitor, TraversalMode mode, TreeIndex const& start, int minDepth,
                  int maxDepth, std::uint64_t grain, bool parallel,
                  VisitInteriorVoxelMode voxelMode)
{
    TileSelection<typename std::remove_const_t<C>::Traits> sel;
    selectTiles(c, mode, start, minDepth, maxDepth, sel);
    visitor->beginTraverse();
    if (!parallel) {
        // In order, on the caller's visitor.
        forEachGroup(sel.segments, orderOf(mode), [&](Segment const* first, Segment const* last) {
            std::int64_t const base = first->offset;
            visitPositions(c, visitor, first, last, base, base + groupSize(first, last), voxelMode);
            throwIfJobCancelled();
        });
        visitor->endTraverse();
        return;
    }
    // One worker copy per thread, made on first use and kept across the constructs of this walk.
    // Copies are taken from the caller's visitor, which does no tile work meanwhile.
    Parallel::enumerable_thread_specific<std::unique_ptr<V>> workers;
    std::int64_t const g = static_cast<std::int64_t>(std::max<std::uint64_t>(grain, 1));
    forEachGroup(sel.segments, orderOf(mode), [&](Segment const* first, Segment const* last) {
        std::int64_t const base = first->offset;
        std::int64_t const n = groupSize(first, last);
        Parallel::task_group_context context;
        Parallel::isolate([&] {
            Parallel::parallel_for(
                Parallel::blocked_range<std::int64_t>(base, base + n, g),
                [&](Parallel::blocked_range<std::int64_t> const& r) {
                    if (bodyCancelled())
                        return;
                    std::unique_ptr<V>& w = workers.local();
                    if (!w)
                        w.reset(visitor->copy());
                    visitPositions(c, w.get(), first, last, r.begin(), r.end(), voxelMode);
                },
                Parallel::auto_partitioner(), context);
        });
        throwIfJobCancelled();
    });
    visitor->endTraverse();
}

/// parallel_reduce body over visitors: the root body works on the caller's visitor, split bodies
/// on copies of the prototype (the visitor as it was when the walk began).
template <typename C, typename V> struct ReduceBody {
    C* container;
    V const* prototype;
    Segment const* first;
    Segment const* last;
    VisitInteriorVoxelMode voxelMode;
    std::unique_ptr<V> owned;
    V* visitor;

    ReduceBody(C* c, V* v, V const* proto, Segment const* f, Segment const* l,
               VisitInteriorVoxelMode m)
        : container(c), prototype(proto), first(f), last(l), voxelMode(m), visitor(v)
    {
    }
    ReduceBody(ReduceBody& other, Parallel::split)
        : container(other.container), prototype(other.prototype), first(other.first),
          last(other.last), voxelMode(other.voxelMode), owned(other.prototype->copy()),
          visitor(owned.get())
    {
    }
    void operator()(Parallel::blocked_range<std::int64_t> const& r)
    {
        if (bodyCancelled())
            return;
        visitPositions(*container, visitor, first, last, r.begin(), r.end(), voxelMode);
    }
    void join(ReduceBody& right) { visitor->join(*right.visitor); }
};

template <typename C, typename V>
void reduceImpl(C& c, V* visitor, TraversalMode mode, TreeIndex const& start, int minDepth,
                int maxDepth, std::uint64_t grain, VisitInteriorVoxelMode voxelMode)
{
    TileSelection<typename std::remove_const_t<C>::Traits> sel;
    selectTiles(c, mode, start, minDepth, maxDepth, sel);
    visitor->beginTraverse();
    std::unique_ptr<V> prototype;
    if (sel.total > 0)
        prototype.reset(visitor->copy());
    std::int64_t const g = static_cast<std::int64_t>(std::max<std::uint64_t>(grain, 1));
    forEachGroup(sel.segments, orderOf(mode), [&](Segment const* first, Segment const* last) {
        std::int64_t const base = first->offset;
        std::int64_t const n = groupSize(first, last);
        ReduceBody<C, V> body(&c, visitor, prototype.get(), first, last, voxelMode);
        Parallel::task_group_context context;
        Parallel::isolate([&] {
            Parallel::parallel_reduce(Parallel::blocked_range<std::int64_t>(base, base + n, g),
                                      body, Parallel::auto_partitioner(), context);
        });
        throwIfJobCancelled();
    });
    visitor->endTraverse();
}

} // namespace

template <typename TraitsT>
void Container<TraitsT>::traverseInternalNonInlined(Visitor<Container>* visitor, TraversalMode mode,
                                                    TreeIndex const& start, int minDepth,
                                                    int maxDepth, std::uint64_t grain,
                                                    bool parallel, int, int,
                                                    VisitInteriorVoxelMode voxelMode, int) const
{
    traverseImpl(*this, visitor, mode, start, minDepth, maxDepth, grain, parallel, voxelMode);
}

template <typename TraitsT>
void Container<TraitsT>::traverseInternalNonInlined(Visitor<Container>* visitor, TraversalMode mode,
                                                    TreeIndex const& start, int minDepth,
                                                    int maxDepth, std::uint64_t grain,
                                                    bool parallel, int, int,
                                                    VisitInteriorVoxelMode voxelMode, int)
{
    traverseImpl(*this, visitor, mode, start, minDepth, maxDepth, grain, parallel, voxelMode);
}

template <typename TraitsT>
void Container<TraitsT>::reduceInternalNonInlined(Visitor<Container>* visitor, TraversalMode mode,
                                                  TreeIndex const& start, int minDepth,
                                                  int maxDepth, std::uint64_t grain, int, int,
                                                  VisitInteriorVoxelMode voxelMode) const
{
    reduceImpl(*this, visitor, mode, start, minDepth, maxDepth, grain, voxelMode);
}

template <typename TraitsT>
void Container<TraitsT>::reduceInternalNonInlined(Visitor<Container>* visitor, TraversalMode mode,
                                                  TreeIndex const& start, int minDepth,
                                                  int maxDepth, std::uint64_t grain, int, int,
                                                  VisitInteriorVoxelMode voxelMode)
{
    reduceImpl(*this, visitor, mode, start, minDepth, maxDepth, grain, voxelMode);
}

#define HEXMOLD_INSTANTIATE_WALKS(TR)                                                              \
    template void Container<TR>::traverseInternalNonInlined(                                       \
        Visitor<Container<TR>>*, TraversalMode, TreeIndex const&, int, int, std::uint64_t, bool,   \
        int, int, VisitInteriorVoxelMode, int) const;                                              \
    template void Container<TR>::traverseInternalNonInlined(                                       \
        Visitor<Container<TR>>*, TraversalMode, TreeIndex const&, int, int, std::uint64_t, bool,   \
        int, int, VisitInteriorVoxelMode, int);                                                    \
    template void Container<TR>::reduceInternalNonInlined(                                         \
        Visitor<Container<TR>>*, TraversalMode, TreeIndex const&, int, int, std::uint64_t, int,    \
        int, VisitInteriorVoxelMode) const;                                                        \
    template void Container<TR>::reduceInternalNonInlined(                                         \
        Visitor<Container<TR>>*, TraversalMode, TreeIndex const&, int, int, std::uint64_t, int,    \
        int, VisitInteriorVoxelMode);
HEXMOLD_FOR_EACH_TRAITS(HEXMOLD_INSTANTIATE_WALKS)
#undef HEXMOLD_INSTANTIATE_WALKS

} // namespace TVL::TileTree3D
