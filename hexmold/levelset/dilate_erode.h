/// @file  levelset/dilate_erode.h
/// @brief Dilation and erosion of the tiles around a level set: add every tile within a distance
///        of the surface, remove every tile farther from it than a distance.
/// @details Neither operation evaluates or moves the field; the values of new tiles are the
///          caller's to write. `dilate` grows from the tiles that hold the surface within a
///          voxel's diagonal, by a radius; `erode` keeps a whole tile diagonal of safety on top
///          of the bandwidth, so that a tile that could still matter stays. The two bracket the
///          narrow band of resize and offset.
///
///          Afterwards the voxel topology and the channels of the tree are stale: the caller
///          updates the topology with the tree and the channels with the topology (after
///          `erode`, with the pairs of the removal). The precomputed tile neighbours are fresh.
#pragma once
#include <hexmold/export.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>

namespace VolumeGL::TileTree3D::LevelSet {

/// @brief Adds every tile, at the depth of a surface tile, whose centre lies within a radius of
///        that surface tile's centre.
/// @details A tile of depth d holds the surface when one of its voxels has
///          |value| < w * s * 1.7320508 * 1.01 (w the voxel width at d in finest voxels, s the
///          finest voxel size). Around it the tiles of depth d on its lattice whose centre is
///          closer than R = D * 1.01 / 2 + bandwidth / s to its centre are added, D being the
///          tile's diagonal in finest voxels (a coarse surface tile adds coarse tiles).
///          Timers "Volume::resize_level_set.dilate.reduce", ".dilate.refine" and
///          ".dilate.precompute_neighbors"; "levelset_dilate.begin"/".end" at verbose above 0;
///          the logger's info gets "Added n tiles.".
/// @param bandwidth   world units; 0 still adds the tiles within 1.01 half diagonals
/// @param io_container  gains tiles (merged on the calling thread after a parallel reduction)
/// @param distance    the level set (world units); read only
/// @param out_newTiles  per depth, the corners of the tiles added are appended
/// @param logger      `QuillonLogger`, `ConsoleLogger` or `NOPLogger`
/// @param minDepth, maxDepth  inclusive range of the surface tiles visited (clamped)
/// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only; nothing is added.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>` and the three loggers.
template <typename Traits, typename Logger>
HEXMOLD_API void dilate(float bandwidth, TVL::TileTree3D::Container<Traits>& io_container,
                        TVL::TileTree3D::VoxelChannel<Traits, float>& distance,
                        TVL::TileTree3D::TileCornerLists<Traits>& out_newTiles,
                        Logger const& logger, int minDepth, int maxDepth);

/// @brief Removes every tile none of whose voxels has |value| < s * 1.01 * 1.7320508 * t +
///        bandwidth, t being the tile's width in finest voxels and s the finest voxel size.
/// @details One parallel reduction over all depths collects the tiles per depth; the removal,
///          which takes the descendants of a removed tile along, runs on the calling thread.
///          A tile for which @p distance holds no block (outside its depth range, or beyond its
///          blocks) has no voxel below the threshold and is removed; a channel whose depth range
///          leaves out depth 0 thus loses the whole tree. The logger's info gets
///          "Removed n tiles.". No channel is changed: the caller brings the topology and every
///          channel, @p distance included, in step with the tree as after any removal, taking the
///          (from, to) pairs from `recordTileLayout` before the call and `tileMovesSince` after
///          it (substrate/channel_update.h).
/// @param bandwidth     world units
/// @param io_container  loses tiles
/// @param distance      the level set (world units); only read
/// @param logger        `QuillonLogger`, `ConsoleLogger` or `NOPLogger`
/// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only; nothing is removed.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>` and the three loggers.
template <typename Traits, typename Logger>
HEXMOLD_API void erode(float bandwidth, TVL::TileTree3D::Container<Traits>& io_container,
                       TVL::TileTree3D::VoxelChannel<Traits, float>& distance,
                       Logger const& logger);

} // namespace VolumeGL::TileTree3D::LevelSet
