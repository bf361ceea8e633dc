/// @file  substrate/halo_t24_b.cpp
/// @brief Instances of the halo operations for `Traits24`, element types of list B.
#include <hexmold/substrate/detail/halo_impl.h>

namespace TVL::TileTree3D {

HEXMOLD_FOR_EACH_ELEMENT_B(HEXMOLD_HALO_TILE_INSTANCES, Traits24)

} // namespace TVL::TileTree3D
