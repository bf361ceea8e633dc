/// @file  substrate/halo_tables.cpp
/// @brief `Container::precomputeCompressedTileHalos`: the per-tile table of where a halo walk
///        reads in each direction.
#include <hexmold/substrate/container.h>

#include <hexmold/substrate/cancel.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/type_lists.h>

namespace TVL::TileTree3D {

template <typename TraitsT> void Container<TraitsT>::precomputeCompressedTileHalos()
{
    std::vector<std::vector<std::int32_t>> index(kDepthCount);
    std::vector<std::vector<std::int8_t>> step(kDepthCount);
    for (int d = 0; d < kDepthCount; ++d) {
        std::int64_t const n = mTiles[d].size();
        index[d].resize(static_cast<std::size_t>(n) * 27);
        step[d].resize(static_cast<std::size_t>(n) * 27);
        if (n == 0)
            continue;
        Parallel::task_group_context context;
        Parallel::isolate([&] {
            Parallel::parallel_for(
                Parallel::blocked_range<std::int64_t>(0, n, 64),
                [&](Parallel::blocked_range<std::int64_t> const& r) {
                    if (bodyCancelled())
                        return;
                    ConstTileAccessor acc(*this);
                    for (std::int64_t t = r.begin(); t != r.end(); ++t) {
                        TileType const& tile = mTiles[d][t];
                        for (int dir = 0; dir < 27; ++dir) {
                            TileType const& nb =
                                dir == kNeighborSelf ? tile : acc.tileNeighbor(tile, dir);
                            std::size_t const e =
                                static_cast<std::size_t>(t) * 27 + static_cast<std::size_t>(dir);
                            index[d][e] = nb.valid() ? static_cast<std::int32_t>(nb.index()) : -1;
                            step[d][e] = nb.valid() ? static_cast<std::int8_t>(d - nb.depth())
                                                    : std::int8_t(-1);
                        }
                    }
                },
                Parallel::auto_partitioner(), context);
        });
        throwIfJobCancelled();
    }
    mHaloIndex.swap(index);
    mHaloDepthStep.swap(step);
}

template void Container<Traits24>::precomputeCompressedTileHalos();
template void Container<Traits55>::precomputeCompressedTileHalos();

} // namespace TVL::TileTree3D
