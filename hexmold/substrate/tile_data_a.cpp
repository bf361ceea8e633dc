/// @file  substrate/tile_data_a.cpp
/// @brief The one instantiation of the tile data handles for every element type, in the forms
///        of the list's first half.
#include <hexmold/substrate/tile_data.h>

namespace TVL::TileTree3D {

#define HEXMOLD_TILE_DATA_INSTANTIATE(T, W, H)                                                     \
    template class ConstTileData<T, W, H, 0>;                                                      \
    template class TileData<T, W, H, 0>;
#define HEXMOLD_TILE_DATA_INSTANTIATE_FORMS(T)                                                     \
    HEXMOLD_FOR_EACH_TILE_DATA_FORM_A(HEXMOLD_TILE_DATA_INSTANTIATE, T)
HEXMOLD_FOR_EACH_ELEMENT_TYPE(HEXMOLD_TILE_DATA_INSTANTIATE_FORMS)

} // namespace TVL::TileTree3D
