// Small tile trees for tests: blocks of same-depth tiles and trees refined towards a surface.
#pragma once
#include <cmath>
#include <cstdint>
#include <functional>
#include <hexmold/substrate/container.h>
#include <set>
#include <tuple>

namespace testtrees {

using TVL::TileTree3D::Container;
using TVL::TileTree3D::int3;

/// A tile by depth and corner: (depth, i, j, k).
using TileKey = std::tuple<int, int, int, int>;

/// Every tile of @p c, by depth and corner.
template <typename Tr> std::set<TileKey> tileSet(Container<Tr> const& c)
{
    std::set<TileKey> out;
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < c.tileCount(d); ++t) {
            auto const& tile = c.tile(t, d);
            out.emplace(d, int(tile.ti()), int(tile.tj()), int(tile.tk()));
        }
    return out;
}

/// Adds the tiles of @p depth whose ordinals (corner / tile width, counted from the tile-space
/// origin) lie in [lo, hi] on each axis, with their ancestors.
template <typename Tr> void addBlock(Container<Tr>& c, int depth, int3 lo, int3 hi)
{
    auto acc = c.tileAccessor();
    std::int64_t const w = Container<Tr>::tileVoxelWidth(depth);
    for (int k = lo.z; k <= hi.z; ++k)
        for (int j = lo.y; j <= hi.y; ++j)
            for (int i = lo.x; i <= hi.x; ++i)
                acc.addTile(i * w, j * w, k * w, depth);
}

/// Refines from the root down to @p finestDepth: a child is added wherever @p wanted(corner,
/// childDepth) says so for the child's corner. Parents always exist before their children.
template <typename Tr>
void refineWhere(Container<Tr>& c, int finestDepth,
                 std::function<bool(int3 const& corner, int depth)> const& wanted)
{
    using C = Container<Tr>;
    auto acc = c.tileAccessor();
    acc.addTile(0, 0, 0, 0);
    for (int d = 0; d < finestDepth; ++d) {
        std::int64_t const n = c.tileCount(d);
        for (std::int64_t t = 0; t < n; ++t) {
            for (int s = 0; s < Tr::kChildCount; ++s) {
                int3 const corner = c.tile(t, d).childTIJK(C::TileType::slotCoordinates(s));
                if (wanted(corner, d + 1))
                    acc.addTile(corner, d + 1);
            }
        }
    }
}

/// Distance in finest voxels from the box of the tile (@p corner, @p depth) to a sphere of
/// radius @p r centred on the tile-space origin; 0 when the surface crosses the box.
template <typename Tr> double boxSphereDistance(int3 const& corner, int depth, double r)
{
    double const w = double(Container<Tr>::tileVoxelWidth(depth));
    double lo2 = 0, hi2 = 0;
    for (int a = 0; a < 3; ++a) {
        double const mn = corner[a], mx = corner[a] + w;
        double const near = mn > 0 ? mn : (mx < 0 ? mx : 0);
        double const far = std::max(std::abs(mn), std::abs(mx));
        lo2 += near * near;
        hi2 += far * far;
    }
    double const lo = std::sqrt(lo2), hi = std::sqrt(hi2);
    if (lo <= r && r <= hi)
        return 0;
    return lo > r ? lo - r : r - hi;
}

/// A tree graded towards a sphere of radius @p r (finest voxels) around the origin: tiles of
/// every depth within @p bandTiles of their own tile widths from the surface are refined, down
/// to @p finestDepth. Neighbouring tiles then differ by at most one depth near the surface.
template <typename Tr>
void buildGradedSphere(Container<Tr>& c, double r, int finestDepth, double bandTiles)
{
    refineWhere<Tr>(c, finestDepth, [&](int3 const& corner, int depth) {
        return boxSphereDistance<Tr>(corner, depth, r) <=
               bandTiles * double(Container<Tr>::tileVoxelWidth(depth));
    });
}

} // namespace testtrees
