/// @file  substrate/traits.h
/// @brief The two tile-tree instances and their constant width tables.
/// @details `Traits<R, W, E>`: refinement ratio R per axis, W voxels across a tile, E data elements
///          per voxel along an axis. Exactly two instances exist: `Traits<2,4,1>` (29 depths) and
///          `Traits<5,5,1>` (13 depths). All integer tree coordinates are in finest-voxel units
///          ("tile space"), signed and centred on the domain of the depth-0 tile.
#pragma once
#include <array>
#include <cstdint>
#include <hexmold/export.h>

namespace TVL::TileTree3D {

namespace detail {
constexpr std::int64_t ipow(std::int64_t b, int e)
{
    std::int64_t r = 1;
    while (e-- > 0)
        r *= b;
    return r;
}
} // namespace detail

template <int Ratio, int TileWidth, int ElementWidth> struct Traits;

template <> struct HEXMOLD_API Traits<2, 4, 1> {
    static constexpr int kRatio = 2;         ///< children per parent voxel span, per axis
    static constexpr int kTileWidth = 4;     ///< voxels across a tile
    static constexpr int kElementWidth = 1;  ///< data elements per voxel along an axis
    static constexpr int kChildCount = 8;    ///< child slots per tile
    static constexpr int kSlotsPerAxis = 2;  ///< child slots per axis
    static constexpr int kVoxelsPerSlot = 2; ///< parent voxels per child slot along an axis
    static constexpr int kDepthCount = 29;   ///< depths 0..28
    static constexpr int kMaxDepth = 28;
    static constexpr int kTileSize = 64; ///< voxels in a tile
    /// Offset that makes tile coordinates of every depth non-negative: 2^29.
    static constexpr std::int64_t kCentreOffset = std::int64_t(1) << 29;
    /// Width of a tile at depth d in tile-space units: 2^(30-d).
    static constexpr std::int64_t tileVoxelWidth(int d) { return std::int64_t(1) << (30 - d); }
    /// Width of a voxel at depth d in tile-space units: 2^(28-d).
    static constexpr std::int64_t voxelDataWidth(int d) { return std::int64_t(1) << (28 - d); }
};

template <> struct HEXMOLD_API Traits<5, 5, 1> {
    static constexpr int kRatio = 5;
    static constexpr int kTileWidth = 5;
    static constexpr int kElementWidth = 1;
    static constexpr int kChildCount = 125;
    static constexpr int kSlotsPerAxis = 5;
    static constexpr int kVoxelsPerSlot = 1;
    static constexpr int kDepthCount = 13; ///< depths 0..12
    static constexpr int kMaxDepth = 12;
    static constexpr int kTileSize = 125;
    /// Offset that makes tile coordinates non-negative: 5^13 / 2, truncated.
    static constexpr std::int64_t kCentreOffset = 610351562;
    /// Width of a tile at depth d in tile-space units: 5^(13-d).
    static constexpr std::int64_t tileVoxelWidth(int d) { return detail::ipow(5, 13 - d); }
    /// Width of a voxel at depth d in tile-space units: 5^(12-d).
    static constexpr std::int64_t voxelDataWidth(int d) { return detail::ipow(5, 12 - d); }
};

using Traits24 = Traits<2, 4, 1>;
using Traits55 = Traits<5, 5, 1>;

/// Constant per-depth width tables, read by hot code instead of computing powers.
template <typename TraitsT> struct WidthTable {
    static constexpr std::array<std::int64_t, TraitsT::kDepthCount> make(bool tile)
    {
        std::array<std::int64_t, TraitsT::kDepthCount> a{};
        for (int d = 0; d < TraitsT::kDepthCount; ++d)
            a[d] = tile ? TraitsT::tileVoxelWidth(d) : TraitsT::voxelDataWidth(d);
        return a;
    }
    static constexpr std::array<std::int64_t, TraitsT::kDepthCount> kTile = make(true);
    static constexpr std::array<std::int64_t, TraitsT::kDepthCount> kVoxel = make(false);
};

} // namespace TVL::TileTree3D
