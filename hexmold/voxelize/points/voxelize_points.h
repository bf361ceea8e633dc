/// @file  voxelize/points/voxelize_points.h
/// @brief `voxelizePoints`: a point cloud with radii becomes a sparse signed distance volume, the
///        union of one sphere per point, negative inside.
/// @details Two routes. The non-adaptive route (resolution-field adaptivity with no field)
///          allocates the finest tiles that hug the sphere shells, stamps each point's sphere into
///          the voxels of its tile and carries closest-point indices to the rest of the band by a
///          red-black propagation over the tiles. The adaptive route grows the tree top-down from a
///          coarse depth: a child tile exists only where the surface of the union comes within its
///          band and, with an error tolerance, where trilinear interpolation of its parent misses
///          the exact node values. Both end in redistancing. Point properties chosen by a pattern
///          become voxel channels through each voxel's closest point, extended by extrapolation.
///
///          Timer names start with "Geometry::Converters::points_to_level_set.": "main",
///          "non_adaptive", "redistance", "adaptive" and its stages, "assign_properties".
///          At verbose above 0 the hash lines of each stage go to the debug stream.
#pragma once
#include <hexmold/export.h>
#include <hexmold/platform/quillon/array.h>
#include <hexmold/platform/quillon/runtime_services.h>
#include <hexmold/platform/quillon/string.h>
#include <hexmold/platform/tavrel/math.h>
#include <hexmold/platform/tavrel/object.h>
#include <hexmold/substrate/object.h>
#include <hexmold/voxelize/voxelize_types.h>

namespace VolumeGL::TileTree3D {

/// @brief Rewrites the level set of @p volume as the signed distance to the union of the spheres
///        of a point cloud.
/// @param geometry         the point cloud whose point properties are carried over
/// @param positions        sphere centres (world)
/// @param radii            sphere radii (world); one element: one shared radius, else one per
///                         point. Another length is refused with an error message
/// @param detailSizes      per-point world detail sizes, read with `AdaptivityDetailSizes`; null
///                         or one per point
/// @param adaptivity       what drives refinement; `AdaptivityResolutionFields` with no field takes
///                         the non-adaptive route whatever @p topologyType says
/// @param maxRelativeError tolerance of the interpolation test relative to the largest side of
///                         the points' box (times the voxel size); 0 refines every tile near the
///                         surface to the finest depth. Read with `AdaptivityMaxRelativeError`
/// @param resolutionFields world boxes asking for depths, or null
/// @param grading          band and grading parameter, in finest voxels (1 is usual)
/// @param propertyPattern  `ChannelParser` pattern of the point properties to carry ("" none)
/// @param containerName, topologyName, channelName  the tree, voxel topology and float level-set
///                         channel inside @p volume; all three exist on entry
/// @param volume           the volume; its level set's default value is the far value
/// @param topologyType     keep the tiles of @p volume, or build them from the points
/// @param runtime          message sink: "No points to voxelize." and unsupported property types
///                         at category 2, bad input at category 3
/// @return true when the volume was rewritten; false for an empty cloud or refused input, with
///         @p volume unchanged.
/// @details Points with a non-finite position, or a radius that is negative or not finite, are
///          left out with a warning; the others are voxelized as usual.
/// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only; the components are
///         back in @p volume.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API bool voxelizePoints(
    Tavrel::Object const& geometry, Quillon::Array<Tavrel::Math::float3> const& positions,
    Quillon::Array<float> const& radii, Quillon::Array<float> const* detailSizes,
    Adaptivity const& adaptivity, float maxRelativeError,
    Quillon::Array<ResolutionField> const* resolutionFields, float grading,
    Quillon::String const& propertyPattern, Quillon::String const& containerName,
    Quillon::String const& topologyName, Quillon::String const& channelName, TVL::Object& volume,
    TopologyType topologyType, Quillon::RuntimeServices const& runtime);

/// @brief As above with one radius (world) shared by every point.
template <typename Traits>
HEXMOLD_API bool voxelizePoints(
    Tavrel::Object const& geometry, Quillon::Array<Tavrel::Math::float3> const& positions,
    float radius, Quillon::Array<float> const* detailSizes, Adaptivity const& adaptivity,
    float maxRelativeError, Quillon::Array<ResolutionField> const* resolutionFields, float grading,
    Quillon::String const& propertyPattern, Quillon::String const& containerName,
    Quillon::String const& topologyName, Quillon::String const& channelName, TVL::Object& volume,
    TopologyType topologyType, Quillon::RuntimeServices const& runtime);

} // namespace VolumeGL::TileTree3D
