/// @file  substrate/halo_t55_tiles_1.cpp
/// @brief Instances of the per-tile halo operations for `Traits55`: Int8, UInt8, Int16.
/// @details One of eight shards, so that no translation unit of the halo takes long to compile.
#include <hexmold/substrate/detail/halo_impl.h>

namespace TVL::TileTree3D {

HEXMOLD_HALO_TILE_INSTANCES(Traits55, Int8)
HEXMOLD_HALO_TILE_INSTANCES(Traits55, UInt8)
HEXMOLD_HALO_TILE_INSTANCES(Traits55, Int16)

} // namespace TVL::TileTree3D
