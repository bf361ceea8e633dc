/// @file  diagnostics/detail/channel_check_impl.h
/// @brief Body of the channel check. Included only by its shards.
#pragma once
#include <algorithm>
#include <hexmold/diagnostics/channel_check.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/tavrel/math.h>
#include <hexmold/substrate/visitor.h>
#include <iostream>
#include <sstream>
#include <type_traits>

namespace CoreGL::detail {

/// The order of the check: scalars by value, vectors and matrices by their component sum.
template <typename T> auto checkKey(T const& v)
{
    if constexpr (std::is_arithmetic_v<T>)
        return v;
    else
        return Tavrel::Math::componentSum(v);
}

/// The largest value's start: the negated default (wrapping for unsigned types).
template <typename T> T negated(T const& v)
{
    if constexpr (std::is_arithmetic_v<T>)
        return static_cast<T>(-v);
    else
        return -v;
}

/// Writes an element: numbers as numbers (also the 8-bit ones), others as their components.
template <typename T> void writeElement(std::ostream& out, T const& v)
{
    if constexpr (std::is_arithmetic_v<T>) {
        out << +v;
    } else {
        out << '(';
        for (int c = 0; c < Tavrel::Math::ComponentCount<T>::value; ++c)
            out << (c ? ", " : "") << Tavrel::Math::componentAsDouble(v, c);
        out << ')';
    }
}

/// A voxel's tile-space corner and depth.
struct CheckPlace {
    Tavrel::Math::int3 corner{0, 0, 0};
    int depth = -1;
};

inline void writePlace(std::ostream& out, CheckPlace const& p)
{
    out << '(' << p.corner.x << ", " << p.corner.y << ", " << p.corner.z << ", " << p.depth << ')';
}

/// The extremes found so far by one worker.
template <typename T> struct CheckExtremes {
    T smallest;
    T largest;
    CheckPlace smallestAt;
    CheckPlace largestAt;
};

} // namespace CoreGL::detail

namespace CoreGL {

template <typename Traits, typename T>
void checkChannel(TVL::TileTree3D::Container<Traits> const& container,
                  TVL::TileTree3D::VoxelChannel<Traits, T> const& channel, int minDepth,
                  int maxDepth, Quillon::StringView label, int level)
{
    using namespace TVL::TileTree3D;
    if (Logger::verboseLevel() < 4 && level < 4)
        return;
    int const lo = std::max({minDepth, channel.minDepth(), 0});
    int const hi = std::min({maxDepth, channel.depth(), Traits::kMaxDepth});
    constexpr int W = Traits::kTileWidth;
    detail::CheckExtremes<T> found{
        channel.defaultValue(), detail::negated(channel.defaultValue()), {}, {}};
    auto const none = [](auto const&...) {};
    auto const perTile = [&channel](Tile<Traits> const& tile, detail::CheckExtremes<T>& acc) {
        auto const block = channel.tileData(tile.treeIndex());
        if (block.size() != std::size_t(W) * W * W)
            return;
        std::int64_t const w = tile.voxelDataWidth();
        for (int k = 0; k < W; ++k)
            for (int j = 0; j < W; ++j)
                for (int i = 0; i < W; ++i) {
                    T const& v = block(i, j, k);
                    detail::CheckPlace const at{
                        {int(tile.ti() + i * w), int(tile.tj() + j * w), int(tile.tk() + k * w)},
                        tile.depth()};
                    if (detail::checkKey(v) < detail::checkKey(acc.smallest)) {
                        acc.smallest = v;
                        acc.smallestAt = at;
                    }
                    if (detail::checkKey(acc.largest) < detail::checkKey(v)) {
                        acc.largest = v;
                        acc.largestAt = at;
                    }
                }
    };
    auto const join = [](detail::CheckExtremes<T>& left, detail::CheckExtremes<T> const& right) {
        if (detail::checkKey(right.smallest) < detail::checkKey(left.smallest)) {
            left.smallest = right.smallest;
            left.smallestAt = right.smallestAt;
        }
        if (detail::checkKey(left.largest) < detail::checkKey(right.largest)) {
            left.largest = right.largest;
            left.largestAt = right.largestAt;
        }
    };
    container.reduce(none, none, perTile, none, NoVoxelVisit{}, join, found, kTraversalClampedRange,
                     kNoTile, lo, hi, 50, 0, Traits::kRatio);

    std::ostringstream line;
    line << label << ": " << channel.name() << '[' << channel.size() << "] : " << lo << ", " << hi
         << " : ";
    detail::writeElement(line, found.smallest);
    line << ", ";
    detail::writeElement(line, found.largest);
    line << " at ";
    detail::writePlace(line, found.smallestAt);
    line << " and ";
    detail::writePlace(line, found.largestAt);
    line << '\n';
    std::cout << line.str();
}

} // namespace CoreGL

/// The channel check of tree TR and element T; used inside namespace CoreGL.
#define HEXMOLD_INSTANTIATE_CHANNEL_CHECK(TR, T)                                                   \
    template HEXMOLD_API decltype(checkChannel<TR, T>) checkChannel<TR, T>;
