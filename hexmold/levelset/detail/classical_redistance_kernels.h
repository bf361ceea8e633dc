/// @file  levelset/detail/classical_redistance_kernels.h
/// @brief Per-voxel kernels of the classical redistancing path: reading a voxel's face
///        neighbours across tile borders and resolution jumps, and the zero-crossing tests and
///        distance estimates made from them.
#pragma once
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <hexmold/levelset/detail/redistance_impl.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <limits>

namespace VolumeGL::TileTree3D::LevelSet::detail {

/// The value, at the deepest depth it exists (down to @p maxDepth), of the voxel that holds
/// tile-space point (x, y, z); @p fallback where no tile or block is. The tile found is stored
/// in @p out when it is given.
template <typename Traits, typename T>
T valueAt(typename Container<Traits>::ConstTileAccessor& accessor,
          VoxelChannel<Traits, T> const& channel, std::int64_t x, std::int64_t y, std::int64_t z,
          int maxDepth, T fallback, Tile<Traits> const** out = nullptr)
{
    constexpr std::size_t N =
        std::size_t(Traits::kTileWidth) * Traits::kTileWidth * Traits::kTileWidth;
    Tile<Traits> const& t = accessor.tile(x, y, z, maxDepth);
    if (out)
        *out = &t;
    if (!t.valid())
        return fallback;
    auto const block = channel.tileData(t.treeIndex());
    if (block.size() != N)
        return fallback;
    std::int64_t const w = t.voxelDataWidth();
    return block(int((x - t.ti()) / w), int((y - t.tj()) / w), int((z - t.tk()) / w));
}

/// Whether voxel (i, j, k) of @p tile is solved at its own depth in the recursion: a leaf voxel,
/// or any voxel of the finest depth treated.
template <typename Traits>
bool countsAsLeaf(Tile<Traits> const& tile, int i, int j, int k, int maxDepth)
{
    return tile.depth() == maxDepth || tile.isLeaf(i, j, k);
}

/// The six same-depth face neighbours of one tile and their blocks (empty where there is none),
/// looked up once per tile instead of once per voxel on the tile's faces. Face f is axis f / 2,
/// on the low side for even f.
template <typename Traits> struct FaceNeighbourBlocks {
    ConstTileData<float, Traits::kTileWidth, 0, 0> block[6];
    Tile<Traits> const* tile[6] = {};

    FaceNeighbourBlocks(Tile<Traits> const& t, VoxelChannel<Traits, float> const& distance,
                        typename Container<Traits>::ConstTileAccessor& accessor)
    {
        for (int f = 0; f < 6; ++f) {
            Tile<Traits> const& beside =
                accessor.tileNeighbor(t, faceDirection(f / 2, f % 2 == 0 ? -1 : 1));
            if (!beside.valid() || beside.depth() != t.depth())
                continue;
            tile[f] = &beside;
            block[f] = distance.tileData(beside.treeIndex());
        }
    }
    /// All six neighbours exist at the tile's depth with blocks of @p n voxels.
    bool complete(std::size_t n) const
    {
        for (int f = 0; f < 6; ++f)
            if (!tile[f] || block[f].size() != n)
                return false;
        return true;
    }
    /// The face neighbour of voxel (i, j, k) when all six neighbours are leaf voxels of the
    /// tile's depth (`complete` holds at the finest depth): one index may step out by one.
    template <typename Block> float at(Block const& values, int i, int j, int k) const
    {
        constexpr int W = Traits::kTileWidth;
        if (i < 0)
            return block[0](W - 1, j, k);
        if (i >= W)
            return block[1](0, j, k);
        if (j < 0)
            return block[2](i, W - 1, k);
        if (j >= W)
            return block[3](i, 0, k);
        if (k < 0)
            return block[4](i, j, W - 1);
        if (k >= W)
            return block[5](i, j, 0);
        return values(i, j, k);
    }
};

/// The face neighbour of voxel (i, j, k) of @p tile on side @p side (-1 or +1) of @p axis, read
/// across tile borders and resolution jumps: within the tile from a leaf voxel directly,
/// otherwise from the deepest voxel that touches the shared face in its middle. NaN where no
/// neighbour of at most one depth coarser exists.
template <typename Traits>
float faceNeighbour(Tile<Traits> const& tile,
                    ConstTileData<float, Traits::kTileWidth, 0, 0> const& block,
                    VoxelChannel<Traits, float> const& distance,
                    typename Container<Traits>::ConstTileAccessor& accessor, int i, int j, int k,
                    int axis, int side, int maxDepth,
                    FaceNeighbourBlocks<Traits> const* faces = nullptr)
{
    constexpr int W = Traits::kTileWidth;
    int n[3] = {i, j, k};
    n[axis] += side;
    bool const inside = n[0] >= 0 && n[0] < W && n[1] >= 0 && n[1] < W && n[2] >= 0 && n[2] < W;
    if (inside && countsAsLeaf(tile, n[0], n[1], n[2], maxDepth))
        return block(n[0], n[1], n[2]);
    if (!inside && faces) {
        int const f = 2 * axis + (side < 0 ? 0 : 1);
        if (Tile<Traits> const* beside = faces->tile[f]) {
            n[axis] = side < 0 ? W - 1 : 0;
            if (countsAsLeaf(*beside, n[0], n[1], n[2], maxDepth) &&
                faces->block[f].size() == block.size())
                return faces->block[f](n[0], n[1], n[2]);
        }
    } else if (!inside) {
        // The same-depth tile beside, from the neighbour table, when it holds a leaf voxel there.
        Tile<Traits> const& beside = accessor.tileNeighbor(tile, faceDirection(axis, side));
        if (beside.valid() && beside.depth() == tile.depth()) {
            n[axis] = side < 0 ? W - 1 : 0;
            if (countsAsLeaf(beside, n[0], n[1], n[2], maxDepth)) {
                auto const other = distance.tileData(beside.treeIndex());
                if (other.size() == block.size())
                    return other(n[0], n[1], n[2]);
            }
        }
    }
    std::int64_t const w = tile.voxelDataWidth();
    std::int64_t p[3] = {tile.ti() + i * w + w / 2, tile.tj() + j * w + w / 2,
                         tile.tk() + k * w + w / 2};
    std::int64_t const c = (axis == 0   ? tile.ti() + i * w
                            : axis == 1 ? tile.tj() + j * w
                                        : tile.tk() + k * w);
    p[axis] = side < 0 ? c - 1 : c + w;
    Tile<Traits> const* found = nullptr;
    float const value = valueAt<Traits, float>(accessor, distance, p[0], p[1], p[2], maxDepth,
                                               distance.defaultValue(), &found);
    // A voxel more than one depth coarser (a tree that is not graded there) sits too far away
    // for its sign to say anything about a crossing next to this voxel.
    if (!found->valid() || found->depth() < tile.depth() - 1)
        return std::numeric_limits<float>::quiet_NaN();
    return value;
}

/// Whether a voxel of value @p v has a face neighbour on the other side of zero (under 0 > x);
/// a NaN neighbour (none) takes no part.
inline bool signChangesTowardAny(float v, float const (&neighbours)[6])
{
    bool const inside = 0.0f > v;
    bool crossing = false;
    for (float x : neighbours)
        crossing |= !std::isnan(x) && (0.0f > x) != inside;
    return crossing;
}

/// Where the surface crosses the three axes through a voxel: per axis the distance to the
/// nearer linear crossing with a face neighbour, or 2 h where neither neighbour crosses.
struct AxisCrossings {
    float distance[3];
    bool any = false; ///< some neighbour lies on the other side
};

/// The crossings of a voxel of value @p v at spacing @p h with its neighbours, taken as
/// neighbours[2 axis + (side > 0)] (NaN: none) in the order -x, +x, -y, +y, -z, +z.
inline AxisCrossings axisCrossings(float v, float h, float const (&neighbours)[6])
{
    bool const inside = 0.0f > v;
    AxisCrossings c{{2.0f * h, 2.0f * h, 2.0f * h}};
    for (int axis = 0; axis < 3; ++axis)
        for (int s = 0; s < 2; ++s) {
            float const n = neighbours[2 * axis + s];
            if (std::isnan(n) || (0.0f > n) == inside)
                continue;
            c.any = true;
            float const d = std::fabs(v / (v - n)) * h;
            c.distance[axis] = std::min(c.distance[axis], d);
        }
    return c;
}

/// The distance to the plane through the axis crossings, 1 / sqrt(sum 1 / d^2) over the axes
/// that cross; |v| when none does.
inline float planeThroughCrossings(AxisCrossings const& c, float h, float v)
{
    float inverse = 0.0f;
    for (float d : c.distance)
        if (d < 2.0f * h)
            inverse += 1.0f / std::max(d * d, kTinyDistance);
    return inverse > 0.0f ? 1.0f / std::sqrt(inverse) : std::fabs(v);
}

} // namespace VolumeGL::TileTree3D::LevelSet::detail
