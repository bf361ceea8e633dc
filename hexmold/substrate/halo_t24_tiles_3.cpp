/// @file  substrate/halo_t24_tiles_3.cpp
/// @brief Instances of the per-tile halo operations for `Traits24`: float, double.
/// @details One of eight shards, so that no translation unit of the halo takes long to compile.
#include <hexmold/substrate/detail/halo_impl.h>

namespace TVL::TileTree3D {

HEXMOLD_HALO_TILE_INSTANCES(Traits24, float)
HEXMOLD_HALO_TILE_INSTANCES(Traits24, double)

} // namespace TVL::TileTree3D
