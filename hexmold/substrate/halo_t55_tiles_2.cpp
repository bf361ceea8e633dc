/// @file  substrate/halo_t55_tiles_2.cpp
/// @brief Instances of the per-tile halo operations for `Traits55`: UInt16, Int32, UInt32.
/// @details One of eight shards, so that no translation unit of the halo takes long to compile.
#include <hexmold/substrate/detail/halo_impl.h>

namespace TVL::TileTree3D {

HEXMOLD_HALO_TILE_INSTANCES(Traits55, UInt16)
HEXMOLD_HALO_TILE_INSTANCES(Traits55, Int32)
HEXMOLD_HALO_TILE_INSTANCES(Traits55, UInt32)

} // namespace TVL::TileTree3D
