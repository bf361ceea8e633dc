/// @file  voxelize/mesh/voxelize_mesh_t24.cpp
/// @brief `voxelizeMesh` for `Traits<2,4,1>`.
#include <hexmold/voxelize/mesh/detail/voxelize_mesh_impl.h>

namespace VolumeGL::TileTree3D {
template decltype(voxelizeMesh<TVL::TileTree3D::Traits24>) voxelizeMesh<TVL::TileTree3D::Traits24>;
} // namespace VolumeGL::TileTree3D
