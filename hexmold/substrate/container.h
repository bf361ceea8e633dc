/// @file  substrate/container.h
/// @brief `Container<Traits>`: the topology of a sparse adaptive tile tree, and the accessors
///        that find tiles in it.
/// @details The tree holds only which tiles exist, where and at which depth, and the parent and
///          child links; values live in channels. Tiles of a depth are numbered densely from 0,
///          so per-tile side arrays are indexed by `Tile::index()`. Every tile of the tree lies
///          inside the domain of the single depth-0 tile, whose corner is minus the centre offset
///          on each axis; that tile is the tree's root whenever the tree is not empty.
///
///          Growing the tree from parallel code: take `threadLocalContainer(0)`, let every worker
///          call `addTile` on it through its own `TileAccessor` (safe concurrently), then merge on
///          one thread with `refine(scratch, &newTiles, true)`.
///
///          Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
#pragma once
#include <atomic>
#include <cstdint>
#include <hexmold/export.h>
#include <hexmold/platform/quillon/array.h>
#include <hexmold/platform/quillon/string.h>
#include <hexmold/platform/tavrel/math.h>
#include <hexmold/substrate/bbox.h>
#include <hexmold/substrate/component.h>
#include <hexmold/substrate/contract.h>
#include <hexmold/substrate/tile.h>
#include <hexmold/substrate/tile_store.h>
#include <hexmold/substrate/traversal_mode.h>
#include <iosfwd>
#include <map>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

namespace TVL::TileTree3D {

using Tavrel::Math::double3;
using Tavrel::Math::float3;

template <typename Traits> class Visitor;

/// Per-depth list of tile corners, e.g. the tiles created by `refine`.
template <typename Traits>
using TileCornerLists = Dense1D::FixedArray<Quillon::Array<int3>, Traits::kDepthCount>;
/// Per-depth list of tile indices, e.g. the tiles to remove, or a permutation.
template <typename Traits>
using TileIndexLists = Dense1D::FixedArray<std::vector<std::int64_t>, Traits::kDepthCount>;
/// Per-depth (from, to) pairs describing how tiles moved in their depth's array.
template <typename Traits>
using TileMoveLists =
    Dense1D::FixedArray<std::vector<std::pair<std::int64_t, std::int64_t>>, Traits::kDepthCount>;

template <typename TraitsT> class HEXMOLD_API Container : public Component {
public:
    using Traits = TraitsT;
    using TileType = Tile<Traits>;
    static constexpr int kDepthCount = Traits::kDepthCount;
    static constexpr int kMaxDepth = Traits::kMaxDepth;
    static constexpr std::int64_t kCentreOffset = Traits::kCentreOffset;

    class ConstTileAccessor;
    class TileAccessor;

    Container();
    Container(Quillon::String name, float voxelSize);
    /// Deep copy of the topology (not of scratch trees or precomputed tables).
    Container(Container const& other);
    Container& operator=(Container const& other);
    ~Container() override;

    // ---- configuration and widths ------------------------------------------------------------

    /// World size of a voxel at the deepest depth.
    float voxelSize() const { return mVoxelSize; }
    void setVoxelSize(float s) { mVoxelSize = s; }
    static constexpr int maxDepth() { return kMaxDepth; }
    float maxRelativeRefinementError() const { return mMaxRelativeRefinementError; }
    void setMaxRelativeRefinementError(float e) { mMaxRelativeRefinementError = e; }

    /// Elements across a tile (voxels times data elements per voxel).
    static constexpr int tileWidth(int = 0) { return Traits::kTileWidth * Traits::kElementWidth; }
    static constexpr int tileDataWidth(int = 0)
    {
        return Traits::kTileWidth * Traits::kElementWidth;
    }
    /// Element count of a tile.
    static constexpr int tileSize(int = 0) { return tileWidth() * tileWidth() * tileWidth(); }
    static constexpr int tileDataSize(int = 0) { return tileSize(); }
    /// Tile width at @p depth in tile-space units.
    static std::int64_t tileVoxelWidth(int depth) { return WidthTable<Traits>::kTile[depth]; }
    /// Voxel width at @p depth in tile-space units (1 at the deepest depth).
    static std::int64_t voxelWidth(int depth) { return WidthTable<Traits>::kVoxel[depth]; }
    static std::int64_t voxelDataWidth(int depth) { return WidthTable<Traits>::kVoxel[depth]; }
    /// Voxels at @p depth; -1: over all depths.
    std::uint64_t voxelDataCount(int depth) const;

    // ---- tiles -------------------------------------------------------------------------------

    /// Tiles at @p depth; -1: all depths. Out-of-range depths have none.
    std::int64_t tileCount(int depth) const override;
    TileType const& tile(TreeIndex const& t) const { return tile(t.index, t.depth); }
    TileType& tile(TreeIndex const& t) { return tile(t.index, t.depth); }
    TileType const& tile(std::int64_t index, int depth) const
    {
        HEXMOLD_EXPECTS(depth >= 0 && depth < kDepthCount);
        return mTiles[depth][index];
    }
    TileType& tile(std::int64_t index, int depth)
    {
        HEXMOLD_EXPECTS(depth >= 0 && depth < kDepthCount);
        return mTiles[depth][index];
    }
    /// Flat index over all depths (depth-major) of a tile, and its inverse; -1 / the sentinel for
    /// out-of-range input.
    std::int64_t tileIndex(TreeIndex const& t) const;
    TileType const& tile(std::int64_t flatIndex) const;
    /// Whether @p t names an existing tile.
    bool contains(TreeIndex const& t) const
    {
        return t.depth >= 0 && t.depth < kDepthCount && t.index >= 0 &&
               t.index < tileCount(t.depth);
    }
    /// The tile returned by lookups that find nothing: invalid, with a depth no tile has.
    static TileType const& sentinel();
    static constexpr int kSentinelDepth = -1;

    /// Roots (tiles without a parent), ordered by corner.
    using RootMap = std::map<VoxelCoord, TreeIndex>;
    typename RootMap::const_iterator cbeginRoots() const { return mRoots.cbegin(); }
    typename RootMap::const_iterator cendRoots() const { return mRoots.cend(); }
    std::size_t rootCount() const { return mRoots.size(); }

    ConstTileAccessor tileAccessor() const;
    TileAccessor tileAccessor();

    // ---- spaces and bounds -------------------------------------------------------------------

    /// World position to tile-space position (non-negative: the centre offset is added).
    /// Single precision keeps only about 24 bits: use the double form for sub-voxel work.
    float3 toTileSpace(float3 const& world) const;
    float3 toWorldSpace(float3 const& tileSpace) const;
    double3 toTileSpace(double3 const& world) const;
    double3 toWorldSpace(double3 const& tileSpace) const;
    /// Integer corner coordinates of the tile at @p depth containing the tile-space position.
    static int3 tileCorner(double3 const& tileSpace, int depth);

    /// Union of the boxes of the leaf tiles (tiles without children); empty for an empty tree.
    void tileSpaceBounds(bbox<int3, int>& out) const;
    /// The same in world units.
    void worldSpaceBounds(bbox<double3, double>& out) const;
    /// Union of the world boxes of the tiles at @p depth.
    void worldSpaceBounds(int depth, bbox<float3, float>& out) const;

    // ---- changing the tree (single caller) -------------------------------------------------

    /// Merges every tile of @p other that this tree lacks, with the ancestors it needs. Appends
    /// the corner of each created tile to (*newTiles)[depth] when @p newTiles is not null. Drops
    /// precomputed tables. @p consistent is accepted for interface compatibility (always true).
    void refine(Container const& other, TileCornerLists<Traits>* newTiles, bool consistent = true);

    /// Removes the tiles listed per depth, and with them all their descendants. Survivors keep
    /// their order and are compacted; @p moved receives per depth the (from, to) pairs of every
    /// survivor whose index changed, in increasing order, so that applying `a[to] = a[from]` in
    /// order and truncating to `tileCount` compacts any per-tile array the same way. Invalid
    /// indices are ignored with an error message. @return number of tiles removed.
    std::int64_t removeTiles(TileIndexLists<Traits> const& toRemove, TileMoveLists<Traits>& moved,
                             bool consistent = true);

    /// Permutes each depth's tile array into Morton order of the corners. @return per depth the
    /// permutation: entry n is the old index of the tile now at n (for `updateTilesPermuted`).
    TileIndexLists<Traits> sortIntoMortonOrder();

    /// Removes every tile.
    void clear();

    // ---- scratch trees -----------------------------------------------------------------------

    /// A fresh, empty scratch tree of the same configuration, owned by this tree until
    /// `freeThreadLocalContainer` or `clearThreadLocalData`. @p ordinal only labels it.
    Container* threadLocalContainer(int ordinal);
    void freeThreadLocalContainer(Container* scratch);
    /// Frees all scratch trees and clears @p newTiles.
    void clearThreadLocalData(TileCornerLists<Traits>& newTiles);

    // ---- acceleration ------------------------------------------------------------------------

    /// Builds a hash of the tiles of @p depth (-1: all depths) that accessor lookups then use.
    void buildAccessorAccelerationStructure(int depth);
    bool hasAccessorAccelerationStructure(int depth) const;
    void clearAccessorAccelerationStructure() { mHash.clear(); }
    /// Tabulates, for every tile, the result of `tileNeighbor` in each of the 27 directions.
    void precomputeTileNeighbors();
    void clearPrecomputedTileNeighbors();
    bool hasPrecomputedTileNeighbors() const { return !mNeighbors.empty(); }
    /// Tabulates, for every tile and each of the 27 directions, the tile that a halo walk reads
    /// there: the same-depth neighbour, or where none exists the closest coarser tile holding
    /// that place, or nothing beyond the tree. Stored compactly (an index and a depth step per
    /// entry); the tables of `precomputeTileNeighbors` are used when present. Dropped by every
    /// change of the tree, and by `clearPrecomputedTileNeighbors`.
    void precomputeCompressedTileHalos();
    bool hasCompressedTileHalos() const { return !mHaloIndex.empty(); }
    /// The tile that the compressed halo table holds for @p t in direction @p dir (the sentinel
    /// beyond the tree). Requires `hasCompressedTileHalos()`; @p t must be a tile of this tree.
    TileType const& compressedHaloNeighbor(TileType const& t, int dir) const
    {
        std::size_t const e =
            static_cast<std::size_t>(t.index()) * 27 + static_cast<std::size_t>(dir);
        std::int8_t const up = mHaloDepthStep[t.depth()][e];
        return up < 0 ? sentinel() : mTiles[t.depth() - up][mHaloIndex[t.depth()][e]];
    }

    // ---- traversal and reduction (bodies in substrate/visitor.h) -----------------------------

    /// Parallel walk over tiles with a visitor made from lambdas: @p beginTraverse() and
    /// @p endTraverse() once, @p beginTile(tile), @p visitInteriorVoxel(tile, ijk) per voxel
    /// (i fastest; skipped entirely when it is a `NoVoxelVisit`) and @p endTile(tile) per tile.
    /// On a constant tree the tiles are `Tile const&`, on a mutable one `Tile&`. The lambdas are
    /// copied into each worker's visitor, so value captures are per-worker scratch.
    /// @param mode       `TraversalMode`: which tiles, in which order
    /// @param start      a tile whose subtree is walked, or `kNoTile` for the whole tree
    /// @param minDepth, maxDepth  inclusive depth range, clamped to [0, maxDepth()]
    /// @param grain      tiles below which a range is not split (1 in ordinary use)
    /// @param parallel   false runs on the calling thread, in order
    /// @param a, b, c    passed through; they do not change the result
    /// @param flag       copied into the visitor's tile flag at each `endTile`
    /// @throws std::runtime_error(TVL::exceptionMessage) when the host cancels the job, and any
    ///         exception a lambda throws.
    template <typename L1, typename L2, typename L3, typename L4, typename L5>
    void traverse(L1 const& beginTraverse, L2 const& endTraverse, L3 const& beginTile,
                  L4 const& endTile, L5 const& visitInteriorVoxel, TraversalMode mode,
                  TreeIndex const& start, int minDepth, int maxDepth, std::uint64_t grain,
                  bool parallel, int a, int b, bool flag, int c) const;
    template <typename L1, typename L2, typename L3, typename L4, typename L5>
    void traverse(L1 const& beginTraverse, L2 const& endTraverse, L3 const& beginTile,
                  L4 const& endTile, L5 const& visitInteriorVoxel, TraversalMode mode,
                  TreeIndex const& start, int minDepth, int maxDepth, std::uint64_t grain,
                  bool parallel, int a, int b, bool flag, int c);

    /// Parallel reduction over tiles with a visitor made from lambdas. Each lambda receives the
    /// worker's accumulator as its last argument: @p beginTraverse(acc), @p endTraverse(acc),
    /// @p beginTile(tile, acc), @p visitInteriorVoxel(tile, ijk, acc), @p endTile(tile, acc);
    /// @p join(left, right) merges the accumulator of the following range into the left one.
    /// @param io_value   in: the identity of @p join (0 for a sum), from which every worker's
    ///                   accumulator starts; out: the total. Unchanged when no tile is visited.
    /// Other parameters as for `traverse`; reductions always run in parallel.
    template <typename T, typename L1, typename L2, typename L3, typename L4, typename L5,
              typename LJ>
    void reduce(L1 const& beginTraverse, L2 const& endTraverse, L3 const& beginTile,
                L4 const& endTile, L5 const& visitInteriorVoxel, LJ const& join, T& io_value,
                TraversalMode mode, TreeIndex const& start, int minDepth, int maxDepth,
                std::uint64_t grain, int a, int b) const;
    template <typename T, typename L1, typename L2, typename L3, typename L4, typename L5,
              typename LJ>
    void reduce(L1 const& beginTraverse, L2 const& endTraverse, L3 const& beginTile,
                L4 const& endTile, L5 const& visitInteriorVoxel, LJ const& join, T& io_value,
                TraversalMode mode, TreeIndex const& start, int minDepth, int maxDepth,
                std::uint64_t grain, int a, int b);

    /// `traverse` with only a voxel lambda, @p visitInteriorVoxel(tile, ijk).
    template <typename L>
    void traverseVoxels(L const& visitInteriorVoxel, TraversalMode mode, TreeIndex const& start,
                        int minDepth, int maxDepth, std::uint64_t grain, bool parallel, int a,
                        int b, bool flag, int c) const;
    template <typename L>
    void traverseVoxels(L const& visitInteriorVoxel, TraversalMode mode, TreeIndex const& start,
                        int minDepth, int maxDepth, std::uint64_t grain, bool parallel, int a,
                        int b, bool flag, int c);

    /// `reduce` with only a voxel lambda, @p visitInteriorVoxel(tile, ijk, acc), joined by
    /// @p join(left, right), or by `left += right` in the form without @p join.
    template <typename T, typename L, typename LJ>
    void reduceVoxels(L const& visitInteriorVoxel, LJ const& join, T& io_value, TraversalMode mode,
                      TreeIndex const& start, int minDepth, int maxDepth, std::uint64_t grain,
                      int a, int b) const;
    template <typename T, typename L>
    void reduceVoxels(L const& visitInteriorVoxel, T& io_value, TraversalMode mode,
                      TreeIndex const& start, int minDepth, int maxDepth, std::uint64_t grain,
                      int a, int b) const;

    /// The walk behind `traverse`, one compiled instance per tree type and constness; derived
    /// visitors call it directly. The visitor gets `beginTraverse` and `endTraverse`; tiles are
    /// visited on worker copies made with `copy()` (on the visitor itself when not parallel).
    void traverseInternalNonInlined(Visitor<Container>* visitor, TraversalMode mode,
                                    TreeIndex const& start, int minDepth, int maxDepth,
                                    std::uint64_t grain, bool parallel, int a, int b,
                                    VisitInteriorVoxelMode voxelMode, int c) const;
    void traverseInternalNonInlined(Visitor<Container>* visitor, TraversalMode mode,
                                    TreeIndex const& start, int minDepth, int maxDepth,
                                    std::uint64_t grain, bool parallel, int a, int b,
                                    VisitInteriorVoxelMode voxelMode, int c);
    /// The walk behind `reduce`. The visitor itself works the leftmost ranges and ends up holding
    /// the total; other ranges run on copies of the visitor as it was when the walk began, merged
    /// with `left.join(right)` in range order.
    void reduceInternalNonInlined(Visitor<Container>* visitor, TraversalMode mode,
                                  TreeIndex const& start, int minDepth, int maxDepth,
                                  std::uint64_t grain, int a, int b,
                                  VisitInteriorVoxelMode voxelMode) const;
    void reduceInternalNonInlined(Visitor<Container>* visitor, TraversalMode mode,
                                  TreeIndex const& start, int minDepth, int maxDepth,
                                  std::uint64_t grain, int a, int b,
                                  VisitInteriorVoxelMode voxelMode);

    // ---- component interface -----------------------------------------------------------------

    void dump(std::ostream& out) const override;
    void memUse(std::size_t& used, std::size_t& reserved, bool recursive) const override;
    void copyTo(Quillon::Ptr<Component>& out) const override;
    std::uint64_t size() const override { return static_cast<std::uint64_t>(tileCount(-1)); }
    bool empty() const override { return tileCount(-1) == 0; }
    /// A tree is bound to nothing: nothing to update.
    void update(Component const&) override {}
    std::uint64_t elementCount(int depth) const override { return voxelDataCount(depth); }
    std::uint64_t elementCount(TreeIndex const& t) const override;
    /// Shallowest depth holding a tile (0 for an empty tree).
    int minDepth() const override;
    /// Deepest depth holding a tile (-1 for an empty tree).
    int deepestOccupiedDepth() const;

    // ---- internal, used by the accessors -----------------------------------------------------

    /// Deepest tile containing the point with depth <= @p depth, walking down from @p start
    /// (which must contain the point) or from the root when @p start is null.
    TileType const* findTile(std::int64_t i, std::int64_t j, std::int64_t k, int depth,
                             TileType const* start) const;
    /// Adds the tile at @p depth containing the point, with its ancestors. Serialised by a lock;
    /// returns the sentinel for points outside the domain or depths outside the tree.
    TileType const& addTileLocked(std::int64_t i, std::int64_t j, std::int64_t k, int depth,
                                  TileType const* hint);
    /// Whether the tile-space point lies inside the domain of the tree.
    static bool inDomain(std::int64_t i, std::int64_t j, std::int64_t k)
    {
        std::int64_t const lo = -kCentreOffset, hi = lo + tileVoxelWidth(0);
        return i >= lo && i < hi && j >= lo && j < hi && k >= lo && k < hi;
    }
    /// The tile of @p depth holding the point through the hash of that depth; writes its corner
    /// to @p corner so that callers need not touch the tile. Null when absent.
    TileType const* hashLookup(std::int64_t i, std::int64_t j, std::int64_t k, int depth,
                               int3& corner) const;
    TileType const* precomputedNeighbor(TileType const& t, int direction) const;

private:
    static constexpr std::uint64_t kBucket = 4;
    struct HashEntry {
        std::int32_t i, j, k;
        std::int32_t index; ///< -1: empty slot
    };
    /// Open-addressing table of one depth's tiles, on huge pages when large.
    struct HashTable {
        HashEntry* entries = nullptr;
        std::uint64_t mask = 0;
        std::uint64_t capacity = 0;
        HashTable() = default;
        HashTable(HashTable&& o) noexcept
            : entries(std::exchange(o.entries, nullptr)), mask(o.mask),
              capacity(std::exchange(o.capacity, 0))
        {
        }
        HashTable& operator=(HashTable&& o) noexcept
        {
            std::swap(entries, o.entries);
            std::swap(mask, o.mask);
            std::swap(capacity, o.capacity);
            return *this;
        }
        ~HashTable() { detail::freeLarge(entries); }
    };
    /// Short critical sections of concurrent `addTile`: a spin lock that yields.
    struct SpinLock {
        std::atomic<bool> flag{false};
        void lock()
        {
            while (flag.exchange(true, std::memory_order_acquire))
                while (flag.load(std::memory_order_relaxed))
                    std::this_thread::yield();
        }
        void unlock() { flag.store(false, std::memory_order_release); }
    };
    /// A neighbour as found at precompute time: index and depth (-1 depth: sentinel).
    struct NeighborRef {
        std::int32_t index;
        std::int32_t depth;
    };

    TileType& newTile(int depth, int3 const& corner, std::int64_t parent);
    void dropTables();
    void rebuildRoots();

    float mVoxelSize = 1.0f;
    float mMaxRelativeRefinementError = 0.0f;
    detail::TileStore<TileType> mTiles[kDepthCount];
    RootMap mRoots;
    SpinLock mAddLock;
    std::vector<std::unique_ptr<Container>> mScratch;
    std::vector<HashTable> mHash; ///< per depth; empty when not built
    std::vector<std::vector<NeighborRef>>
        mNeighbors; ///< per depth, 27 per tile; empty when not built
    /// Compressed halo table, per depth and 27 per tile: the index of the tile read in each
    /// direction, and how many depths above the tile it lies (-1: none). Empty when not built.
    std::vector<std::vector<std::int32_t>> mHaloIndex;
    std::vector<std::vector<std::int8_t>> mHaloDepthStep;
};

/// Cursor that finds tiles; caches the tile last found. Copyable; one per thread of work.
template <typename TraitsT> class Container<TraitsT>::ConstTileAccessor {
public:
    ConstTileAccessor() = default;
    explicit ConstTileAccessor(Container const& c) : mContainer(&c) {}

    Container const& container() const { return *mContainer; }

    /// Deepest existing tile containing the tile-space point with depth <= @p depth; the
    /// sentinel when none does. Compare the result's depth with @p depth: equal means the tile
    /// exists, smaller means the result is its closest coarser ancestor.
    TileType const& tile(std::int64_t i, std::int64_t j, std::int64_t k, int depth)
    {
        if (depth == mDepth && static_cast<std::uint64_t>(i - mI) < mWidth &&
            static_cast<std::uint64_t>(j - mJ) < mWidth &&
            static_cast<std::uint64_t>(k - mK) < mWidth)
            return *mTile;
        return tileImpl<0>(i, j, k, depth);
    }
    TileType const& tile(int3 const& p, int depth) { return tile(p.x, p.y, p.z, depth); }
    TileType const& tile(VoxelCoord const& v) { return tile(v.i, v.j, v.k, v.depth); }

    /// The slow path of `tile`: form 0 walks up from the cached tile to an ancestor holding the
    /// point and down again; form 1 starts at the root.
    template <int Form>
    TileType const& tileImpl(std::int64_t i, std::int64_t j, std::int64_t k, int depth);

    /// The tile next to @p t in direction @p dir at the same depth, or where none exists the
    /// closest coarser tile; the sentinel beyond the domain.
    TileType const& tileNeighbor(TileType const& t, int dir);
    /// The same for an offset in units of @p t's tile width, looked up at @p depth. With
    /// @p allowCoarser false only a tile of exactly @p depth is returned (else the sentinel).
    TileType const& tileNeighbor(TileType const& t, int3 const& offset, int depth,
                                 bool allowCoarser);
    TileType const& tileNeighbor(TileType const& t, int di, int dj, int dk, int depth,
                                 bool allowCoarser)
    {
        return tileNeighbor(t, int3{di, dj, dk}, depth, allowCoarser);
    }
    TreeIndex treeIndexNeighbor(TileType const& t, int dir)
    {
        TileType const& n = tileNeighbor(t, dir);
        return n.valid() ? n.treeIndex() : kNoTile;
    }
    /// Fills @p out with every tile, of depth at most @p depth, whose box touches the box of
    /// @p t from outside (faces, edges, corners), finer and coarser ones alike; each once.
    /// Ancestors of @p t are not neighbours. With @p allowCoarser false, coarser tiles are left
    /// out.
    void tileNeighbors(TileType const& t, std::vector<TileType const*>& out, int depth,
                       bool allowCoarser);

protected:
    void cache(TileType const* t, int3 const& corner, int depth)
    {
        mTile = t;
        mDepth = depth;
        mI = corner.x;
        mJ = corner.y;
        mK = corner.z;
        mWidth = static_cast<std::uint64_t>(tileVoxelWidth(depth));
    }
    void cache(TileType const& t)
    {
        mTile = &t;
        mDepth = t.depth();
        mI = t.ti();
        mJ = t.tj();
        mK = t.tk();
        mWidth = t.valid() ? static_cast<std::uint64_t>(tileVoxelWidth(t.depth())) : 0;
    }

    Container const* mContainer = nullptr;
    TileType const* mTile = &sentinel();
    std::int64_t mI = 0, mJ = 0, mK = 0;
    std::uint64_t mWidth = 0;
    int mDepth = kSentinelDepth - 1;
};

/// Accessor that also adds tiles. Several `TileAccessor`s may call `addTile` on one tree at the
/// same time (the tree serialises the changes); lookups must not run concurrently with them.
template <typename TraitsT> class Container<TraitsT>::TileAccessor : public ConstTileAccessor {
public:
    TileAccessor() = default;
    explicit TileAccessor(Container& c) : ConstTileAccessor(c), mMutable(&c) {}

    /// Adds the tile at @p depth containing the tile-space point, with any missing ancestor, and
    /// returns it; returns the existing tile if there is one. Points outside the domain and
    /// depths outside [0, maxDepth] add nothing and return the sentinel.
    TileType const& addTile(std::int64_t i, std::int64_t j, std::int64_t k, int depth)
    {
        if (depth == this->mDepth && static_cast<std::uint64_t>(i - this->mI) < this->mWidth &&
            static_cast<std::uint64_t>(j - this->mJ) < this->mWidth &&
            static_cast<std::uint64_t>(k - this->mK) < this->mWidth)
            return *this->mTile;
        TileType const& t = mMutable->addTileLocked(i, j, k, depth, this->mTile);
        if (t.valid())
            this->cache(t);
        return t;
    }
    TileType const& addTile(VoxelCoord const& v) { return addTile(v.i, v.j, v.k, v.depth); }
    TileType const& addTile(int3 const& p, int depth) { return addTile(p.x, p.y, p.z, depth); }
    /// Adds every tile of @p depth that overlaps the closed tile-space box [min, max].
    /// @return the number of tiles visited.
    std::int64_t addTiles(int3 const& min, int3 const& max, int depth);
    /// As `Container::removeTiles`; the accessor's cache is reset.
    std::int64_t removeTiles(TileIndexLists<TraitsT> const& toRemove, TileMoveLists<TraitsT>& moved,
                             bool consistent = true);

    Container& container() { return *mMutable; }

private:
    Container* mMutable = nullptr;
};

template <typename TraitsT>
inline typename Container<TraitsT>::ConstTileAccessor Container<TraitsT>::tileAccessor() const
{
    return ConstTileAccessor(*this);
}
template <typename TraitsT>
inline typename Container<TraitsT>::TileAccessor Container<TraitsT>::tileAccessor()
{
    return TileAccessor(*this);
}

extern template class HEXMOLD_API Container<Traits24>;
extern template class HEXMOLD_API Container<Traits55>;

} // namespace TVL::TileTree3D

// The visitor base and the bodies of the traversal templates declared above.
#include <hexmold/substrate/visitor.h>
