/// @file  voxelize/mesh/mesh_distance_field_t55.cpp
/// @brief `createMeshDistanceField` for `Traits<5,5,1>`.
#include <hexmold/voxelize/mesh/detail/mesh_distance_field_impl.h>

namespace VolumeGL::TileTree3D {
template decltype(createMeshDistanceField<TVL::TileTree3D::Traits55>)
    createMeshDistanceField<TVL::TileTree3D::Traits55>;
} // namespace VolumeGL::TileTree3D
