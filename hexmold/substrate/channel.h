/// @file  substrate/channel.h
/// @brief `Channel<Traits, T, W, H, F>`: a named, typed field over a tile tree, one block of
///        elements per tile and depth in its depth range.
/// @details A channel is bound by name (its target) to a topology and follows that topology's
///          tiles: for each depth in [minDepth, depth] it has one block per tile, in the tile
///          order of the container. Blocks bound to a voxel topology (or to the container itself)
///          hold (W + 2H)^3 elements; blocks bound to a `PointTopology` hold as many elements as
///          their tile has points.
///
///          `tileData` hands out handles on the blocks. Outside the depth range, and for tiles the
///          channel does not have, the handle is empty; code that may see such tiles tests
///          `empty()` first.
///
///          Copies (copy construction, `copyTo`) copy every block at once, so `dataUseCount()` is
///          always 1 and a write through one copy never shows in the other.
///
///          Concurrency: handles on different tiles may be written from different threads while
///          the block arrays do not change. `update` and the `updateTiles...` operations are
///          single-caller.
///
///          Instantiated for both `Traits`, the 18 element types and, per `Traits`, the forms
///          (W, H) = (TW, 0), (TW, 1), (TW, 2), (TW + 1, 0), (8, 1) and (9, 0), TW being the
///          voxels across a tile (4 or 5); F is 0.
#pragma once
#include <array>
#include <cstdint>
#include <hexmold/export.h>
#include <hexmold/platform/quillon/ptr.h>
#include <hexmold/platform/quillon/string.h>
#include <hexmold/substrate/channel_base.h>
#include <hexmold/substrate/channel_storage.h>
#include <hexmold/substrate/tile_data.h>
#include <hexmold/substrate/traits.h>
#include <hexmold/substrate/tree_index.h>
#include <hexmold/substrate/type_lists.h>
#include <iosfwd>
#include <span>
#include <typeinfo>
#include <vector>

namespace TVL::TileTree3D {

template <typename TraitsT, typename T, int W, int H, int F>
class HEXMOLD_API Channel : public ChannelBase {
public:
    using Traits = TraitsT;
    using ValueType = T;
    using Block = TileDataBlock<T>;
    using TileDataType = TileData<T, W, H, F>;
    using ConstTileDataType = ConstTileData<T, W, H, F>;
    using DynamicTileDataType = DynamicTileData<TileDataType>;
    static constexpr int kDepthCount = Traits::kDepthCount;
    static constexpr int kMaxDepth = Traits::kMaxDepth;
    static constexpr int kWidth = W;
    static constexpr int kHalo = H;
    /// Elements of a voxel block, (W + 2H)^3.
    static constexpr std::size_t kBlockSize = ConstTileDataType::kVoxelCount;

    /// An unnamed channel of default value T{}, initialiser 2, over all depths.
    Channel();
    /// @param name                    the component's name (empty for temporaries)
    /// @param defaultValue            value of new elements under initialiser 2; null means T{}
    /// @param initializer             how new blocks get their first values
    /// @param usePool                 draw blocks from, and return them to, the channel memory
    ///                                pool (only while `ChannelMemoryPool::enabled()`)
    /// @param callElementConstructor  under initialiser 0: value-initialise new elements
    /// @param minDepth, depth         inclusive depth range, clamped to [0, maxDepth]; an empty
    ///                                range (minDepth > depth) holds no blocks
    /// The channel has no blocks until `update` with its topology.
    Channel(Quillon::String name, T const* defaultValue, DataElementInitializerType initializer,
            bool usePool, bool callElementConstructor, int minDepth, int depth);
    /// Copies the whole channel, blocks included (not drawn from the pool).
    Channel(Channel const& other);
    Channel& operator=(Channel const&) = delete;
    /// A pooled channel gives its blocks to the channel memory pool.
    ~Channel() override;

    // ---- blocks ------------------------------------------------------------------------------

    /// The block of tile @p index at @p depth, or null outside the range or the tiles.
    Block* block(std::int64_t index, int depth) { return mStorage.block(index, depth); }
    Block const* block(std::int64_t index, int depth) const { return mStorage.block(index, depth); }

    /// Handle on the block of a tile; empty outside [minDepth, depth] or for a tile the channel
    /// does not have.
    TileDataType tileData(TreeIndex const& t) { return TileDataType(block(t.index, t.depth)); }
    TileDataType tileData(std::int64_t index, int depth)
    {
        return TileDataType(block(index, depth));
    }
    ConstTileDataType tileData(TreeIndex const& t) const
    {
        return ConstTileDataType(block(t.index, t.depth));
    }
    ConstTileDataType tileData(std::int64_t index, int depth) const
    {
        return ConstTileDataType(block(index, depth));
    }
    /// Handle that may resize the block (point channels).
    DynamicTileDataType dynamicTileData(TreeIndex const& t)
    {
        return DynamicTileDataType(block(t.index, t.depth));
    }

    /// All blocks of a depth, in tile order; empty outside the range.
    std::vector<Block> const& blocks(int depth) const { return mStorage.blocks(depth); }

    // ---- properties --------------------------------------------------------------------------

    T const& defaultValue() const { return mStorage.defaultValue(); }
    /// Sets the value of elements created from now on (null: T{}); existing blocks keep theirs.
    void setDefaultValue(T const* value) { mStorage.setDefaultValue(value ? *value : T{}); }
    DataElementInitializerType dataElementInitializerType() const { return mStorage.initializer(); }
    bool callElementConstructor() const { return mStorage.callElementConstructor(); }
    /// Whether the channel draws its blocks from the channel memory pool.
    bool usesPool() const { return mStorage.usesPool(); }
    /// How many channels share this data: always 1, since copies copy at once.
    long dataUseCount() const { return 1; }
    /// @brief Until `disableAllocateEmptyTileData`, `update` and `updateTilesAdded` allocate
    ///        blocks without writing their elements. Bracket one update with these when every
    ///        element of the new tiles is about to be written anyway.
    void enableAllocateEmptyTileData() { mStorage.setAllocateEmpty(true); }
    void disableAllocateEmptyTileData() { mStorage.setAllocateEmpty(false); }
    bool allocateEmptyTileData() const { return mStorage.allocateEmpty(); }

    // ---- Component ---------------------------------------------------------------------------

    void dump(std::ostream& out) const override;
    /// Bytes of elements and block arrays in use, and reserved (capacities, spare blocks).
    void memUse(std::size_t& used, std::size_t& reserved, bool recursive) const override;
    void copyTo(Quillon::Ptr<Component>& out) const override;
    std::uint64_t size() const override { return elementCount(-1); }
    bool empty() const override { return elementCount(-1) == 0; }
    /// Makes the block arrays of the depths in range match @p topology's tiles: truncates or
    /// grows them (new blocks initialised) and, for a point topology, fits each block to its
    /// tile's element count.
    void update(Component const& topology) override;
    std::uint64_t elementCount(int depth) const override { return mStorage.elementCount(depth); }
    std::uint64_t elementCount(TreeIndex const& t) const override
    {
        Block const* b = block(t.index, t.depth);
        return b ? b->size() : 0;
    }
    std::int64_t tileCount(int depth) const override { return mStorage.tileCount(depth); }
    int minDepth() const override { return mStorage.minDepth(); }

    // ---- ChannelBase -------------------------------------------------------------------------

    int depth() const override { return mStorage.depth(); }
    void setMinDepth(int minDepth, Component const& topology) override;
    void setDepth(int depth, Component const& topology) override;
    bool hasElementType(Quillon::Any const& value) const override
    {
        return value.has_value() && value.type() == typeid(T);
    }
    std::shared_ptr<void const> channelData(unsigned depth,
                                            Quillon::Any const& elementType) const override;
    bool setChannelData(unsigned depth, Quillon::Any const& elementType,
                        std::shared_ptr<void const> const& data) override;
    void updateTilesAdded(Component const& topology) override;
    void updateTilesRemoved(std::span<TileMoveList const> moved,
                            Component const& topology) override;
    void updateTilesPermuted(std::span<TilePermutation const> permutation) override;
    void updateElements(std::vector<std::vector<ElementToFrom>> const& moves) override;
    void updateElementResize(Component const& topology) override;
    void initializeFromParents(int depth, std::span<TileParentLink const> links) override;
    std::type_info const& elementType() const override { return typeid(T); }

private:
    /// Whether @p topology is a point topology of this tree instance.
    static bool isPointTopology(Component const& topology);
    static detail::BlockShape shape();

    detail::ChannelStorage<T> mStorage;
};

/// The voxel channel form of a tree instance: `Channel<Traits, T, TW, 0, 0>`.
template <typename Traits, typename T>
using VoxelChannel = Channel<Traits, T, Traits::kTileWidth, 0, 0>;

} // namespace TVL::TileTree3D

/// The channel forms, one macro per form so that instantiations can be sharded by form:
/// HEXMOLD_CHANNEL_FORM_<Traits>_<n>(X, T) is X(Traits, T, W, H) for form n of that instance.
#define HEXMOLD_CHANNEL_FORM_Traits24_0(X, T) X(Traits24, T, 4, 0)
#define HEXMOLD_CHANNEL_FORM_Traits24_1(X, T) X(Traits24, T, 4, 1)
#define HEXMOLD_CHANNEL_FORM_Traits24_2(X, T) X(Traits24, T, 4, 2)
#define HEXMOLD_CHANNEL_FORM_Traits24_3(X, T) X(Traits24, T, 5, 0)
#define HEXMOLD_CHANNEL_FORM_Traits24_4(X, T) X(Traits24, T, 8, 1)
#define HEXMOLD_CHANNEL_FORM_Traits24_5(X, T) X(Traits24, T, 9, 0)
#define HEXMOLD_CHANNEL_FORM_Traits55_0(X, T) X(Traits55, T, 5, 0)
#define HEXMOLD_CHANNEL_FORM_Traits55_1(X, T) X(Traits55, T, 5, 1)
#define HEXMOLD_CHANNEL_FORM_Traits55_2(X, T) X(Traits55, T, 5, 2)
#define HEXMOLD_CHANNEL_FORM_Traits55_3(X, T) X(Traits55, T, 6, 0)
#define HEXMOLD_CHANNEL_FORM_Traits55_4(X, T) X(Traits55, T, 8, 1)
#define HEXMOLD_CHANNEL_FORM_Traits55_5(X, T) X(Traits55, T, 9, 0)
/// X(Traits, T, W, H) for the six forms of one instance.
#define HEXMOLD_FOR_EACH_CHANNEL_FORM_OF(X, TR, T)                                                 \
    HEXMOLD_CHANNEL_FORM_##TR##_0(X, T) HEXMOLD_CHANNEL_FORM_##TR##_1(X, T)                        \
        HEXMOLD_CHANNEL_FORM_##TR##_2(X, T) HEXMOLD_CHANNEL_FORM_##TR##_3(X, T)                    \
            HEXMOLD_CHANNEL_FORM_##TR##_4(X, T) HEXMOLD_CHANNEL_FORM_##TR##_5(X, T)
/// X(Traits, T, W, H) for every form of both instances, element type T.
#define HEXMOLD_FOR_EACH_CHANNEL_FORM(X, T)                                                        \
    HEXMOLD_FOR_EACH_CHANNEL_FORM_OF(X, Traits24, T)                                               \
    HEXMOLD_FOR_EACH_CHANNEL_FORM_OF(X, Traits55, T)

namespace TVL::TileTree3D {
#define HEXMOLD_CHANNEL_EXTERN(TR, T, W, H)                                                        \
    extern template class HEXMOLD_API Channel<TR, T, W, H, 0>;
#define HEXMOLD_CHANNEL_EXTERN_FORMS(T) HEXMOLD_FOR_EACH_CHANNEL_FORM(HEXMOLD_CHANNEL_EXTERN, T)
HEXMOLD_FOR_EACH_ELEMENT_TYPE(HEXMOLD_CHANNEL_EXTERN_FORMS)
#undef HEXMOLD_CHANNEL_EXTERN_FORMS
#undef HEXMOLD_CHANNEL_EXTERN
} // namespace TVL::TileTree3D
