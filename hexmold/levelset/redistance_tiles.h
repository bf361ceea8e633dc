/// @file  levelset/redistance_tiles.h
/// @brief `redistanceTiles`: one colour of the red-black Gauss-Seidel over the tiles of a depth,
///        each tile swept in eight directions on a private copy with a one-voxel halo.
/// @details Tiles of one colour read only halo values of tiles of the other colour and write
///          only their own voxels, so they run in parallel and the result does not depend on the
///          order in which they are visited or on the number of threads.
#pragma once
#include <cstdint>
#include <hexmold/export.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>

namespace VolumeGL::TileTree3D::LevelSet {

/// The colour of a tile in the chessboard of its depth.
enum RedBlackType : int {
    kRed = 0,
    kBlack = 1,
};

/// @brief The colour of the tile with minimum corner @p corner (finest voxels) at @p depth:
///        the parity of the sum of its tile-lattice coordinates.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API RedBlackType tileColor(Tavrel::Math::int3 const& corner, int depth);

/// @brief Sweeps the tiles of colour @p colour at @p depth once, each in the eight sweep
///        directions, and writes them back.
/// @param colour        which half of the chessboard
/// @param io_distance   the distance channel (world units), read with halos and written
/// @param mask          optional; gates which tiles take part (see details)
/// @param container     the tree
/// @param valueType     value types; only voxels of type 2 change, type 3 is never read
/// @param depth         the depth swept
/// @param interiorBand, exteriorBand  world units; a tile wholly beyond them is skipped
/// @param useBandAtTiles  true on the way down (pre-smoothing): tiles whose parent voxel is
///                      unknown still take part
/// @param haloByExtrapolation  halo mode 4 instead of 2
/// @param performCoalescedRedistance  for `Traits<2,4,1>`, sweep the eight children of each
///                      tile of depth - 1 as one 8^3 block (only without mask and bands, with
///                      useBandAtTiles and without haloByExtrapolation, below depth 0)
/// @return the largest change of any voxel (world units)
/// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API float
redistanceTiles(RedBlackType colour, TVL::TileTree3D::VoxelChannel<Traits, float>& io_distance,
                TVL::TileTree3D::VoxelChannel<Traits, float> const* mask,
                TVL::TileTree3D::Container<Traits> const& container,
                TVL::TileTree3D::VoxelChannel<Traits, unsigned char> const* valueType, int depth,
                float interiorBand, float exteriorBand, bool useBandAtTiles,
                bool haloByExtrapolation, bool performCoalescedRedistance);

} // namespace VolumeGL::TileTree3D::LevelSet
