/// @file  substrate/halo_t24_b.cpp
/// @brief Instances of the halo operations for `Traits24`, element types of list B.
#include <hexmold/substrate/detail/halo_impl.h>

namespace TVL::TileTree3D {

#define HEXMOLD_HALO_TILE(TR, T)                                                                   \
    template decltype(setHaloTile<TR, T, 0, 1, 0, 0>) setHaloTile<TR, T, 0, 1, 0, 0>;              \
    template decltype(setHaloTile<TR, T, 0, 2, 0, 0>) setHaloTile<TR, T, 0, 2, 0, 0>;              \
    template decltype(setHaloTile<TR, T, 1, 1, 0, 0>) setHaloTile<TR, T, 1, 1, 0, 0>;              \
    template decltype(setHaloTile<TR, T, 0, 1, 0, 1>) setHaloTile<TR, T, 0, 1, 0, 1>;              \
    template decltype(setHaloTile<TR, T, 0, 2, 0, 1>) setHaloTile<TR, T, 0, 2, 0, 1>;              \
    template decltype(setHaloTile<TR, T, 1, 1, 0, 1>) setHaloTile<TR, T, 1, 1, 0, 1>;              \
    template decltype(setNonLeafValueToChildValue<TR, T, TR::kTileWidth, 0>)                       \
        setNonLeafValueToChildValue<TR, T, TR::kTileWidth, 0>;
HEXMOLD_FOR_EACH_ELEMENT_B(HEXMOLD_HALO_TILE, Traits24)
#undef HEXMOLD_HALO_TILE

} // namespace TVL::TileTree3D
