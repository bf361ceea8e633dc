/// @file  substrate/tree_index.h
/// @brief Names of tiles: `TreeIndex` (index and depth), `VoxelCoord` (corner and depth) and
///        `NeighborDirection` (one tile step per axis).
#pragma once
#include <compare>
#include <cstdint>
#include <functional>

namespace TVL::TileTree3D {

/// A tile named by its place in the tile array of its depth. Index -1 and depth -1 name no tile;
/// as the start of a traversal they mean the whole tree.
struct TreeIndex {
    std::int64_t index = -1;
    std::int32_t depth = -1;

    constexpr TreeIndex() = default;
    constexpr TreeIndex(std::int64_t i, std::int32_t d) : index(i), depth(d) {}
    constexpr bool valid() const { return index >= 0 && depth >= 0; }
    friend constexpr bool operator==(TreeIndex const&, TreeIndex const&) = default;
    friend constexpr auto operator<=>(TreeIndex const& a, TreeIndex const& b)
    {
        if (auto c = a.depth <=> b.depth; c != 0)
            return c;
        return a.index <=> b.index;
    }
};

/// The whole-tree / no-tile value.
inline constexpr TreeIndex kNoTile{-1, -1};

/// A tile named by its tile-space minimum corner and its depth.
struct VoxelCoord {
    std::int32_t i = 0, j = 0, k = 0;
    std::int32_t depth = 0;
    friend constexpr bool operator==(VoxelCoord const&, VoxelCoord const&) = default;
    friend constexpr auto operator<=>(VoxelCoord const& a, VoxelCoord const& b)
    {
        if (auto c = a.depth <=> b.depth; c != 0)
            return c;
        if (auto c = a.k <=> b.k; c != 0)
            return c;
        if (auto c = a.j <=> b.j; c != 0)
            return c;
        return a.i <=> b.i;
    }
};

/// One tile step per axis, encoded as 13 + 9*dx + 3*dy + dz with dx, dy, dz in {-1, 0, 1}.
/// The encoding is arithmetic on purpose: algorithms add 13 to a sum of per-axis steps.
enum NeighborDirection : int {
    kNeighborNegX = 4,
    kNeighborNegY = 10,
    kNeighborNegZ = 12,
    kNeighborSelf = 13,
    kNeighborPosZ = 14,
    kNeighborPosY = 16,
    kNeighborPosX = 22,
};

constexpr NeighborDirection neighborDirection(int dx, int dy, int dz)
{
    return static_cast<NeighborDirection>(13 + 9 * dx + 3 * dy + dz);
}
constexpr int neighborDx(int dir)
{
    return dir / 9 - 1;
}
constexpr int neighborDy(int dir)
{
    return (dir / 3) % 3 - 1;
}
constexpr int neighborDz(int dir)
{
    return dir % 3 - 1;
}

} // namespace TVL::TileTree3D

template <> struct std::hash<TVL::TileTree3D::TreeIndex> {
    std::size_t operator()(TVL::TileTree3D::TreeIndex const& t) const noexcept
    {
        return std::hash<std::int64_t>()(t.index * 31 + t.depth);
    }
};
