/// @file  substrate/traversal_mode.h
/// @brief The numbers that select the walk of a traversal and whether it visits voxels.
#pragma once

namespace TVL::TileTree3D {

/// Which tiles a traversal visits and in which order. The numbers are part of the interface:
/// callers compute some of them arithmetically (7 plus a boolean gives 7 or 8).
///
/// | Value | Tiles                                     | Order |
/// |-------|-------------------------------------------|--------------------------------------------|
/// | 0     | every tile of the depth range, once       | depth after depth, coarse to fine | | 2 |
/// the range under the start tile            | depth after depth, coarse to fine          | | 4 |
/// every tile of the depth range, once       | depth after depth, coarse to fine          | | 5 |
/// every tile of the depth range, once       | depth after depth, fine to coarse: a tile  | | | |
/// is visited after all of its children       | | 6     | every tile of the depth range, once |
/// depth after depth, coarse to fine          | | 7     | every tile of the range | none at all |
/// | 8     | as 7 (the second stage of a two-stage     | none at all | |       | channel algorithm)
/// |                                            | | 9     | every tile of the minimum depth only |
/// none                                       |
///
/// "Depth after depth" means that all tiles of one depth are finished before any tile of the
/// next depth begins. Every mode honours a start tile: a valid `TreeIndex` restricts the walk to
/// that tile and its descendants. Other values behave as 7.
enum TraversalMode : int {
    kTraversalDepthRange = 0,      ///< all tiles of the range, coarse to fine
    kTraversalSubtree = 2,         ///< the tiles under a start tile, coarse to fine
    kTraversalClampedRange = 4,    ///< all tiles of a clamped channel range, coarse to fine
    kTraversalChildrenFirst = 5,   ///< fine to coarse: children before their parent
    kTraversalCoarsen = 6,         ///< all tiles of the range, coarse to fine
    kTraversalUnordered = 7,       ///< the ordinary choice: no order between tiles
    kTraversalUnorderedSecond = 8, ///< as 7
    kTraversalSingleDepth = 9,     ///< the tiles of one depth
};

/// Whether a traversal calls `visitInteriorVoxel` for the voxels of each tile (1) or never
/// enters the voxel loop (0).
enum VisitInteriorVoxelMode : int {
    kVisitInteriorVoxelNone = 0,
    kVisitInteriorVoxelAll = 1,
};

} // namespace TVL::TileTree3D
