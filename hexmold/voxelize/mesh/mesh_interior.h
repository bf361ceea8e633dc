/// @file  voxelize/mesh/mesh_interior.h
/// @brief Signs of a mesh distance field: inside or outside for every voxel, from exact edge
///        crossings (parity) or, for meshes with holes, by flood fill from the outside.
/// @details Negative is inside; a sign is set by flipping the float's sign bit, so magnitudes
///          are kept exactly.
///
///          Parity: the corner of every root tile is outside. Each tile takes the state of the
///          voxel sample it starts on from its parent (a child tile's first sample is the parent
///          voxel's sample), and walks its own voxels, flipping the state across every grid
///          edge crossed an odd number of times. Depths run from coarse to fine, the tiles of a
///          depth in parallel, so the result does not depend on the threads. Afterwards every
///          grid edge the walk did not take is checked: inside each tile, into the same-depth
///          neighbour across each high face, into a coarser neighbour where a sample of it lies
///          exactly at the edge's end, and between a child's samples and the parent samples they
///          coincide with. A closed mesh passes every check; a mesh with an open edge, seen by
///          the grid, fails one, and the walk reports itself inconsistent.
///
///          Flood fill: the field, less the hole radius, is split into connected regions of equal
///          sign (a lock-free union-find over every voxel of every depth); what is not connected
///          to the corners of the root tiles is inside. The field is then redistanced and the
///          radius added back, which closes holes narrower than about twice the radius.
///
///          Sparse build: crossings are counted along voxel columns of one axis and summed along
///          each column of finest tiles; coarser voxels take the sign their finer data gives.
#pragma once
#include <hexmold/export.h>
#include <hexmold/platform/tavrel/math.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/topology.h>

namespace VolumeGL::TileTree3D {

/// @brief Signs the distance channel by the parity of edge crossings.
/// @param container    the tree; unchanged
/// @param io_distance  unsigned distances in; voxels not covered by a child come out negative
///                     where inside (covered voxels keep their magnitude; the caller fills them
///                     from their children)
/// @param edgeCounts   component a of voxel v: triangles crossed by the grid edge along a from
///                     v's sample to the next sample at v's depth; null or a missing block means
///                     no crossings
/// @return false when a check failed: the mesh is not watertight at the grid's resolution (the
///         signs are then unreliable)
/// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API bool
signByEdgeParity(TVL::TileTree3D::Container<Traits> const& container,
                 TVL::TileTree3D::VoxelChannel<Traits, float>& io_distance,
                 TVL::TileTree3D::VoxelChannel<Traits, Tavrel::Math::int3> const* edgeCounts);

/// @brief Inside/outside by connectivity: closes holes narrower than about twice @p radius.
/// @param radius         world units; the offset at which regions are separated
/// @param adaptiveBuild  true: every depth takes part and the corners of the root tiles seed the
///                       outside; false: the finest depth alone, seeded by the first voxel of the
///                       finest tile with the smallest corner x (then y, z)
/// @details Values in [-eps, 0], eps = voxel size / 1000, are moved to -(eps + 2^-23) before the
///          redistance, so that no voxel stays exactly on the zero level. The offset field is
///          redistanced with ceil(radius / (4 voxel sizes)) + 10 sweeps (the adaptive build with
///          DOF flags) and the radius added back.
/// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API void floodFillInterior(TVL::TileTree3D::Container<Traits> const& container,
                                   TVL::TileTree3D::VoxelTopology<Traits> const& topology,
                                   TVL::TileTree3D::VoxelChannel<Traits, float>& io_distance,
                                   float radius, bool adaptiveBuild);

/// @brief Signs the finest tiles by counting crossings along columns of one axis.
/// @param crossings  per finest voxel, the (signed, with @p signMode) count of triangles crossed
///                   between the voxel's sample and the next sample along the sweep axis
/// @param signMode   0: odd counts are inside; positive: positive sums are inside; negative:
///                   negative sums are inside
/// @param sweepAxis  0, 1: x; 2, 3: y; 4, 5: z; an odd value sweeps from the high side
/// @details A column's count starts at 0 at the first (or, from the high side, last) finest tile
///          of its row of tiles and runs across gaps between tiles.
/// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API void signBySparseColumns(TVL::TileTree3D::Container<Traits> const& container,
                                     TVL::TileTree3D::VoxelChannel<Traits, float>& io_distance,
                                     TVL::TileTree3D::VoxelChannel<Traits, int> const& crossings,
                                     int signMode, int sweepAxis);

/// @brief Gives the voxels of depths 27 to 0 the sign their finer data gives: a covered voxel
///        that of its child's sample, an uncovered voxel that of the covered voxels its region of
///        uncovered voxels (face-connected, one depth) touches; a region touching both takes, voxel
///        by voxel, the sign of an adjacent covered voxel, else stays positive, as does a region
///        touching none.
/// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API void
propagateSignsToCoarserDepths(TVL::TileTree3D::Container<Traits> const& container,
                              TVL::TileTree3D::VoxelChannel<Traits, float>& io_distance);

} // namespace VolumeGL::TileTree3D
