/// @file  io/detail/vdb_grid_float.cpp
/// @brief `voxelGrid` and `readVoxelGrid` for the float grid type (`FloatGrid`), one grid type per
///        source so that the grid instances compile in parallel and none takes long.
#if HEXMOLD_HAVE_OPENVDB
#include <hexmold/io/detail/vdb_grids_impl.h>

namespace hexmold::io::detail {

HEXMOLD_IO_GRID_INSTANCES(FloatGrid)

} // namespace hexmold::io::detail

#endif // HEXMOLD_HAVE_OPENVDB
