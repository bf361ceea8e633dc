/// @file  substrate/canonical_order.cpp
/// @brief The canonical copy of a scratch tree's tiles.
#include <hexmold/substrate/canonical_order.h>

#include <algorithm>
#include <tuple>
#include <vector>
#include <hexmold/substrate/type_lists.h>

namespace TVL::TileTree3D {

template <typename Traits> void addTilesInCanonicalOrder(Container<Traits> const& scratch, Container<Traits>& io_out)
{
    std::vector<std::tuple<int, int, int, int>> keys;
    keys.reserve(static_cast<std::size_t>(scratch.tileCount(-1)));
    for (int d = 0; d <= Traits::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < scratch.tileCount(d); ++t) {
            Tile<Traits> const& tile = scratch.tile(t, d);
            keys.emplace_back(d, tile.tk(), tile.tj(), tile.ti());
        }
    std::sort(keys.begin(), keys.end());
    auto accessor = io_out.tileAccessor();
    for (auto const& [d, k, j, i] : keys) accessor.addTile(i, j, k, d);
}

#define HEXMOLD_INSTANTIATE_CANONICAL_ORDER(TR)                                                     \
    template HEXMOLD_API decltype(addTilesInCanonicalOrder<TR>) addTilesInCanonicalOrder<TR>;
HEXMOLD_FOR_EACH_TRAITS(HEXMOLD_INSTANTIATE_CANONICAL_ORDER)
#undef HEXMOLD_INSTANTIATE_CANONICAL_ORDER

} // namespace TVL::TileTree3D
