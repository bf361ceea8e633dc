/// @file  substrate/halo_t24_tiles_4.cpp
/// @brief Instances of the per-tile halo operations for `Traits24`: float2, float3.
/// @details One of eight shards, so that no translation unit of the halo takes long to compile.
#include <hexmold/substrate/detail/halo_impl.h>

namespace TVL::TileTree3D {

HEXMOLD_HALO_TILE_INSTANCES(Traits24, float2)
HEXMOLD_HALO_TILE_INSTANCES(Traits24, float3)

} // namespace TVL::TileTree3D
