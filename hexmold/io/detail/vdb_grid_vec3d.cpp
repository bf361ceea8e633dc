/// @file  io/detail/vdb_grid_vec3d.cpp
/// @brief `voxelGrid` and `readVoxelGrid` for the double triple grid type (`Vec3DGrid`), one grid
///        type per source so that the grid instances compile in parallel and none takes long.
#if HEXMOLD_HAVE_OPENVDB
#include <hexmold/io/detail/vdb_grids_impl.h>

namespace hexmold::io::detail {

HEXMOLD_IO_GRID_INSTANCES(Vec3DGrid)

} // namespace hexmold::io::detail

#endif // HEXMOLD_HAVE_OPENVDB
