// The demo's adaptive sphere: a tile tree refined towards a sphere's surface, built the way the
// library's operators grow trees (workers add tiles to a scratch tree, one thread merges it).
#pragma once
#include <cmath>
#include <cstdint>
#include <hexmold/substrate/container.h>
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

namespace demo {

/// Exact signed distance of a sphere of radius @p r centred on the origin (negative inside).
inline double sphereDistance(double x, double y, double z, double r)
{
    return std::sqrt(x * x + y * y + z * z) - r;
}

/// Grows @p tree towards a sphere of radius @p radius (world units) centred at the origin: a tile
/// of depth d gets a child wherever the child's box comes within @p bandTiles tile widths (of the
/// child's depth) of the surface, so tiles are finest near the surface and coarser away from it,
/// and neighbouring depths blend gradually. Stops at @p finestDepth.
template <typename Traits>
void buildAdaptiveSphere(TVL::TileTree3D::Container<Traits>& tree, double radius, int finestDepth,
                         double bandTiles)
{
    using namespace TVL::TileTree3D;
    using C = Container<Traits>;
    double const h = tree.voxelSize();
    {
        auto acc = tree.tileAccessor();
        acc.addTile(0, 0, 0, 0);
    }
    for (int d = 0; d < finestDepth; ++d) {
        C* scratch = tree.threadLocalContainer(0);
        std::int64_t const cw = C::tileVoxelWidth(d + 1);
        double const halfDiagonal = 0.5 * std::sqrt(3.0) * double(cw) * h;
        double const reach = bandTiles * double(cw) * h;
        tbb::parallel_for(tbb::blocked_range<std::int64_t>(0, tree.tileCount(d), 1),
                          [&](tbb::blocked_range<std::int64_t> const& range) {
                              auto acc = scratch->tileAccessor();
                              for (std::int64_t t = range.begin(); t != range.end(); ++t) {
                                  auto const& tile = tree.tile(t, d);
                                  for (int s = 0; s < Traits::kChildCount; ++s) {
                                      auto const sc = C::TileType::slotCoordinates(s);
                                      auto const corner = tile.childTIJK(sc);
                                      double const cx = (double(corner.x) + 0.5 * double(cw)) * h;
                                      double const cy = (double(corner.y) + 0.5 * double(cw)) * h;
                                      double const cz = (double(corner.z) + 0.5 * double(cw)) * h;
                                      double const lower =
                                          std::abs(sphereDistance(cx, cy, cz, radius)) -
                                          halfDiagonal;
                                      if (lower < reach)
                                          acc.addTile(corner, d + 1);
                                  }
                              }
                          });
        TileCornerLists<Traits> created;
        tree.refine(*scratch, &created, true);
        tree.clearThreadLocalData(created);
        if (tree.tileCount(d + 1) == 0)
            break;
    }
    tree.sortIntoMortonOrder();
}

} // namespace demo
