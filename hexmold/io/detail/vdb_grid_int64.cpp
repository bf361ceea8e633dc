/// @file  io/detail/vdb_grid_int64.cpp
/// @brief `voxelGrid` and `readVoxelGrid` for the int64 grid type (`Int64Grid`), one grid type per
///        source so that the grid instances compile in parallel and none takes long.
#if HEXMOLD_HAVE_OPENVDB
#include <hexmold/io/detail/vdb_grids_impl.h>

namespace hexmold::io::detail {

HEXMOLD_IO_GRID_INSTANCES(Int64Grid)

} // namespace hexmold::io::detail

#endif // HEXMOLD_HAVE_OPENVDB
