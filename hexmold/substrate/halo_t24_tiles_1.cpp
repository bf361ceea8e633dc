/// @file  substrate/halo_t24_tiles_1.cpp
/// @brief Instances of the per-tile halo operations for `Traits24`: Int8, UInt8, Int16.
/// @details One of eight shards, so that no translation unit of the halo takes long to compile.
#include <hexmold/substrate/detail/halo_impl.h>

namespace TVL::TileTree3D {

HEXMOLD_HALO_TILE_INSTANCES(Traits24, Int8)
HEXMOLD_HALO_TILE_INSTANCES(Traits24, UInt8)
HEXMOLD_HALO_TILE_INSTANCES(Traits24, Int16)

} // namespace TVL::TileTree3D
