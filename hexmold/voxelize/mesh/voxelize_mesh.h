/// @file  voxelize/mesh/voxelize_mesh.h
/// @brief `voxelizeMesh`: a polygon mesh becomes a sparse adaptive signed distance volume.
/// @details A straight sequence of timed stages: fan triangulation, the choice of the point
///          properties to carry, the distance field with its signs (`createMeshDistanceField`,
///          retried without the error test when the error-driven tree hides a crossing),
///          redistancing, coarsening and pruning (with hole closing or thickening), and the
///          transfer of point properties into voxel channels through each voxel's closest
///          triangle, extended beyond by extrapolation.
///
///          Timer names start with "Geometry::Converters::mesh_to_level_set.": "triangulate",
///          "create_distance" (and the build's own), "levelSetRedistance", "properties"; at
///          verbose above 0 the parameters and hash lines of each stage are printed.
#pragma once
#include <hexmold/export.h>
#include <hexmold/platform/quillon/array.h>
#include <hexmold/platform/quillon/runtime_services.h>
#include <hexmold/platform/quillon/string.h>
#include <hexmold/platform/tavrel/math.h>
#include <hexmold/platform/tavrel/object.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/voxelize/voxelize_types.h>

namespace VolumeGL::TileTree3D {

/// @brief Builds the signed distance volume of a polygon mesh.
/// @param mesh          the mesh object: its point properties are carried into the volume
/// @param positions     point positions (world)
/// @param faceVertex    the vertex indices of all faces, face after face
/// @param faceOffset    start of each face in @p faceVertex, then one past the end; faces of
///                      three or more vertices are fan-triangulated, smaller ones skipped
/// @param properties    which point properties become voxel channels (a `ChannelParser`
///                      pattern: "*", "Cd, v", "^point_position"...); "" none
/// @param detailSizes   per-point sizes for `AdaptivityDetailSizes`, or null
/// @param computeInterior  solid (signed) volume; false: an unsigned shell, thickened by
///                      @p thickeningRadius
/// @param adaptivity    what drives refinement; `AdaptivityResolutionFields` with no field
///                      takes the sparse, non-adaptive build
/// @param in_maxRelativeError  tolerance of the error test relative to the largest side of the
///                      mesh's box (0: refine everywhere near the surface); used only for solids
/// @param minHoleRadius world; positive: holes narrower than about this radius are closed (at
///                      least one voxel)
/// @param thickeningRadius  voxels; the surface is offset outwards by this much
/// @param resolutionFields  boxes asking for depths, or null
/// @param container     output tree; arrives with its voxel size set (usually empty)
/// @param topology      output voxel topology
/// @param distance      output distance channel (world units); its default value is the far value
/// @param volumeObject  receives a channel per transferred property
/// @param services      message sink ("Type not supported. Can't create property ..." at
///                      category 2)
/// @details Input that cannot be a mesh (offsets that decrease, run past the vertex list or do not
///          start at 0, indices past the points, non-finite positions) is reported on the error
///          stream and through @p services, and nothing is built.
/// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only; temporaries are
///         released and the caller's objects stay usable.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API void
voxelizeMesh(Tavrel::Object const& mesh, Quillon::Array<Tavrel::Math::float3> const& positions,
             Quillon::Array<unsigned int> const& faceVertex,
             Quillon::Array<unsigned int> const& faceOffset, Quillon::String const& properties,
             Quillon::Array<float> const* detailSizes, bool computeInterior,
             Adaptivity const& adaptivity, float in_maxRelativeError, float minHoleRadius,
             float thickeningRadius, Quillon::Array<ResolutionField> const* resolutionFields,
             TVL::TileTree3D::Container<Traits>& container,
             TVL::TileTree3D::VoxelTopology<Traits>& topology,
             TVL::TileTree3D::Channel<Traits, float, Traits::kTileWidth, 0, 0>& distance,
             TVL::Object& volumeObject, Quillon::RuntimeServices const& services);

} // namespace VolumeGL::TileTree3D
