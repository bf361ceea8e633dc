/// @file  substrate/halo_t55_b.cpp
/// @brief Instances of the halo operations for `Traits55`, element types of list B.
#include <hexmold/substrate/detail/halo_impl.h>

namespace TVL::TileTree3D {

HEXMOLD_FOR_EACH_ELEMENT_B(HEXMOLD_HALO_TILE_INSTANCES, Traits55)

} // namespace TVL::TileTree3D
