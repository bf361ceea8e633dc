/// @file  substrate/channel_t24_a.cpp
/// @brief Channels of `Traits<2,4,1>` in forms 0 to 2 (4 across with halo 0, 1 and 2), for all
///        element types.
#include <hexmold/substrate/detail/channel_impl.h>

namespace TVL::TileTree3D {

#define HEXMOLD_CHANNEL_SHARD(T)                                                                   \
    HEXMOLD_CHANNEL_FORM_Traits24_0(HEXMOLD_CHANNEL_INSTANTIATE, T)                                \
        HEXMOLD_CHANNEL_FORM_Traits24_1(HEXMOLD_CHANNEL_INSTANTIATE, T)                            \
            HEXMOLD_CHANNEL_FORM_Traits24_2(HEXMOLD_CHANNEL_INSTANTIATE, T)
HEXMOLD_FOR_EACH_ELEMENT_TYPE(HEXMOLD_CHANNEL_SHARD)

} // namespace TVL::TileTree3D
