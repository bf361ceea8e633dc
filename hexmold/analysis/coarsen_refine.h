/// @file  analysis/coarsen_refine.h
/// @brief The adaptive step of the point voxelizer: refine the tiles near the zero crossing of a
///        level set, coarsen the tiles away from it, and grade the tree.
#pragma once
#include <hexmold/analysis/grade_tile_tree.h>
#include <hexmold/analysis/level_set_sampler.h>
#include <hexmold/export.h>
#include <hexmold/platform/quillon/string.h>
#include <hexmold/substrate/bbox.h>
#include <vector>

namespace TVL {
class Object;
}

namespace CoreGL::TileTree3D {

/// Bits of the flags of `coarsenRefine`.
enum CoarsenRefineFlag : int {
    kCoarsenRefineCoarsen = 1,    ///< remove the child tiles the criterion does not want
    kCoarsenRefineLeavesOnly = 2, ///< with coarsening: remove only such children without children
};

/// @brief Refines, coarsens and grades the tile tree @p containerName of @p io_object against the
///        level set described by @p sampler.
/// @details Stages, with what they print (debug lines at the verbose levels in brackets):
///          "coarsenRefine.start" [>0]; "Tile tree graded before coarsen refine = " [>2];
///          "Before refine: numTiles at depth d == n" [>1]; the refinement (with any flag set):
///          one parallel pass over the tiles of depths 0 to the deepest depth - 1, where each
///          child slot is wanted or not by `LevelSetSamplerReader::wantsTile` with @p band as its
///          offset; a wanted child that is missing is added (one level per call: the children
///          of new tiles are asked by the next call); with colours,
///          "Numerics::coarsenRefine.propagate_colored_ tiles" colours every tile with a coloured
///          child; the channels follow the added tiles; "After refine: ..." [>1]; the coarsening
///          (bit 0 set, no colours): the unwanted children go, "After coarsen: ..." [>1], "Tile
///          tree graded after coarsen refine = "
///          [>2]; then "coarsenRefine.coarsestDepth = " [>1] and `gradeTileTree` from that depth
///          (0 without a box, else `coarsestDepthFromDimensions` of the box) to the deepest
///          depth, "Tile tree graded after grade call = " [>2]; "coarsenRefine.end" [>0].
///          Tiles added by the grading are left to the caller's channels: their blocks exist but
///          hold the initialiser's values, and with @p io_colors their coordinates are not
///          reported.
/// @param band            world distance added to the refinement band; negative: 3 voxels
/// @param coarsenBand     world distance kept around the band when coarsening; negative: 0.91349995
///                        voxels. Children are removed only when |phi| exceeds the refinement
///                        band by more than this
/// @param flags           `CoarsenRefineFlag` bits; 0 refines nothing and only grades
/// @param sampler         the level set: channel name, band factor, local level, box
/// @param containerName, topologyName  the tree and its voxel topology in @p io_object, of
///                        tree type @p Traits; without the tree, "coarsenRefine: unable to
///                        retrieve container" goes to the error stream and nothing happens
/// @param io_object       the volume; its channels bound to the topology follow the tree
/// @param channelNames    space-separated names of the channels to keep in step; empty: all
///                        channels bound to the topology
/// @param box             optional world box: no child outside it is added, and it sets the
///                        coarsest graded depth
/// @param io_colors       optional per-depth colours (`Traits::kDepthCount` vectors); with them
///                        nothing is removed
/// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only; the components
///         return to the object.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API void coarsenRefine(float band, float coarsenBand, int flags,
                               LevelSetSampler const& sampler, Quillon::String const& containerName,
                               Quillon::String const& topologyName, TVL::Object& io_object,
                               Quillon::String const& channelNames,
                               TVL::TileTree3D::bbox<Tavrel::Math::float3, float> const* box,
                               std::vector<TileColor>* io_colors);

} // namespace CoreGL::TileTree3D
