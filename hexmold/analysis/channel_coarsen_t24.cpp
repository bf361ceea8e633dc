/// @file  analysis/channel_coarsen_t24.cpp
/// @brief Channel coarsening for `Traits24`: `levelSetCoarsen` and the typed stage of
///        `channelCoarsen` for the 18 element types.
#include <hexmold/analysis/detail/channel_coarsen_impl.h>

namespace VolumeGL::TileTree3D::LevelSet {
template HEXMOLD_API decltype(levelSetCoarsen<TVL::TileTree3D::Traits24>)
    levelSetCoarsen<TVL::TileTree3D::Traits24>;
} // namespace VolumeGL::TileTree3D::LevelSet

namespace VolumeGL::TileTree3D::detail {
#define HEXMOLD_INSTANTIATE_TYPED_COARSEN(TR, T)                                                   \
    template decltype(typedChannelCoarsen<TR, T>) typedChannelCoarsen<TR, T>;
HEXMOLD_FOR_EACH_ELEMENT(HEXMOLD_INSTANTIATE_TYPED_COARSEN, Traits24)
#undef HEXMOLD_INSTANTIATE_TYPED_COARSEN
} // namespace VolumeGL::TileTree3D::detail
