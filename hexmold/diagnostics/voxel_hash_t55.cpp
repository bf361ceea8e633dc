/// @file  diagnostics/voxel_hash_t55.cpp
/// @brief Instances of the voxel hash for `Traits55`, all 18 element types.
#include <hexmold/diagnostics/detail/voxel_hash_impl.h>

namespace CoreGL {

using namespace TVL::TileTree3D;

HEXMOLD_FOR_EACH_ELEMENT(HEXMOLD_INSTANTIATE_VOXEL_HASH, Traits55)

} // namespace CoreGL
