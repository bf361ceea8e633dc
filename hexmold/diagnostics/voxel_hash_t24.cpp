/// @file  diagnostics/voxel_hash_t24.cpp
/// @brief Instances of the voxel hash for `Traits24`, all 18 element types.
#include <hexmold/diagnostics/detail/voxel_hash_impl.h>

namespace CoreGL {

using namespace TVL::TileTree3D;

HEXMOLD_FOR_EACH_ELEMENT(HEXMOLD_INSTANTIATE_VOXEL_HASH, Traits24)

} // namespace CoreGL
