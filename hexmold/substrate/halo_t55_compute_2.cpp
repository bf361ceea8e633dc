/// @file  substrate/halo_t55_compute_2.cpp
/// @brief Instances of `computeHalo` for `Traits55` and the vector element types with halo
///        samples; the scalar ones are in halo_t55_compute_1.cpp.
#include <hexmold/substrate/detail/halo_impl.h>

namespace TVL::TileTree3D {

HEXMOLD_COMPUTE_HALO_INSTANCES(Traits55, float2)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits55, float3)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits55, float4)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits55, double3)

} // namespace TVL::TileTree3D
