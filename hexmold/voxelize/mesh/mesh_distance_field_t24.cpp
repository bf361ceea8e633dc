/// @file  voxelize/mesh/mesh_distance_field_t24.cpp
/// @brief `createMeshDistanceField` for `Traits<2,4,1>`.
#include <hexmold/voxelize/mesh/detail/mesh_distance_field_impl.h>

namespace VolumeGL::TileTree3D {

template <typename Traits>
bool createMeshDistanceField(
    TVL::TileTree3D::Container<Traits>& io_container, TVL::TileTree3D::VoxelTopology<Traits>& io_topology,
    TVL::TileTree3D::VoxelChannel<Traits, float>& io_distance,
    Quillon::Ptr<TVL::TileTree3D::VoxelChannel<Traits, TriangleId>>* io_closestTriangleChannel,
    Quillon::Array<Tavrel::Math::ulong3> const& triangles, Quillon::Array<Tavrel::Math::float3> const& positions,
    Quillon::Array<float> const* detailSizes, bool computeInterior, float holeRadius, float thickeningDistance,
    bool invert, int narrowBandHalfWidth, int signMode, int sweepAxis, bool adaptiveBuild, Adaptivity adaptivity,
    float maxRelativeError, Quillon::Array<ResolutionField> const* resolutionFields, int* out_minDepth,
    float* out_bboxMaxSideLength)
{
    return detail::createMeshDistanceFieldImpl<Traits>(
        io_container, io_topology, io_distance, io_closestTriangleChannel, triangles, positions, detailSizes,
        computeInterior, holeRadius, thickeningDistance, invert, narrowBandHalfWidth, signMode, sweepAxis,
        adaptiveBuild, adaptivity, maxRelativeError, resolutionFields, out_minDepth, out_bboxMaxSideLength);
}

template decltype(createMeshDistanceField<TVL::TileTree3D::Traits24>) createMeshDistanceField<TVL::TileTree3D::Traits24>;

} // namespace VolumeGL::TileTree3D
