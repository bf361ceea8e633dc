/// @file  substrate/halo_t55_a.cpp
/// @brief Instances of the halo operations for `Traits55`, element types of list A, and of
///        `computeHalo`.
#include <hexmold/substrate/detail/halo_impl.h>

namespace TVL::TileTree3D {

HEXMOLD_FOR_EACH_ELEMENT_A(HEXMOLD_HALO_TILE_INSTANCES, Traits55)
HEXMOLD_FOR_EACH_HALO_ELEMENT(HEXMOLD_COMPUTE_HALO_INSTANCES, Traits55)

} // namespace TVL::TileTree3D
