/// @file  analysis/grade_tile_tree.h
/// @brief Grading of a tile tree: no tile keeps a neighbour more than one depth coarser than
///        itself, in any of the 26 directions; and the check of that property.
/// @details `gradeTileTree` only adds tiles, never removes any. It runs from the finest depth
///          up: a tile of depth d whose neighbour is more than one depth coarser asks for the
///          tile of depth d - 1 on that side. That tile is itself graded when the turn of depth
///          d - 1 comes, so one pass suffices. New tiles collect in a scratch tree during the
///          parallel pass over a depth and are merged into the tree on the calling thread in
///          between depths.
#pragma once
#include <cstdint>
#include <hexmold/export.h>
#include <hexmold/platform/tavrel/math.h>
#include <hexmold/substrate/container.h>
#include <vector>

namespace CoreGL::TileTree3D {

/// @brief Per-tile grading colour, kept per depth (one `std::vector<TileColor>` for each depth,
///        indexed by `Tile::index()`).
struct TileColor {
    unsigned char colored = 1; ///< non-zero: the tile takes part in grading
    unsigned char spare = 0;   ///< 0 for new tiles; grading never reads it
};
static_assert(sizeof(TileColor) == 2, "a tile colour is two bytes");

/// @brief Adds the tiles that make @p io_container graded between @p coarsestDepth and
///        @p finestDepth.
/// @param io_container     the tree; only gains tiles. Precomputed tables are dropped
/// @param io_newTiles      optional: per depth, the corners of the tiles added are appended,
///                         sorted, depth by depth as they are merged
/// @param io_colors        optional: points to `Traits::kDepthCount` vectors, one per depth, of
///                         one colour per tile. A tile whose first byte is 0 does not grade its
///                         neighbours; a tile that asks for a coarser tile colours the tiles on
///                         the next depth up, and new tiles get (1, 0)
/// @param coarsestDepth    depths from max(coarsestDepth + 1, 2) down are graded: a tile of that
///                         depth may still face a neighbour two depths coarser
/// @param finestDepth      deepest depth graded (clamped to the tree's deepest depth); nothing
///                         happens when it is below max(coarsestDepth + 1, 2)
/// @details Timer "Fluids::coarsenRefine.grade_tile_tree". One parallel reduction per depth.
/// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only; the tiles of the
///         depths done are then merged.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API void gradeTileTree(TVL::TileTree3D::Container<Traits>& io_container,
                               TVL::TileTree3D::TileCornerLists<Traits>* io_newTiles,
                               std::vector<TileColor>* io_colors, int coarsestDepth,
                               int finestDepth);

/// @brief The coarsest depth worth grading for a domain box: max(0, 28 - floor(log2(e))), e
///        being the smallest extent of the box in finest voxels (minimums floored, maximums
///        ceiled).
/// @param bounds     world box: bounds[0] the minimum, bounds[1] the maximum corner
/// @param voxelSize  world size of a finest voxel (> 0)
/// @return the depth, or -1 when a minimum exceeds its maximum (printed at verbose above 0 as
///         "Invalid user-input tile domain dimensions: " min " to " max).
HEXMOLD_API int coarsestDepthFromDimensions(Tavrel::Math::float3 const bounds[2], float voxelSize);

/// @brief Whether no tile of depths [minDepth, maxDepth] has a neighbour of depth at least
///        @p minDepth that is more than one depth coarser than itself.
/// @details The first offence found is written to the error stream (at error verbose level
///          above 0) as "tile ti, tj, tk at depth d is not graded in direction n - The neighbor
///          ti, tj, tk is at depth d". A parallel reduction; read only.
/// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API bool checkGraded(TVL::TileTree3D::Container<Traits> const& container, int minDepth,
                             int maxDepth);

} // namespace CoreGL::TileTree3D
