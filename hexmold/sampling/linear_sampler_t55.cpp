/// @file  sampling/linear_sampler_t55.cpp
/// @brief Instances of the linear sampler for `Traits55`.
#include <hexmold/sampling/detail/linear_sampler_impl.h>

namespace TVL::TileTree3D {

HEXMOLD_FOR_EACH_SAMPLER_ELEMENT(HEXMOLD_INSTANTIATE_LINEAR_SAMPLER, Traits55)

} // namespace TVL::TileTree3D
