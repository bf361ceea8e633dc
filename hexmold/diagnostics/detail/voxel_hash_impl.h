/// @file  diagnostics/detail/voxel_hash_impl.h
/// @brief Body of the voxel hash reduction. Included only by the voxel hash shards.
#pragma once
#include <algorithm>
#include <cstddef>
#include <hexmold/diagnostics/voxel_hash.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/tavrel/math.h>
#include <hexmold/substrate/visitor.h>

namespace CoreGL::detail {

/// The two running sums of the hash: S, the sum of weights, and V, the weighted sum.
struct VoxelHashSums {
    double weights = 0.0;
    double values = 0.0;
};

} // namespace CoreGL::detail

namespace CoreGL {

template <typename Traits, typename T>
double voxelHash(TVL::TileTree3D::Container<Traits> const& container,
                 TVL::TileTree3D::VoxelChannel<Traits, T> const& channel)
{
    using namespace TVL::TileTree3D;
    int const minDepth = std::max(channel.minDepth(), 0);
    int const maxDepth = std::min(channel.depth(), Traits::kMaxDepth);
    detail::VoxelHashSums sums;
    auto const none = [](auto const&...) {};
    auto const perTile = [&channel](Tile<Traits> const& tile, detail::VoxelHashSums& acc) {
        auto const block = channel.tileData(tile.treeIndex());
        std::size_t const n = block.size();
        for (std::size_t c = 0; c < n; ++c) {
            double const w = voxelHashWeight(tile.ti(), tile.tj(), tile.tk(), c);
            acc.weights += w;
            acc.values += Tavrel::Math::componentSum(block[c]) * w;
        }
    };
    auto const join = [](detail::VoxelHashSums& left, detail::VoxelHashSums const& right) {
        left.weights += right.weights;
        left.values += right.values;
    };
    container.reduce(none, none, perTile, none, NoVoxelVisit{}, join, sums, kTraversalDepthRange,
                     kNoTile, minDepth, maxDepth, 50, 0, Traits::kRatio);
    return sums.values / sums.weights;
}

template <typename Traits, typename T>
void writeVoxelHashLine(Quillon::StringView prefix, Quillon::StringView suffix,
                        TVL::TileTree3D::Container<Traits> const& container,
                        TVL::TileTree3D::VoxelChannel<Traits, T> const& channel, int aboveLevel)
{
    if (Logger::verboseLevel() <= aboveLevel)
        return;
    writeVoxelHashLine(prefix, suffix, voxelHash(container, channel), aboveLevel);
}

} // namespace CoreGL

/// One line per instance of the voxel hash family for tree TR and element T; used inside
/// namespace CoreGL.
#define HEXMOLD_INSTANTIATE_VOXEL_HASH(TR, T)                                                      \
    template HEXMOLD_API decltype(voxelHash<TR, T>) voxelHash<TR, T>;                              \
    template HEXMOLD_API decltype(writeVoxelHashLine<TR, T>) writeVoxelHashLine<TR, T>;
