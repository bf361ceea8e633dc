/// @file  substrate/halo_t24_tiles_7.cpp
/// @brief Instances of the per-tile halo operations for `Traits24`: float4x2, float4x4.
/// @details One of eight shards, so that no translation unit of the halo takes long to compile;
///          the two largest element types share this one.
#include <hexmold/substrate/detail/halo_impl.h>

namespace TVL::TileTree3D {

HEXMOLD_HALO_TILE_INSTANCES(Traits24, float4x2)
HEXMOLD_HALO_TILE_INSTANCES(Traits24, float4x4)

} // namespace TVL::TileTree3D
