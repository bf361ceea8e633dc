/// @file  levelset/extrapolate_channel_t24.cpp
/// @brief The exported `extrapolateChannel` instances of `Traits<2,4,1>`, all 18 element types.
#include <hexmold/levelset/detail/extrapolate_channel_impl.h>
#include <hexmold/substrate/type_lists.h>

namespace VolumeGL::TileTree3D::LevelSet {
using namespace TVL::TileTree3D;
HEXMOLD_FOR_EACH_ELEMENT(HEXMOLD_INSTANTIATE_EXTRAPOLATE_CHANNEL, Traits24)
} // namespace VolumeGL::TileTree3D::LevelSet
