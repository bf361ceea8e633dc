/// @file  substrate/halo_t24_compute_2.cpp
/// @brief Instances of `computeHalo` for `Traits24` and the vector element types with halo
///        samples; the scalar ones are in halo_t24_compute_1.cpp.
#include <hexmold/substrate/detail/halo_impl.h>

namespace TVL::TileTree3D {

HEXMOLD_COMPUTE_HALO_INSTANCES(Traits24, float2)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits24, float3)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits24, float4)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits24, double3)

} // namespace TVL::TileTree3D
