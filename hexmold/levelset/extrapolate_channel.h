/// @file  levelset/extrapolate_channel.h
/// @brief Extend per-voxel data from known voxels along the normals of a level set.
/// @details Fast sweeping of grad(phi) . grad(f) = 0 over red-black coloured tiles (Zhao 2005),
///          or a breadth-first wavefront of layers that needs no level set.
#pragma once
#include <hexmold/export.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/topology.h>

namespace VolumeGL::TileTree3D::LevelSet {

/// Extrapolation scheme; the numbers are part of the exported interface.
enum ExtrapolationType : int {
    kExtrapolateLayers = 0, ///< breadth-first layers: each layer takes the mean of the one before
    kExtrapolateFMM = 1,    ///< not implemented: prints one line and does nothing
    kExtrapolateFSM = 2,    ///< fast sweeping along the normals of a level set
};

/// @brief Gives the unknown voxels of @p io_value values carried from the known ones.
/// @details kExtrapolateFSM solves grad(distance) . grad(value) = 0 depth by depth, from the
///          deepest to the shallowest, each depth by at most 10 pairs of red and black colour
///          sweeps over the tiles that hold unknown voxels, until the largest change of a sweep
///          pair falls below the finest voxel size. An unknown voxel takes the mean of its
///          upwind face neighbours weighted by how much nearer the surface they lie, or the plain
///          mean of its six face neighbours when none lies nearer. Integer types sum in the
///          element type and divide in double, truncating; vectors and matrices by component.
///
///          kExtrapolateLayers runs, on every depth from minDepth + 1 (from 0 when minDepth is 0)
///          to maxDepth, a wavefront from the known voxels over face neighbours within the depth:
///          a voxel n face steps from the nearest known voxel takes the mean of its neighbours of
///          layer n - 1. Then, when minDepth > 0, the unknown non-leaf voxels of minDepth take
///          the values of the child voxels at the low corners of their regions. When
///          minDepth < maxDepth, known data climbs to the unknown voxels that cover it, fine to
///          coarse, and with @p dof the unknown hanging voxels (flag 4 without 32) of each depth
///          above minDepth take the multilinear mix of the coarser lattice around them.
///
///          At verbosity above 0 the begin, end and per-iteration lines and "Extrapolation time
///          = ... seconds" are printed.
/// @param type        `ExtrapolationType`; other values print a line and do nothing
/// @param container   the tree
/// @param topology    the voxel topology all channels are bound to
/// @param io_known    non-zero marks a known voxel; never written
/// @param io_value    the data; only voxels with known value 0 are written
/// @param distance    level set (world units) giving the normals; required by kExtrapolateFSM,
///                    which prints an error and returns when it is null
/// @param dof         DOF flags; read by kExtrapolateLayers only, may be null
/// @param minDepth, maxDepth  inclusive depths of the layer scheme; kExtrapolateFSM replaces them
///                    by the depths that the distance, value and known channels all hold
/// @param flipInterior  for kExtrapolateFSM: inside (distance <= 0) the distances are negated,
///                    so that values travel outwards from the surface on both sides
/// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only; the voxels
///         already written keep their new values. Channels whose tile counts differ from the
///         tree's in the depths worked on are reported on the error stream and left alone.
/// Threading: parallel over tiles; the same input gives the same bits on any number of threads.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>` and the 18 channel element types.
template <typename Traits, typename T>
HEXMOLD_API void extrapolateChannel(ExtrapolationType type,
                                    TVL::TileTree3D::Container<Traits> const& container,
                                    TVL::TileTree3D::VoxelTopology<Traits> const& topology,
                                    TVL::TileTree3D::VoxelChannel<Traits, unsigned char>& io_known,
                                    TVL::TileTree3D::VoxelChannel<Traits, T>& io_value,
                                    TVL::TileTree3D::VoxelChannel<Traits, float> const* distance,
                                    TVL::TileTree3D::VoxelChannel<Traits, short> const* dof,
                                    int minDepth, int maxDepth, bool flipInterior);

} // namespace VolumeGL::TileTree3D::LevelSet
