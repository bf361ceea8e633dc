/// @file  io/detail/vdb_grids_vector.cpp
/// @brief `voxelGrid` and `readVoxelGrid` for the vector grid types: float, double and int32
/// triples.
#if HEXMOLD_HAVE_OPENVDB
#include <hexmold/io/detail/vdb_grids_impl.h>

namespace hexmold::io::detail {

HEXMOLD_IO_GRID_INSTANCES(Vec3SGrid)
HEXMOLD_IO_GRID_INSTANCES(Vec3DGrid)
HEXMOLD_IO_GRID_INSTANCES(Vec3IGrid)

} // namespace hexmold::io::detail

#endif // HEXMOLD_HAVE_OPENVDB
