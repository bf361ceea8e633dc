/// @file  substrate/halo_t24_compute_1.cpp
/// @brief Instances of `computeHalo` for `Traits24` and the scalar element types with halo
///        samples; the vector ones are in halo_t24_compute_2.cpp.
#include <hexmold/substrate/detail/halo_impl.h>

namespace TVL::TileTree3D {

HEXMOLD_COMPUTE_HALO_INSTANCES(Traits24, UInt8)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits24, Int16)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits24, Int32)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits24, float)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits24, double)

} // namespace TVL::TileTree3D
