/// @file  levelset/dof_classification.h
/// @brief DOF classification: which voxels of a tile tree are unknowns of the multilevel eikonal
///        solve, which copy a finer voxel, and which hang on the border to a coarser tile.
/// @details The flags depend on the tree alone, never on channel values; recompute them after
///          every change of the tree. A tile is classified after its children (the walk runs
///          from the deepest depth up), because a covered voxel reads the flag of the child voxel
///          under it.
///
///          Per tile at depth d, W voxels across:
///          1. all flags 0;
///          2. the voxels of a low face, low edge or the low corner of the tile get 4 when the
///             tile next to it on that side does not exist at depth d (only the low sides are
///             examined: a high side is the low side of the next tile);
///          3. a leaf voxel (not covered by a child; every voxel at the deepest depth) becomes 1
///             unless it hangs, and gets 8 in addition when none of the seven other voxels of the
///             2 x 2 x 2 block ending at it (i-1..i, j-1..j, k-1..k) is covered by a child, looked
///             up across the low tile borders in same-depth neighbours (a neighbour of another
///             depth counts as not covered); at the deepest depth it always gets 8;
///          4. a covered voxel that hangs keeps 4; otherwise it becomes 1 when the child voxel at
///             the low corner of the region it covers hangs (that child voxel takes its value from
///             this one, so this one is solved here), else 2.
#pragma once
#include <hexmold/export.h>
#include <hexmold/platform/quillon/string.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>

namespace TVL {
class Object;
}

namespace VolumeGL::TileTree3D::LevelSet {

/// Bit values of the DOF channel, a `short` per voxel. The numbers are part of the interface.
enum DOFFlag : short {
    kDOFSolved = 1,         ///< a degree of freedom at its own depth
    kDOFFromChild = 2,      ///< covered by a child tile: takes the covering child voxel's value
    kDOFHanging = 4,        ///< on a low side of the tile with no same-depth tile beside it
    kDOFUnrefinedBlock = 8, ///< leaf voxel with no covered voxel in the 2x2x2 block ending at it
    kDOFNotInterpolated =
        32 ///< read by the interpolation of the adaptive sweep; never written here
};

/// @brief Classifies every voxel of every tile of @p container into @p io_dof.
/// @param container  the tree; unchanged
/// @param io_dof     bound to a voxel topology of @p container; every block of the depths it
///                   holds (normally 0 to the deepest depth) is overwritten. A tile without a
///                   block is skipped, and a covered voxel whose child has no block becomes 2
/// @details One parallel walk over all tiles, children before parents.
/// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only; the flags are then
///         partly written.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API void classifyDegreesOfFreedom(TVL::TileTree3D::Container<Traits> const& container,
                                          TVL::TileTree3D::VoxelChannel<Traits, short>& io_dof);

/// @brief The form on an object: classifies into the `short` voxel channel @p channelName of
///        @p io_object, first creating it (default 0, depths 0 to the deepest depth, bound to the
///        object's voxel topology) when the object has no component of that name.
/// @details Uses the tree `Tavrel::Geometry::sVoxelTileTree` and the topology
///          `Tavrel::Geometry::sVoxelComp` of type @p Traits; without both the call does nothing.
///          A component of that name that is not a `short` voxel channel of this tree type is
///          left alone and nothing is computed. Components taken out of the object return to it
///          also when the call throws.
/// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API void classifyDegreesOfFreedom(Quillon::String const& channelName,
                                          TVL::Object& io_object);

/// @brief Classifies the voxels of one tile (steps 1 to 4 above), for drivers that run the
///        classification inside a walk of their own. The children of @p tile must be classified
///        already.
/// @param accessor  the calling worker's own accessor on the tree of @p tile
/// @param io_dof    as for the whole-tree form; only the block of @p tile is written
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API void classifyTileDegreesOfFreedom(
    TVL::TileTree3D::Tile<Traits> const& tile,
    typename TVL::TileTree3D::Container<Traits>::ConstTileAccessor& accessor,
    TVL::TileTree3D::VoxelChannel<Traits, short>& io_dof);

} // namespace VolumeGL::TileTree3D::LevelSet
