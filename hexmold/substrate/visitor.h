/// @file  substrate/visitor.h
/// @brief `Visitor<Container<Traits>>`, the callback interface of tile traversals, and the
///        lambda forms `Container::traverse`, `reduce`, `traverseVoxels` and `reduceVoxels`.
/// @details The lambda forms are header templates so that the lambdas inline into the small
///          visitor class that wraps them (`detail::MyVisitor`); the walk itself is compiled once
///          per tree type and constness (`Container::traverseInternalNonInlined`,
///          `reduceInternalNonInlined`, in traversal.cpp).
///
///          What a visitor may assume: between `beginTile` and `endTile` of a tile only this
///          worker is in that tile, and all calls for one tile come from one thread on one
///          visitor instance. Tiles are visited on worker copies made with `copy()`, so every
///          piece of per-worker scratch must be a member with value semantics. Under
///          `kTraversalUnordered` nothing is ordered between tiles or depths: a traversal that
///          writes a channel must not read the neighbours' blocks of that same channel.
#pragma once
#include <cstdint>
#include <hexmold/export.h>
#include <hexmold/platform/tavrel/math.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/tile.h>
#include <hexmold/substrate/traversal_mode.h>
#include <hexmold/substrate/tree_index.h>
#include <type_traits>

namespace TVL::TileTree3D {

/// Callbacks of a tile traversal over a `Container<Traits>`. Each operation exists for constant
/// tiles (a traversal of a constant tree) and for mutable tiles (a traversal of a mutable tree);
/// a visitor overrides the half that its traversals use. The declaration order below is the
/// order of the virtual slots, and is kept.
template <typename TraitsT> class HEXMOLD_API Visitor<Container<TraitsT>> {
public:
    using ContainerType = Container<TraitsT>;
    using TileType = Tile<TraitsT>;

    Visitor() = default;
    Visitor(Visitor const&) = default;
    Visitor& operator=(Visitor const&) = default;

    /// Called once on the caller's visitor before any tile.
    virtual void beginTraverse() {}
    /// Called once on the caller's visitor after every tile (not when the walk throws).
    virtual void endTraverse() {}
    virtual void beginTile(TileType const&) {}
    virtual void beginTile(TileType&) {}
    virtual void endTile(TileType const&) {}
    virtual void endTile(TileType&) {}
    /// Called for each voxel (local coordinates, i fastest) between `beginTile` and `endTile`
    /// when the walk visits voxels. Returning false skips the remaining voxels of the tile.
    virtual bool visitInteriorVoxel(TileType const&, int3 const&) { return true; }
    virtual bool visitInteriorVoxel(TileType&, int3 const&) { return true; }
    /// Reductions: merges the visitor of the range that follows this one's range.
    virtual void join(Visitor const&) {}
    /// A new, independent worker copy (owned by the caller of `copy`).
    virtual Visitor* copy() const = 0;
    virtual ~Visitor() = default;

    /// The flag that lambda traversals copy in at each `endTile`; it has no effect on the walk.
    bool tileFlag() const { return mTileFlag; }
    void setTileFlag(bool flag) { mTileFlag = flag; }

private:
    bool mTileFlag = false;
};

/// The voxel lambda of a traversal that does no per-voxel work: passing it makes the walk skip
/// the voxel loop of every tile.
struct NoVoxelVisit {
    template <typename... A> constexpr bool operator()(A const&...) const { return true; }
};

namespace detail {

/// Stands in for the lambdas that a voxel-only traversal does not need.
struct Dummy {
    template <typename... A> constexpr void operator()(A const&...) const {}
};

/// The join of `reduceVoxels` without a join lambda.
struct PlusAssign {
    template <typename T> void operator()(T& left, T const& right) const { left += right; }
};

template <typename L> constexpr VisitInteriorVoxelMode voxelModeOf()
{
    return std::is_same_v<L, NoVoxelVisit> ? kVisitInteriorVoxelNone : kVisitInteriorVoxelAll;
}

/// Calls a voxel lambda; one that returns nothing counts as returning true.
template <typename L, typename... A> inline bool callVoxel(L& l, A&&... args)
{
    if constexpr (std::is_void_v<decltype(l(static_cast<A&&>(args)...))>) {
        l(static_cast<A&&>(args)...);
        return true;
    } else {
        return static_cast<bool>(l(static_cast<A&&>(args)...));
    }
}

/// The visitor of `Container::traverse`: forwards the slots of one constness (`TileRef`) to the
/// stored lambdas; the slots of the other constness stay the base's.
template <typename ContainerT, typename TileRef, typename L1, typename L2, typename L3, typename L4,
          typename L5>
class MyVisitor final : public Visitor<ContainerT> {
    using Base = Visitor<ContainerT>;

public:
    MyVisitor(L1 const& l1, L2 const& l2, L3 const& l3, L4 const& l4, L5 const& l5, bool flag)
        : mBeginTraverse(l1), mEndTraverse(l2), mBeginTile(l3), mEndTile(l4), mVisitVoxel(l5),
          mFlag(flag)
    {
    }
    using Base::beginTile;
    using Base::endTile;
    using Base::visitInteriorVoxel;

    void beginTraverse() override { mBeginTraverse(); }
    void endTraverse() override { mEndTraverse(); }
    void beginTile(TileRef tile) override { mBeginTile(tile); }
    void endTile(TileRef tile) override
    {
        mEndTile(tile);
        this->setTileFlag(mFlag);
    }
    bool visitInteriorVoxel(TileRef tile, int3 const& ijk) override
    {
        return callVoxel(mVisitVoxel, tile, ijk);
    }
    Base* copy() const override { return new MyVisitor(*this); }

private:
    L1 mBeginTraverse;
    L2 mEndTraverse;
    L3 mBeginTile;
    L4 mEndTile;
    L5 mVisitVoxel;
    bool mFlag;
};

/// The visitor of `Container::reduce`: as `MyVisitor`, with an accumulator handed to every lambda
/// and merged by the join lambda.
template <typename ContainerT, typename TileRef, typename T, typename L1, typename L2, typename L3,
          typename L4, typename L5, typename LJ>
class MyReduceVisitor final : public Visitor<ContainerT> {
    using Base = Visitor<ContainerT>;

public:
    MyReduceVisitor(L1 const& l1, L2 const& l2, L3 const& l3, L4 const& l4, L5 const& l5,
                    LJ const& lj, T const& initial)
        : mBeginTraverse(l1), mEndTraverse(l2), mBeginTile(l3), mEndTile(l4), mVisitVoxel(l5),
          mJoin(lj), mValue(initial)
    {
    }
    using Base::beginTile;
    using Base::endTile;
    using Base::visitInteriorVoxel;

    void beginTraverse() override { mBeginTraverse(mValue); }
    void endTraverse() override { mEndTraverse(mValue); }
    void beginTile(TileRef tile) override { mBeginTile(tile, mValue); }
    void endTile(TileRef tile) override { mEndTile(tile, mValue); }
    bool visitInteriorVoxel(TileRef tile, int3 const& ijk) override
    {
        return callVoxel(mVisitVoxel, tile, ijk, mValue);
    }
    void join(Base const& other) override
    {
        mJoin(mValue, static_cast<MyReduceVisitor const&>(other).mValue);
    }
    Base* copy() const override { return new MyReduceVisitor(*this); }

    T const& value() const { return mValue; }

private:
    L1 mBeginTraverse;
    L2 mEndTraverse;
    L3 mBeginTile;
    L4 mEndTile;
    L5 mVisitVoxel;
    LJ mJoin;
    T mValue;
};

} // namespace detail

// ---- Container's traversal templates ---------------------------------------------------------

template <typename TraitsT>
template <typename L1, typename L2, typename L3, typename L4, typename L5>
void Container<TraitsT>::traverse(L1 const& l1, L2 const& l2, L3 const& l3, L4 const& l4,
                                  L5 const& l5, TraversalMode mode, TreeIndex const& start,
                                  int minDepth, int maxDepth, std::uint64_t grain, bool parallel,
                                  int a, int b, bool flag, int c) const
{
    detail::MyVisitor<Container, TileType const&, L1, L2, L3, L4, L5> visitor(l1, l2, l3, l4, l5,
                                                                              flag);
    traverseInternalNonInlined(&visitor, mode, start, minDepth, maxDepth, grain, parallel, a, b,
                               detail::voxelModeOf<L5>(), c);
}

template <typename TraitsT>
template <typename L1, typename L2, typename L3, typename L4, typename L5>
void Container<TraitsT>::traverse(L1 const& l1, L2 const& l2, L3 const& l3, L4 const& l4,
                                  L5 const& l5, TraversalMode mode, TreeIndex const& start,
                                  int minDepth, int maxDepth, std::uint64_t grain, bool parallel,
                                  int a, int b, bool flag, int c)
{
    detail::MyVisitor<Container, TileType&, L1, L2, L3, L4, L5> visitor(l1, l2, l3, l4, l5, flag);
    traverseInternalNonInlined(&visitor, mode, start, minDepth, maxDepth, grain, parallel, a, b,
                               detail::voxelModeOf<L5>(), c);
}

template <typename TraitsT>
template <typename T, typename L1, typename L2, typename L3, typename L4, typename L5, typename LJ>
void Container<TraitsT>::reduce(L1 const& l1, L2 const& l2, L3 const& l3, L4 const& l4,
                                L5 const& l5, LJ const& lj, T& io_value, TraversalMode mode,
                                TreeIndex const& start, int minDepth, int maxDepth,
                                std::uint64_t grain, int a, int b) const
{
    detail::MyReduceVisitor<Container, TileType const&, T, L1, L2, L3, L4, L5, LJ> visitor(
        l1, l2, l3, l4, l5, lj, io_value);
    reduceInternalNonInlined(&visitor, mode, start, minDepth, maxDepth, grain, a, b,
                             detail::voxelModeOf<L5>());
    io_value = visitor.value();
}

template <typename TraitsT>
template <typename T, typename L1, typename L2, typename L3, typename L4, typename L5, typename LJ>
void Container<TraitsT>::reduce(L1 const& l1, L2 const& l2, L3 const& l3, L4 const& l4,
                                L5 const& l5, LJ const& lj, T& io_value, TraversalMode mode,
                                TreeIndex const& start, int minDepth, int maxDepth,
                                std::uint64_t grain, int a, int b)
{
    detail::MyReduceVisitor<Container, TileType&, T, L1, L2, L3, L4, L5, LJ> visitor(
        l1, l2, l3, l4, l5, lj, io_value);
    reduceInternalNonInlined(&visitor, mode, start, minDepth, maxDepth, grain, a, b,
                             detail::voxelModeOf<L5>());
    io_value = visitor.value();
}

template <typename TraitsT>
template <typename L>
void Container<TraitsT>::traverseVoxels(L const& voxel, TraversalMode mode, TreeIndex const& start,
                                        int minDepth, int maxDepth, std::uint64_t grain,
                                        bool parallel, int a, int b, bool flag, int c) const
{
    detail::Dummy const none;
    traverse(none, none, none, none, voxel, mode, start, minDepth, maxDepth, grain, parallel, a, b,
             flag, c);
}

template <typename TraitsT>
template <typename L>
void Container<TraitsT>::traverseVoxels(L const& voxel, TraversalMode mode, TreeIndex const& start,
                                        int minDepth, int maxDepth, std::uint64_t grain,
                                        bool parallel, int a, int b, bool flag, int c)
{
    detail::Dummy const none;
    traverse(none, none, none, none, voxel, mode, start, minDepth, maxDepth, grain, parallel, a, b,
             flag, c);
}

template <typename TraitsT>
template <typename T, typename L, typename LJ>
void Container<TraitsT>::reduceVoxels(L const& voxel, LJ const& join, T& io_value,
                                      TraversalMode mode, TreeIndex const& start, int minDepth,
                                      int maxDepth, std::uint64_t grain, int a, int b) const
{
    detail::Dummy const none;
    reduce(none, none, none, none, voxel, join, io_value, mode, start, minDepth, maxDepth, grain, a,
           b);
}

template <typename TraitsT>
template <typename T, typename L>
void Container<TraitsT>::reduceVoxels(L const& voxel, T& io_value, TraversalMode mode,
                                      TreeIndex const& start, int minDepth, int maxDepth,
                                      std::uint64_t grain, int a, int b) const
{
    reduceVoxels(voxel, detail::PlusAssign{}, io_value, mode, start, minDepth, maxDepth, grain, a,
                 b);
}

} // namespace TVL::TileTree3D
