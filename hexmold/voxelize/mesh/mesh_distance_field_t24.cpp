/// @file  voxelize/mesh/mesh_distance_field_t24.cpp
/// @brief `createMeshDistanceField` for `Traits<2,4,1>`.
#include <hexmold/voxelize/mesh/detail/mesh_distance_field_impl.h>

namespace VolumeGL::TileTree3D {
template decltype(createMeshDistanceField<TVL::TileTree3D::Traits24>)
    createMeshDistanceField<TVL::TileTree3D::Traits24>;
} // namespace VolumeGL::TileTree3D
