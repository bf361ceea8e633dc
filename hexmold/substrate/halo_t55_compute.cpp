/// @file  substrate/halo_t55_compute.cpp
/// @brief Instances of `computeHalo` for `Traits55` and the element types with halo samples.
#include <hexmold/substrate/detail/halo_impl.h>

namespace TVL::TileTree3D {

HEXMOLD_COMPUTE_HALO_INSTANCES(Traits55, UInt8)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits55, Int16)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits55, Int32)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits55, float)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits55, double)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits55, float2)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits55, float3)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits55, float4)
HEXMOLD_COMPUTE_HALO_INSTANCES(Traits55, double3)

} // namespace TVL::TileTree3D
