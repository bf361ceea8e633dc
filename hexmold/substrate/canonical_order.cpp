/// @file  substrate/canonical_order.cpp
/// @brief The canonical copy of a scratch tree's tiles.
#include <hexmold/substrate/canonical_order.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/type_lists.h>
#include <tuple>
#include <vector>

namespace TVL::TileTree3D {

template <typename Traits>
void addTilesInCanonicalOrder(Container<Traits> const& scratch, Container<Traits>& io_out)
{
    // Depth by depth in (k, j, i) order. Where a depth's tiles span fewer than 2^21 lattice
    // steps on every axis, the three lattice coordinates relative to the lowest tile pack into
    // one 64-bit key whose order is that order, and the keys are sorted in parallel.
    auto accessor = io_out.tileAccessor();
    std::vector<std::uint64_t> packed;
    std::vector<std::tuple<int, int, int>> keys;
    for (int d = 0; d <= Traits::kMaxDepth; ++d) {
        std::int64_t const n = scratch.tileCount(d);
        if (n == 0)
            continue;
        std::int64_t const t = Container<Traits>::tileVoxelWidth(d);
        std::int64_t lo[3] = {INT64_MAX, INT64_MAX, INT64_MAX},
                     hi[3] = {INT64_MIN, INT64_MIN, INT64_MIN};
        for (std::int64_t q = 0; q < n; ++q) {
            Tile<Traits> const& tile = scratch.tile(q, d);
            std::int64_t const p[3] = {tile.ti(), tile.tj(), tile.tk()};
            for (int a = 0; a < 3; ++a)
                lo[a] = std::min(lo[a], p[a]), hi[a] = std::max(hi[a], p[a]);
        }
        constexpr std::int64_t kSpan = std::int64_t(1) << 21;
        if ((hi[0] - lo[0]) / t < kSpan && (hi[1] - lo[1]) / t < kSpan &&
            (hi[2] - lo[2]) / t < kSpan) {
            packed.resize(std::size_t(n));
            for (std::int64_t q = 0; q < n; ++q) {
                Tile<Traits> const& tile = scratch.tile(q, d);
                auto const i = std::uint64_t((tile.ti() - lo[0]) / t),
                           j = std::uint64_t((tile.tj() - lo[1]) / t),
                           k = std::uint64_t((tile.tk() - lo[2]) / t);
                packed[std::size_t(q)] = (k << 42) | (j << 21) | i;
            }
            TVL::Parallel::parallel_sort(packed.begin(), packed.end());
            constexpr std::uint64_t kMask = (std::uint64_t(1) << 21) - 1;
            for (std::uint64_t key : packed)
                accessor.addTile(lo[0] + std::int64_t(key & kMask) * t,
                                 lo[1] + std::int64_t((key >> 21) & kMask) * t,
                                 lo[2] + std::int64_t(key >> 42) * t, d);
            continue;
        }
        keys.clear();
        for (std::int64_t q = 0; q < n; ++q) {
            Tile<Traits> const& tile = scratch.tile(q, d);
            keys.emplace_back(int(tile.tk()), int(tile.tj()), int(tile.ti()));
        }
        std::sort(keys.begin(), keys.end());
        for (auto const& [k, j, i] : keys)
            accessor.addTile(i, j, k, d);
    }
}

#define HEXMOLD_INSTANTIATE_CANONICAL_ORDER(TR)                                                    \
    template HEXMOLD_API decltype(addTilesInCanonicalOrder<TR>) addTilesInCanonicalOrder<TR>;
HEXMOLD_FOR_EACH_TRAITS(HEXMOLD_INSTANTIATE_CANONICAL_ORDER)
#undef HEXMOLD_INSTANTIATE_CANONICAL_ORDER

} // namespace TVL::TileTree3D
