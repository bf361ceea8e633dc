/// @file  analysis/channel_coarsen.h
/// @brief Removal of the tiles whose voxels their parent reproduces by interpolation, and of the
///        tiles whose values all lie outside a narrow band.
/// @details The test, for each child tile of a parent: every sample of the child is compared
///          with the trilinear interpolation of the parent's samples at the child sample's
///          position, where positions honour the topology's sample offset (cell centres or
///          corners). Positions beyond the parent's outermost samples (half a parent voxel at
///          most) read a rim of one sample around the parent: the neighbouring tile's samples
///          where it is of the parent's depth (the halo rule), and where it is coarser or
///          missing the linear extension of the parent's own samples, which reproduces any
///          linear field exactly, where the covering coarse voxel's value would not.
///          Non-leaf parent voxels hold the mean of the voxels below them
///          (`setNonLeafValueToChildValue` runs first), so for cell-centred samples a linear
///          field coarsens away completely. The error of a sample is the squared difference,
///          summed over the components of vector and matrix elements, computed in double
///          precision; a child passes when no sample's error exceeds the tolerance squared (a NaN
///          error fails).
#pragma once
#include <cstdint>
#include <hexmold/export.h>
#include <hexmold/platform/quillon/ptr.h>
#include <hexmold/platform/quillon/string.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/topology.h>
#include <vector>

namespace TVL {
class Object;
}
namespace Tavrel {
class Object;
}

namespace VolumeGL::TileTree3D {

/// @brief Coarsens the tile tree of @p io_volume where the channel @p channelName allows it.
/// @details Stages, under the timer @p timerPrefix + "coarsen":
///          1. the interpolation test: bottom-up over the channel's depths, each child tile of a
///             parent is removed when it passes the test (module comment) against the tolerance
///             @p maxRelativeError, or, without a test, when its voxels are finer than
///             @p minDetailSize. A child stays when one of its own children stays. Removal takes
///             the tile's descendants with it;
///          2. with @p bandWidth positive, the band: a tile of the channel's depth range is kept
///             when one of its voxels has a magnitude below the limit, or when a child is kept;
///             the other tiles go, with their descendants.
///          The tree is the object's `Container` named `sVoxelTileTree` with its `VoxelTopology`
///          named `sVoxelComp`, of `Traits<2,4,1>` or else `Traits<5,5,1>`; the channel is a voxel
///          channel of that tree type, of any of the 18 element types. The topology and every
///          channel of the object bound to it follow the removals.
///          Printed: "isSDF = " [verbose > 1] (1 for a float channel named
///          `sVoxelSignedDistance`, `sVoxelFlameLevelSet` or "surface"), "Num Voxels before
///          coarsening based on narrow band width = " [> 0], "Removing n out of m tiles at depth
///          d" and "numVoxels after pruning = " [> 1].
/// @param channelName       the channel that decides
/// @param minDetailSize     world size; a child whose voxels are smaller is removed untested.
///                          0 or less: no such removal
/// @param maxRelativeError  tolerance of the test, in the channel's units (absolute despite the
///                          name); 0 removes only children reproduced exactly; negative: no child
///                          passes the test
/// @param storeError        creates the float channel `sVoxelSamplingError` (depths 0 to the
///                          deepest) holding, at the voxels of every tested child that remains,
///                          the square root of its error. Ignored when @p channelName is that name
/// @param bandWidth         the band's limit in the channel's units; for the channel named
///                          `sVoxelSignedDistance` it counts the tile's voxels: the limit is
///                          @p bandWidth times the tile's voxel width in finest voxels (no voxel
///                          size factor). 0 or less: no band stage
/// @param io_volume         the volume
/// @param timerPrefix       prefix of the timer name
/// @return true when a tree and the channel were found and the stages ran (whether or not tiles
///         went); false, with a line on the error stream, for a missing tree or channel, an
///         empty tree, a channel out of step with the tree, or a NaN argument.
/// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only; the components
///         return to the object, whole.
HEXMOLD_API bool channelCoarsen(Quillon::String const& channelName, float minDetailSize,
                                float maxRelativeError, bool storeError, float bandWidth,
                                TVL::Object& io_volume, Quillon::String const& timerPrefix);

/// @brief The same on the runtime's geometry object: its volume components move into a volume,
///        are coarsened, and move back. A null @p io_object gives false.
HEXMOLD_API bool channelCoarsen(Quillon::String const& channelName, float minDetailSize,
                                float maxRelativeError, bool storeError, float bandWidth,
                                Quillon::MutablePtr<Tavrel::Object>& io_object,
                                Quillon::String const& timerPrefix);

} // namespace VolumeGL::TileTree3D

namespace VolumeGL::TileTree3D::LevelSet {

/// Entries of the lists `levelSetCoarsen` returns: one per depth of the deeper tree type.
inline constexpr int kCoarsenListCount = 29;

/// @brief The tiles of a level set that their parents reproduce, for `Container::removeTiles`.
/// @details Runs `setNonLeafValueToChildValue` on @p distance, then the interpolation test of this
///          file on every child tile of depths 1 to the deepest, against the tolerance
///          @p maxRelativeError * voxel size * @p bboxMaxSideLength. A passing child is listed
///          whatever its own children do. Nothing is removed here. Raises the container's maximum
///          relative refinement error to @p maxRelativeError when that is larger.
///          Printed at verbose above 0: "levelset_coarsen.begin", "in_voxelSize = ",
///          "in_maxRelativeError = ", "in_bboxMaxSideLength = ", "Num Voxels before adaptive
///          coarsening = ", and "levelset_coarsen.end"; above 1 "SideLength = ".
/// @param voxelSize          world; when positive the larger of it and the container's voxel
///                           size is used, otherwise the container's
/// @param maxRelativeError   relative to the voxel size and the box side; negative: nothing passes
/// @param container          the tree (only its maximum relative refinement error changes)
/// @param topology           its voxel topology, for the sample offset
/// @param distance           the level set, world units; its non-leaf voxels are rewritten
/// @param error              optional float channel bound to the same topology: receives the
///                           square root of the error at the voxels of every tested child
/// @param bboxMaxSideLength  world; 0 or less: the largest side of the box of the voxels whose
///                           value is not positive (0 when there are none)
/// @return per depth (`kCoarsenListCount` lists) the sorted indices of the tiles to remove
/// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API std::vector<std::vector<std::int64_t>>
levelSetCoarsen(float voxelSize, float maxRelativeError,
                TVL::TileTree3D::Container<Traits>& container,
                TVL::TileTree3D::VoxelTopology<Traits> const& topology,
                TVL::TileTree3D::VoxelChannel<Traits, float>& distance,
                TVL::TileTree3D::VoxelChannel<Traits, float>* error, float bboxMaxSideLength);

} // namespace VolumeGL::TileTree3D::LevelSet
