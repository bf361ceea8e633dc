/// @file  substrate/channel_base.h
/// @brief `ChannelBase`: the element-type-independent interface of a channel, and the small
///        records its operations take.
/// @details The virtual operations continue those of `Component` in a fixed order (depth range,
///          element type, untyped data, and the updates that keep a channel's blocks in step with
///          its topology). Algorithms reach a channel through this base when they need no values:
///          to read its range, or to update it after a tree change.
#pragma once
#include <cstdint>
#include <hexmold/export.h>
#include <hexmold/platform/quillon/any.h>
#include <hexmold/platform/tavrel/math.h>
#include <hexmold/substrate/component.h>
#include <memory>
#include <span>
#include <typeinfo>
#include <utility>
#include <vector>

namespace TVL::TileTree3D {

/// @brief How the elements of a new block get their first value. The numbers are part of the
///        interface.
enum DataElementInitializerType : int {
    /// Temporaries: elements are value-initialised only if the channel was made with
    /// `callElementConstructor`; otherwise the block is raw memory that the owner overwrites.
    kDataElementInitializerTemporary = 0,
    /// Elements are always value-initialised (zero for the numeric and vector types).
    kDataElementInitializerConstruct = 1,
    /// Every element is set to the channel's default value: channels held in objects.
    kDataElementInitializerDefaultValue = 2,
};

/// One (from, to) move per surviving tile of a depth, as `Container::removeTiles` reports it.
using TileMoveList = std::vector<std::pair<std::int64_t, std::int64_t>>;
/// Per depth: entry n is the old index of the tile now at n.
using TilePermutation = std::vector<std::int64_t>;

/// Where an element of a point channel comes from and goes to, within one depth.
struct ElementToFrom {
    std::int64_t toTile = -1;      ///< tile index that receives the element
    std::int64_t toElement = -1;   ///< element index in that tile's block
    std::int64_t fromTile = -1;    ///< tile index the element is read from (before the update)
    std::int64_t fromElement = -1; ///< element index in that tile's block
};

/// A tile and its parent, for giving a new tile its first values from the parent's block.
struct TileParentLink {
    std::int64_t tile = -1;    ///< index of the tile at its depth
    std::int64_t parent = -1;  ///< index of the parent at depth - 1
    Tavrel::Math::int3 slot{}; ///< the tile's child slot in the parent
};

/// A channel whose element type is not known to the caller.
class HEXMOLD_API ChannelBase : public Component {
public:
    using Component::Component;
    ~ChannelBase() override;

    /// Deepest depth that has data; below `minDepth()` when the range is empty.
    virtual int depth() const = 0;
    /// Moves the shallow end of the range to @p minDepth (clamped to the tree's depths),
    /// allocating blocks for @p topology's tiles at depths gained and freeing those lost.
    virtual void setMinDepth(int minDepth, Component const& topology) = 0;
    /// The same for the deep end.
    virtual void setDepth(int depth, Component const& topology) = 0;
    /// Whether the channel's element type is the type of the value held by @p value.
    virtual bool hasElementType(Quillon::Any const& value) const = 0;
    /// @brief Copy of the elements of @p depth, tile after tile in tile order, as a
    ///        `Quillon::Array<T>`; null when @p elementType does not hold a T or the depth is out
    ///        of range. For the conversion to the runtime's objects.
    virtual std::shared_ptr<void const> channelData(unsigned depth,
                                                    Quillon::Any const& elementType) const = 0;
    /// @brief The reverse of `channelData`: spreads a `Quillon::Array<T>` over the blocks of
    ///        @p depth in tile order. The blocks must already have their sizes (`update`).
    /// @return false, changing nothing, on a type, depth or size mismatch.
    virtual bool setChannelData(unsigned depth, Quillon::Any const& elementType,
                                std::shared_ptr<void const> const& data) = 0;
    /// Allocates blocks for the tiles that @p topology has beyond the channel's, per depth in
    /// range; new blocks get their first value as the initialiser type says.
    virtual void updateTilesAdded(Component const& topology) = 0;
    /// @brief Follows a removal of tiles: applies `block[to] = block[from]` for the pairs of each
    ///        depth in order (moving blocks, never elements), then drops the blocks beyond
    ///        @p topology's tile count. Pairs naming no block are ignored with an error message.
    virtual void updateTilesRemoved(std::span<TileMoveList const> moved,
                                    Component const& topology) = 0;
    /// Reorders the blocks of each depth: block n becomes the old block permutation[d][n].
    /// A depth whose list is not a permutation of its blocks is left as it is, with a message.
    virtual void updateTilesPermuted(std::span<TilePermutation const> permutation) = 0;
    /// @brief Point channels: moves elements between tiles. @p moves[d] lists the moves of depth
    ///        d; every move reads the blocks as they were before the call. Target blocks grow as
    ///        needed; `updateElementResize` then fits them to the topology's counts.
    virtual void updateElements(std::vector<std::vector<ElementToFrom>> const& moves) = 0;
    /// Point channels: resizes every block to the element count of its tile in @p topology
    /// (voxel channels: to the block size of their form); new elements take the default value.
    virtual void updateElementResize(Component const& topology) = 0;

    // ---- beyond the fixed slots ----------------------------------------------------------------

    /// @brief Gives the blocks of new tiles at @p depth their first values from their parents'
    ///        blocks at depth - 1 (piecewise-constant prolongation: each element takes the value
    ///        of the parent element that covers its centre). Halo elements are left as they are;
    ///        links whose tile or parent has no block of the voxel size are skipped.
    virtual void initializeFromParents(int depth, std::span<TileParentLink const> links) = 0;
    /// The element type.
    virtual std::type_info const& elementType() const = 0;
};

} // namespace TVL::TileTree3D
