/// @file  substrate/halo_t55_compute_1.cpp
/// @brief Instances of `computeHalo` for `Traits55` and the scalar element types with halo
///        samples; the vector ones are in halo_t55_compute_2.cpp.
#include <hexmold/substrate/detail/halo_impl.h>

namespace TVL::TileTree3D {

HEXMOLD_COMPUTE_HALO_INSTANCES(Traits55, UInt8)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits55, Int16)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits55, Int32)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits55, float)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits55, double)

} // namespace TVL::TileTree3D
