/// @file  diagnostics/channel_check_t55.cpp
/// @brief Instances of the channel check for `Traits55`, all 18 element types.
#include <hexmold/diagnostics/detail/channel_check_impl.h>

namespace CoreGL {

using namespace TVL::TileTree3D;

HEXMOLD_FOR_EACH_ELEMENT(HEXMOLD_INSTANTIATE_CHANNEL_CHECK, Traits55)

} // namespace CoreGL
