/// @file  substrate/halo_t24_a.cpp
/// @brief Instances of the halo operations for `Traits24`, element types of list A, and of
///        `computeHalo`.
#include <hexmold/substrate/detail/halo_impl.h>

namespace TVL::TileTree3D {

HEXMOLD_FOR_EACH_ELEMENT_A(HEXMOLD_HALO_TILE_INSTANCES, Traits24)
HEXMOLD_FOR_EACH_HALO_ELEMENT(HEXMOLD_COMPUTE_HALO_INSTANCES, Traits24)

} // namespace TVL::TileTree3D
