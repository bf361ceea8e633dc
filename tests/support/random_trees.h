// Random adaptive tile trees for tests: refined towards random points, with resolution jumps of
// any size between neighbouring tiles, and a set of the tiles by corner for independent lookups.
#pragma once
#include <cstdint>
#include <hexmold/substrate/container.h>
#include <map>
#include <random>

namespace testtrees {

using TVL::TileTree3D::Container;
using TVL::TileTree3D::int3;
using TVL::TileTree3D::VoxelCoord;

/// Grows @p c (which may be empty) towards @p points random points in the cube of half-width
/// @p spread finest voxels around the origin: each point gets the tiles that hold it down to a
/// random depth in [@p minDepth, maxDepth], and each tile on the way gets a random extra child
/// with probability @p siblings. Neighbouring tiles may then differ by any number of depths.
/// With @p backgroundDepth >= 0 the cube is first covered by tiles of that depth, which bounds
/// the size of the coarsest cells there.
template <typename Tr>
void growRandomTree(Container<Tr>& c, std::uint32_t seed, int points, int spread, int minDepth,
                    double siblings, int backgroundDepth = -1)
{
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> coord(-spread, spread - 1);
    std::uniform_int_distribution<int> depthOf(minDepth, Tr::kMaxDepth);
    std::uniform_int_distribution<int> slot(0, Tr::kChildCount - 1);
    std::uniform_real_distribution<double> chance(0.0, 1.0);
    auto acc = c.tileAccessor();
    acc.addTile(0, 0, 0, 0);
    if (backgroundDepth >= 0)
        acc.addTiles({-spread, -spread, -spread}, {spread, spread, spread}, backgroundDepth);
    for (int n = 0; n < points; ++n) {
        int3 const p{coord(rng), coord(rng), coord(rng)};
        int const deepest = depthOf(rng);
        for (int d = 1; d <= deepest; ++d) {
            auto const& t = acc.addTile(p, d);
            if (d < Tr::kMaxDepth && chance(rng) < siblings) {
                int3 const corner =
                    t.childTIJK(Container<Tr>::TileType::slotCoordinates(slot(rng)));
                acc.addTile(corner, d + 1);
            }
        }
    }
}

/// The tiles of a tree by corner and depth, found without the tree's own lookups.
template <typename Tr> class TileSet {
public:
    explicit TileSet(Container<Tr> const& c)
    {
        for (int d = 0; d <= Tr::kMaxDepth; ++d)
            for (std::int64_t t = 0; t < c.tileCount(d); ++t) {
                auto const& tile = c.tile(t, d);
                mTiles[VoxelCoord{tile.ti(), tile.tj(), tile.tk(), d}] = &tile;
            }
    }
    /// The tile of @p depth that holds the tile-space point, or null.
    typename Container<Tr>::TileType const* at(std::int64_t x, std::int64_t y, std::int64_t z,
                                               int depth) const
    {
        if (depth < 0 || depth > Tr::kMaxDepth)
            return nullptr;
        std::int64_t const w = Tr::tileVoxelWidth(depth);
        auto snap = [w](std::int64_t v) {
            std::int64_t const u = v + Tr::kCentreOffset;
            if (u < 0 || u >= Tr::tileVoxelWidth(0))
                return std::int64_t(-1) << 40;
            return u - u % w - Tr::kCentreOffset;
        };
        std::int64_t const sx = snap(x), sy = snap(y), sz = snap(z);
        if (sx < -Tr::kCentreOffset || sy < -Tr::kCentreOffset || sz < -Tr::kCentreOffset)
            return nullptr;
        auto const it = mTiles.find(VoxelCoord{int(sx), int(sy), int(sz), depth});
        return it == mTiles.end() ? nullptr : it->second;
    }
    /// The deepest tile of depth at most @p depth that holds the point, or null.
    typename Container<Tr>::TileType const* deepest(std::int64_t x, std::int64_t y, std::int64_t z,
                                                    int depth) const
    {
        for (int d = depth; d >= 0; --d)
            if (auto const* t = at(x, y, z, d))
                return t;
        return nullptr;
    }

private:
    std::map<VoxelCoord, typename Container<Tr>::TileType const*> mTiles;
};

} // namespace testtrees
