/// @file  substrate/halo_t24_compute.cpp
/// @brief Instances of `computeHalo` for `Traits24` and the element types with halo samples.
#include <hexmold/substrate/detail/halo_impl.h>

namespace TVL::TileTree3D {

HEXMOLD_COMPUTE_HALO_INSTANCES(Traits24, UInt8)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits24, Int16)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits24, Int32)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits24, float)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits24, double)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits24, float2)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits24, float3)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits24, float4)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits24, double3)

} // namespace TVL::TileTree3D
