/// @file  substrate/channel_t24_b.cpp
/// @brief Channels of `Traits<2,4,1>` in forms 3 to 5 (5 across (one sample more), 8 across with
///        halo 1, 9 across), for all element types.
#include <hexmold/substrate/detail/channel_impl.h>

namespace TVL::TileTree3D {

#define HEXMOLD_CHANNEL_SHARD(T)                                                                   \
    HEXMOLD_CHANNEL_FORM_Traits24_3(HEXMOLD_CHANNEL_INSTANTIATE, T)                                \
        HEXMOLD_CHANNEL_FORM_Traits24_4(HEXMOLD_CHANNEL_INSTANTIATE, T)                            \
            HEXMOLD_CHANNEL_FORM_Traits24_5(HEXMOLD_CHANNEL_INSTANTIATE, T)
HEXMOLD_FOR_EACH_ELEMENT_TYPE(HEXMOLD_CHANNEL_SHARD)

} // namespace TVL::TileTree3D
