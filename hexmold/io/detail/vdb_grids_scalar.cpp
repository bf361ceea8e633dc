/// @file  io/detail/vdb_grids_scalar.cpp
/// @brief `voxelGrid` and `readVoxelGrid` for the scalar grid types: int32, int64, float and
/// double.
#if HEXMOLD_HAVE_OPENVDB
#include <hexmold/io/detail/vdb_grids_impl.h>

namespace hexmold::io::detail {

HEXMOLD_IO_GRID_INSTANCES(Int32Grid)
HEXMOLD_IO_GRID_INSTANCES(Int64Grid)
HEXMOLD_IO_GRID_INSTANCES(FloatGrid)
HEXMOLD_IO_GRID_INSTANCES(DoubleGrid)

} // namespace hexmold::io::detail

#endif // HEXMOLD_HAVE_OPENVDB
