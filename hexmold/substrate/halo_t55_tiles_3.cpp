/// @file  substrate/halo_t55_tiles_3.cpp
/// @brief Instances of the per-tile halo operations for `Traits55`: float, double.
/// @details One of eight shards, so that no translation unit of the halo takes long to compile.
#include <hexmold/substrate/detail/halo_impl.h>

namespace TVL::TileTree3D {

HEXMOLD_HALO_TILE_INSTANCES(Traits55, float)
HEXMOLD_HALO_TILE_INSTANCES(Traits55, double)

} // namespace TVL::TileTree3D
