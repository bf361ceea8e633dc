/// @file  voxelize/mesh/mesh_distance_field.h
/// @brief `createMeshDistanceField`: grows a tile tree around a triangle soup and fills a
///        distance channel with exact distances to it.
/// @details Two builds. The adaptive build derives a coarse depth from the mesh's box, assigns
///          the triangles to the tiles of that depth, grades the tree above it, and refines each
///          coarse tile top-down in parallel: a child keeps the triangles that can reach it,
///          computes exact distances on its node lattice (copying the nodes it shares with its
///          parent), and exists only if the surface comes within its band and, with an error
///          tolerance, if trilinear interpolation of the parent misses its values. The sparse
///          build assigns triangles straight to finest tiles around the surface, measures each
///          triangle in the voxels of its box, and carries closest-triangle ids to the other
///          voxels of those tiles by a red-black fast sweep.
///
///          Values are distances in world units, unsigned or (with `computeInterior`) negative
///          inside. A voxel of depth d with corner c (tile
///          space) holds the distance at (c + offset) * voxelSize, the offset being the
///          topology's sample offset in finest voxels, which is the voxel's sample position at
///          the finest depth. Voxels that no triangle reaches hold the far value, the distance
///          channel's default value.
#pragma once
#include <cstdint>
#include <hexmold/export.h>
#include <hexmold/platform/quillon/array.h>
#include <hexmold/platform/quillon/ptr.h>
#include <hexmold/platform/tavrel/math.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/voxelize/mesh/triangle_distance_kernel.h>
#include <hexmold/voxelize/voxelize_types.h>

namespace VolumeGL::TileTree3D {

/// @brief Builds the tree around a triangle soup and fills @p distance with exact unsigned
///        distances (then thickening and inversion when asked).
/// @param io_container     the tree; arrives with its voxel size set, usually with no tiles or
///                         only roots, and gains the tiles of the volume
/// @param io_topology      follows the tree's tiles
/// @param io_distance      the distance channel; its default value is the far value
/// @param io_closestTriangleChannel  null, or a slot that receives a new int64 channel holding,
///                         for each voxel the distance was measured for, the index of the
///                         closest triangle (-1: none); the sparse build makes one of its own
///                         when none is asked for
/// @param triangles        three point indices per triangle
/// @param positions        world point positions
/// @param detailSizes      per-point detail sizes (world units) for `AdaptivityDetailSizes`, or
///                         null; when given it must have one value per point
/// @param computeInterior  make the volume solid: voxels inside the mesh become negative. The
///                         adaptive build walks the parity of exact edge crossings (see
///                         mesh_interior.h) and falls back to a flood fill when the mesh is not
///                         closed; the sparse build counts crossings along x columns. Otherwise
///                         the field stays unsigned
/// @param holeRadius       world units; positive: holes below this radius are to be closed, and
///                         the error test is off
/// @param thickeningDistance  world units; subtracted from every voxel at the end when positive
/// @param invert           negate every voxel and the default value at the end
/// @param narrowBandHalfWidth  voxels; the sparse build's band
/// @param signMode, sweepAxis  passed on to the sign stage (0 from the voxelizer)
/// @param adaptiveBuild    the adaptive build (true) or the sparse build (false)
/// @param adaptivity       what drives refinement in the adaptive build
/// @param maxRelativeError tolerance of the error test, relative to the box's largest side
/// @param resolutionFields boxes asking for depths, or null
/// @param out_minDepth     receives the coarse depth of the adaptive build (null: not wanted)
/// @param out_bboxMaxSideLength  receives the largest side of the mesh's padded box
/// @return true, but for a mesh whose signs contradict themselves on an error-driven tree (then
///         the caller repeats the build without the error test). Bad input (indices out of
///         range, non-finite positions, a mesh beyond the tree's domain, a voxel size that is not
///         positive, detail sizes of the wrong length) is reported on the error stream and leaves
///         the tree and channels as they came; an empty triangle list returns at once.
/// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only; the caller's
///         tree and channels then stay usable (possibly partly built).
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API bool createMeshDistanceField(
    TVL::TileTree3D::Container<Traits>& io_container,
    TVL::TileTree3D::VoxelTopology<Traits>& io_topology,
    TVL::TileTree3D::VoxelChannel<Traits, float>& io_distance,
    Quillon::Ptr<TVL::TileTree3D::VoxelChannel<Traits, TriangleId>>* io_closestTriangleChannel,
    Quillon::Array<Tavrel::Math::ulong3> const& triangles,
    Quillon::Array<Tavrel::Math::float3> const& positions, Quillon::Array<float> const* detailSizes,
    bool computeInterior, float holeRadius, float thickeningDistance, bool invert,
    int narrowBandHalfWidth, int signMode, int sweepAxis, bool adaptiveBuild, Adaptivity adaptivity,
    float maxRelativeError, Quillon::Array<ResolutionField> const* resolutionFields,
    int* out_minDepth, float* out_bboxMaxSideLength);

} // namespace VolumeGL::TileTree3D
