/// @file  substrate/channel_update.h
/// @brief Keeping the channels held in an object in step with a tree change: the free update
///        functions and `initializeTileData`.
/// @details The caller of a tree change has a fixed order of duties. After `refine`:
///          `topology.update(container)`, `update(topology)` on each channel it holds extracted,
///          `updateTilesAdded(topology, object)`, then `initializeTileData(container, newTiles,
///          object)`. After `removeTiles`: `topology.update(container)`,
///          `updateTilesRemoved(moved, topology)` on each extracted channel, then
///          `updateTilesRemoved(moved, topology, object)`. An operation that removes tiles
///          without handing back the (from, to) pairs (`erode`) is bracketed by
///          `recordTileLayout` before it and `tileMovesSince` after it, which give the same
///          pairs. The free functions reach only the channels in the object. A channel that is
///          shared (with another object, or with a `Ptr` the caller holds) is copied before it is
///          changed and the copy replaces it in the object, so that no other holder sees blocks
///          for tiles of a tree it does not have; a `Ptr` taken before the call keeps the old
///          channel and must be read again.
#pragma once
#include <array>
#include <hexmold/export.h>
#include <hexmold/substrate/channel_base.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/object.h>
#include <span>
#include <vector>

namespace TVL::TileTree3D {

/// Calls `updateTilesAdded(topology)` on every channel of @p object bound to @p topology.
HEXMOLD_API void updateTilesAdded(Component const& topology, Object& object);
/// Calls `updateTilesRemoved(moved, topology)` on every channel of @p object bound to
/// @p topology.
HEXMOLD_API void updateTilesRemoved(std::span<TileMoveList const> moved, Component const& topology,
                                    Object& object);

/// Which tile stands at each index of each depth of a tree: per depth, the corners in tile order.
template <typename Traits> struct TileLayout {
    std::array<std::vector<int3>, Traits::kDepthCount> corners; ///< tile-space minimum corners
};

/// @brief The layout of @p container as it stands, to be compared with the tree after a removal.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API TileLayout<Traits> recordTileLayout(Container<Traits> const& container);

/// @brief The (from, to) pairs of a removal of tiles, recovered from the layout before it and the
///        tree after it: per depth, every surviving tile whose index changed, in increasing order,
///        as `Container::removeTiles` reports them.
/// @details Survivors keep their order in a removal, so one merge per depth finds them. When
///          @p after is not @p before less some tiles (tiles were added or reordered), the pairs of
///          a depth stop at its first tile that @p before does not hold, with an error message at
///          error verbose above 0; nothing is read out of bounds.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API TileMoveLists<Traits> tileMovesSince(TileLayout<Traits> const& before,
                                                 Container<Traits> const& after);

/// @brief Gives the blocks of the tiles created by a `refine` their first values in every
///        channel of @p object bound to the object's voxel topology.
/// @details The channels are those bound to the object's `VoxelTopology<Traits>` that targets
///          @p container; when the object does not hold that topology (the caller has it
///          extracted), every channel of the object not bound to a point topology. Each new tile,
///          found by its corner, whose parent lies in a channel's depth range takes in that
///          channel, voxel by voxel, the value of the parent voxel that covers the voxel's centre:
///          a piecewise-constant prolongation, the value the coarse field already gave that region.
///          Depths are handled from coarse to fine, so a tile whose parent is new too inherits what
///          the parent just received. Other new tiles (roots, or tiles whose parent lies outside
///          the range) keep the value the initialiser gave them.
/// @param container  the tree after `refine`
/// @param newTiles   per depth the corners of the tiles created, as `refine` reports them
/// @param object     the object whose channels are initialised; it need not hold @p container
///                   (which the caller may have extracted)
template <typename Traits>
HEXMOLD_API void initializeTileData(Container<Traits> const& container,
                                    TileCornerLists<Traits> const& newTiles, Object& object);

} // namespace TVL::TileTree3D
