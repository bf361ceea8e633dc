/// @file  substrate/halo_t55_tiles_3.cpp
/// @brief Instances of the per-tile halo operations for `Traits55`: float2, Int16.
/// @details One of nine shards, each with one floating-point element type (whose rim can be
///          interpolated at resolution jumps, the costly part to compile) and one integer type,
///          so that no translation unit of the halo takes long to compile.
#include <hexmold/substrate/detail/halo_impl.h>

namespace TVL::TileTree3D {

HEXMOLD_HALO_TILE_INSTANCES(Traits55, float2)
HEXMOLD_HALO_TILE_INSTANCES(Traits55, Int16)

} // namespace TVL::TileTree3D
