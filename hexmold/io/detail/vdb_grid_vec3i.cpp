/// @file  io/detail/vdb_grid_vec3i.cpp
/// @brief `voxelGrid` and `readVoxelGrid` for the int32 triple grid type (`Vec3IGrid`), one grid
///        type per source so that the grid instances compile in parallel and none takes long.
#if HEXMOLD_HAVE_OPENVDB
#include <hexmold/io/detail/vdb_grids_impl.h>

namespace hexmold::io::detail {

HEXMOLD_IO_GRID_INSTANCES(Vec3IGrid)

} // namespace hexmold::io::detail

#endif // HEXMOLD_HAVE_OPENVDB
