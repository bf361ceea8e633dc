/// @file  voxelize/mesh/voxelize_mesh_t55.cpp
/// @brief `voxelizeMesh` for `Traits<5,5,1>`.
#include <hexmold/voxelize/mesh/detail/voxelize_mesh_impl.h>

namespace VolumeGL::TileTree3D {
template decltype(voxelizeMesh<TVL::TileTree3D::Traits55>) voxelizeMesh<TVL::TileTree3D::Traits55>;
} // namespace VolumeGL::TileTree3D
