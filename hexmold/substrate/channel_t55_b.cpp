/// @file  substrate/channel_t55_b.cpp
/// @brief Channels of `Traits<5,5,1>` in forms 3 to 5 (6 across (one sample more), 8 across with
///        halo 1, 9 across), for all element types.
#include <hexmold/substrate/detail/channel_impl.h>

namespace TVL::TileTree3D {

#define HEXMOLD_CHANNEL_SHARD(T)                                                                   \
    HEXMOLD_CHANNEL_FORM_Traits55_3(HEXMOLD_CHANNEL_INSTANTIATE, T)                                \
        HEXMOLD_CHANNEL_FORM_Traits55_4(HEXMOLD_CHANNEL_INSTANTIATE, T)                            \
            HEXMOLD_CHANNEL_FORM_Traits55_5(HEXMOLD_CHANNEL_INSTANTIATE, T)
HEXMOLD_FOR_EACH_ELEMENT_TYPE(HEXMOLD_CHANNEL_SHARD)

} // namespace TVL::TileTree3D
