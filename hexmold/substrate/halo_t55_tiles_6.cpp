/// @file  substrate/halo_t55_tiles_6.cpp
/// @brief Instances of the per-tile halo operations for `Traits55`: double3, int3.
/// @details One of eight shards, so that no translation unit of the halo takes long to compile.
#include <hexmold/substrate/detail/halo_impl.h>

namespace TVL::TileTree3D {

HEXMOLD_HALO_TILE_INSTANCES(Traits55, double3)
HEXMOLD_HALO_TILE_INSTANCES(Traits55, int3)

} // namespace TVL::TileTree3D
