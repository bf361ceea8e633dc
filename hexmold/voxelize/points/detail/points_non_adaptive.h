/// @file  voxelize/points/detail/points_non_adaptive.h
/// @brief The non-adaptive route of the point voxelizer: finest tiles hugging the sphere shells,
///        spheres stamped into their point's tile, closest points carried across the band.
#pragma once
#include <algorithm>
#include <atomic>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <hexmold/substrate/cancel.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/halo.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/voxelize/points/detail/points_driver.h>
#include <utility>
#include <vector>

namespace VolumeGL::TileTree3D::detail {

namespace Par = TVL::Parallel;
using TVL::TileTree3D::Tile;
using TVL::TileTree3D::TreeIndex;

/// Per tile of the finest depth, the indices of the points listed in it, ascending (a compressed
/// row layout: the list of tile t is index[offset[t]] to index[offset[t + 1]]).
struct PointLists {
    std::vector<std::int64_t> offset;
    std::vector<std::int64_t> index;
};

/// Calls @p f(corner) for every finest tile in the band of point @p i: the tiles whose centre
/// lies within T of the sphere's shell, T = 1.01 max(1.5 sqrt(3) w, 0.5 sqrt(3) w + grading).
/// The interior of a large sphere gets no tile.
template <typename Traits, typename F>
void forEachBandTile(PointsDriver<Traits> const& m, double3 const& p, double r, F&& f)
{
    constexpr int kMax = Traits::kMaxDepth;
    std::int64_t const w = Container<Traits>::tileVoxelWidth(kMax);
    double const pad = std::max(double(m.grading), double(w));
    double const s3 = 1.7320508075688772;
    double const T =
        1.01 * std::max(1.5 * s3 * double(w), 0.5 * s3 * double(w) + double(m.grading));
    std::int64_t lo[3], hi[3];
    for (int a = 0; a < 3; ++a) {
        lo[a] = PointsDriver<Traits>::alignDown(std::int64_t(std::floor(p[a] - r - pad)), kMax);
        hi[a] = std::int64_t(std::ceil(p[a] + r + pad));
    }
    double const half = 0.5 * double(w);
    for (std::int64_t z = lo[2]; z <= hi[2]; z += w)
        for (std::int64_t y = lo[1]; y <= hi[1]; y += w)
            for (std::int64_t x = lo[0]; x <= hi[0]; x += w) {
                if (!Container<Traits>::inDomain(x, y, z))
                    continue;
                double const dx = p.x - (double(x) + half), dy = p.y - (double(y) + half),
                             dz = p.z - (double(z) + half);
                double const dist = std::sqrt(dx * dx + dy * dy + dz * dz) - r;
                if (-T < dist && dist < T)
                    f(int3{int(x), int(y), int(z)});
            }
}

/// A point's sphere: centre in finest voxels, radius in world units.
struct SortedSphere {
    double3 centre;
    double radius;
};

/// The spheres in the order of their finest tiles (z, then y, then x), so that consecutive
/// spheres touch the same tiles: a cloud in random order would miss the cache on every tile.
template <typename Traits>
std::vector<SortedSphere> spheresInTileOrder(PointsDriver<Traits> const& m)
{
    std::int64_t const w = Container<Traits>::tileVoxelWidth(Traits::kMaxDepth);
    std::vector<std::pair<std::uint64_t, std::uint64_t>> order(m.size());
    Par::parallel_for(
        Par::blocked_range<std::size_t>(0, m.size(), 4096),
        [&](Par::blocked_range<std::size_t> const& r) {
            for (std::size_t i = r.begin(); i != r.end(); ++i) {
                std::uint64_t key = 0;
                for (int a = 2; a >= 0; --a)
                    key = (key << 21) |
                          (std::uint64_t(floorDivide(std::int64_t(std::floor(m.centre[i][a])), w)) &
                           0x1FFFFF);
                order[i] = {key, std::uint64_t(i)};
            }
        });
    Par::parallel_sort(order.begin(), order.end());
    std::vector<SortedSphere> spheres(m.size());
    Par::parallel_for(Par::blocked_range<std::size_t>(0, m.size(), 4096),
                      [&](Par::blocked_range<std::size_t> const& r) {
                          for (std::size_t q = r.begin(); q != r.end(); ++q) {
                              std::size_t const i = std::size_t(order[q].second);
                              spheres[q] = {m.centre[i], double(m.radius[i])};
                          }
                      });
    return spheres;
}

/// The finest tiles around a cloud as a dense grid, z outermost: a byte per tile while the band
/// is selected, then the index of each tile, in place of hash lookups. Used when the cloud's box
/// holds few enough tiles.
struct DenseTileGrid {
    std::int64_t lo[3] = {0, 0, 0}; ///< tile-space corner of the first tile (finest voxels)
    std::int64_t n[3] = {0, 0, 0};  ///< tiles per axis
    std::int64_t w = 1;             ///< tile width (finest voxels)
    std::int64_t size() const { return n[0] * n[1] * n[2]; }
    /// Slot of the tile at the aligned corner (x, y, z); -1 outside the grid.
    std::int64_t slot(std::int64_t x, std::int64_t y, std::int64_t z) const
    {
        std::int64_t const a = (x - lo[0]) / w, b = (y - lo[1]) / w, c = (z - lo[2]) / w;
        if (x < lo[0] || y < lo[1] || z < lo[2] || a >= n[0] || b >= n[1] || c >= n[2])
            return -1;
        return (c * n[1] + b) * n[0] + a;
    }
};

/// The grid covering every point's reach: its radius plus @p pad finest voxels. False when it
/// would hold more than @p limit tiles.
template <typename Traits>
bool coveringGrid(PointsDriver<Traits> const& m, double pad, std::int64_t limit, DenseTileGrid& g)
{
    constexpr int kMax = Traits::kMaxDepth;
    struct Box {
        double lo[3] = {DBL_MAX, DBL_MAX, DBL_MAX}, hi[3] = {-DBL_MAX, -DBL_MAX, -DBL_MAX};
    };
    Box const box = Par::parallel_reduce(
        Par::blocked_range<std::size_t>(0, m.size(), 4096), Box{},
        [&](Par::blocked_range<std::size_t> const& r, Box b) {
            for (std::size_t i = r.begin(); i != r.end(); ++i) {
                double const reach = m.radiusInVoxels(i) + pad;
                for (int a = 0; a < 3; ++a) {
                    b.lo[a] = std::min(b.lo[a], std::floor(m.centre[i][a] - reach));
                    b.hi[a] = std::max(b.hi[a], std::ceil(m.centre[i][a] + reach));
                }
            }
            return b;
        },
        [](Box a, Box const& b) {
            for (int q = 0; q < 3; ++q)
                a.lo[q] = std::min(a.lo[q], b.lo[q]), a.hi[q] = std::max(a.hi[q], b.hi[q]);
            return a;
        });
    g.w = Container<Traits>::tileVoxelWidth(kMax);
    double tiles = 1.0;
    for (int a = 0; a < 3; ++a) {
        if (!(box.lo[a] <= box.hi[a]))
            return false;
        g.lo[a] = PointsDriver<Traits>::alignDown(std::int64_t(box.lo[a]), kMax);
        g.n[a] = (std::int64_t(box.hi[a]) - g.lo[a]) / g.w + 1;
        tiles *= double(g.n[a]);
    }
    return tiles <= double(limit);
}

/// How the finest tiles are found after the band is allocated: by their slot on a dense grid
/// around the cloud, or through the tree's hash.
struct BandTiles {
    bool dense = false;
    DenseTileGrid grid;
    std::vector<std::int64_t> tileAt;  ///< per grid slot, the finest tile's index (-1: none)
    std::vector<SortedSphere> spheres; ///< the cloud in tile order

    /// The index of the finest tile at the aligned corner (x, y, z), -1 when there is none.
    template <typename Traits, typename Accessor>
    std::int64_t find(Accessor& acc, std::int64_t x, std::int64_t y, std::int64_t z) const
    {
        if (!Container<Traits>::inDomain(x, y, z))
            return -1;
        if (dense) {
            std::int64_t const q = grid.slot(x, y, z);
            return q >= 0 ? tileAt[std::size_t(q)] : -1;
        }
        auto const& t = acc.tile(x, y, z, Traits::kMaxDepth);
        return t.valid() && t.depth() == Traits::kMaxDepth ? t.index() : -1;
    }
};

/// Allocates the finest tiles in the band of every point (the first half of `insertPoints`).
template <typename Traits> BandTiles selectBandTiles(PointsDriver<Traits>& m)
{
    constexpr int kMax = Traits::kMaxDepth;
    std::size_t const n = m.size();
    std::int64_t const w = Container<Traits>::tileVoxelWidth(kMax);
    // The largest reach of the two walks below beyond a point's radius.
    double const reach = std::max({double(m.grading), double(w), double(m.grading) + 1.0});
    std::vector<SortedSphere> spheres = spheresInTileOrder(m);
    double const invVoxelSize = double(m.invVoxelSize);
    DenseTileGrid grid;
    bool const dense = coveringGrid(
        m, reach, std::min<std::int64_t>(std::int64_t(1) << 25, 64 * std::int64_t(n) + (1 << 20)),
        grid);
    // Tile selection: marks on the dense grid, whose walk gives the tiles in sorted order; or
    // each worker collects the corners its points ask for.
    if (dense) {
        std::vector<std::atomic<unsigned char>> mark(std::size_t(grid.size()));
        Par::parallel_for(
            Par::blocked_range<std::size_t>(0, n, 500),
            [&](Par::blocked_range<std::size_t> const& r) {
                if (TVL::bodyCancelled())
                    return;
                for (std::size_t i = r.begin(); i != r.end(); ++i)
                    forEachBandTile(
                        m, spheres[i].centre, spheres[i].radius * invVoxelSize, [&](int3 const& c) {
                            std::int64_t const q = grid.slot(c.x, c.y, c.z);
                            if (q >= 0)
                                mark[std::size_t(q)].store(1, std::memory_order_relaxed);
                        });
            });
        TVL::throwIfJobCancelled();
        std::vector<CornerSet::Key> keys;
        std::size_t q = 0;
        for (std::int64_t z = 0; z < grid.n[2]; ++z)
            for (std::int64_t y = 0; y < grid.n[1]; ++y)
                for (std::int64_t x = 0; x < grid.n[0]; ++x, ++q)
                    if (mark[q].load(std::memory_order_relaxed))
                        keys.push_back(CornerSet::Key{int(grid.lo[0] + x * w),
                                                      int(grid.lo[1] + y * w),
                                                      int(grid.lo[2] + z * w), kMax});
        addSortedTiles(keys, m.container);
    } else {
        Par::enumerable_thread_specific<CornerSet> sets;
        Par::parallel_for(Par::blocked_range<std::size_t>(0, n, 500),
                          [&](Par::blocked_range<std::size_t> const& r) {
                              if (TVL::bodyCancelled())
                                  return;
                              CornerSet& set = sets.local();
                              for (std::size_t i = r.begin(); i != r.end(); ++i)
                                  forEachBandTile(m, spheres[i].centre,
                                                  spheres[i].radius * invVoxelSize,
                                                  [&](int3 const& c) { set.insert(c, kMax); });
                          });
        TVL::throwIfJobCancelled();
        addCollectedTiles(sets, m.container);
    }
    m.topology.update(m.container);
    m.level.update(m.topology);
    m.container.buildAccessorAccelerationStructure(kMax);
    std::int64_t const tiles = m.container.tileCount(kMax);
    // The index of every finest tile on the dense grid.
    BandTiles band;
    band.dense = dense;
    band.grid = grid;
    band.spheres = std::move(spheres);
    std::vector<std::int64_t>& tileAt = band.tileAt;
    if (dense) {
        tileAt.assign(std::size_t(grid.size()), -1);
        Par::parallel_for(Par::blocked_range<std::int64_t>(0, tiles, 4096),
                          [&](Par::blocked_range<std::int64_t> const& r) {
                              for (std::int64_t t = r.begin(); t != r.end(); ++t) {
                                  int3 const c = m.container.tile(t, kMax).tijk();
                                  std::int64_t const q = grid.slot(c.x, c.y, c.z);
                                  if (q >= 0)
                                      tileAt[std::size_t(q)] = t;
                              }
                          });
    }

    return band;
}

/// Lists each point in the finest tiles its sphere grown by the grading reaches (the second half
/// of `insertPoints`), so that each voxel within that reach gets its exact distance.
template <typename Traits> PointLists binPoints(PointsDriver<Traits>& m, BandTiles const& band)
{
    constexpr int kMax = Traits::kMaxDepth;
    std::size_t const n = m.size();
    std::int64_t const w = Container<Traits>::tileVoxelWidth(kMax);
    std::int64_t const tiles = m.container.tileCount(kMax);
    // Binning: a point is listed in every finest tile that its sphere grown by the grading
    // overlaps, so that each voxel within that reach gets its exact distance.
    using Record = std::pair<std::int64_t, std::int64_t>;
    Par::enumerable_thread_specific<std::vector<Record>> local;
    Par::parallel_for(
        Par::blocked_range<std::size_t>(0, n, 500), [&](Par::blocked_range<std::size_t> const& r) {
            if (TVL::bodyCancelled())
                return;
            auto acc = std::as_const(m.container).tileAccessor();
            auto& out = local.local();
            for (std::size_t i = r.begin(); i != r.end(); ++i) {
                double3 const& p = m.centre[i];
                double const reach = m.radiusInVoxels(i) + double(m.grading) + 1.0;
                std::int64_t lo[3], hi[3];
                for (int a = 0; a < 3; ++a) {
                    lo[a] = PointsDriver<Traits>::alignDown(std::int64_t(std::floor(p[a] - reach)),
                                                            kMax);
                    hi[a] = std::int64_t(std::ceil(p[a] + reach));
                }
                for (std::int64_t z = lo[2]; z <= hi[2]; z += w)
                    for (std::int64_t y = lo[1]; y <= hi[1]; y += w)
                        for (std::int64_t x = lo[0]; x <= hi[0]; x += w) {
                            std::int64_t const t = band.template find<Traits>(acc, x, y, z);
                            if (t >= 0)
                                out.push_back({t, std::int64_t(i)});
                        }
            }
        });
    TVL::throwIfJobCancelled();
    // A counting sort by tile: counts, offsets, a scatter through per-tile cursors, then each
    // tile's short list sorted, so that a list is ascending whatever the schedule.
    std::vector<std::vector<Record> const*> parts;
    for (auto const& e : local)
        parts.push_back(&e);
    std::vector<std::atomic<std::int64_t>> cursor(std::size_t(tiles) + 1);
    auto const overRecords = [&](auto&& f) {
        for (std::vector<Record> const* part : parts)
            Par::parallel_for(Par::blocked_range<std::size_t>(0, part->size(), 4096),
                              [&](Par::blocked_range<std::size_t> const& r) {
                                  for (std::size_t q = r.begin(); q != r.end(); ++q)
                                      f((*part)[q]);
                              });
    };
    overRecords([&](Record const& x) {
        cursor[std::size_t(x.first) + 1].fetch_add(1, std::memory_order_relaxed);
    });
    PointLists lists;
    lists.offset.assign(std::size_t(tiles) + 1, 0);
    for (std::int64_t t = 0; t < tiles; ++t) {
        lists.offset[std::size_t(t) + 1] =
            lists.offset[std::size_t(t)] +
            cursor[std::size_t(t) + 1].load(std::memory_order_relaxed);
        cursor[std::size_t(t)].store(lists.offset[std::size_t(t)], std::memory_order_relaxed);
    }
    lists.index.resize(std::size_t(lists.offset.back()));
    overRecords([&](Record const& x) {
        std::int64_t const at =
            cursor[std::size_t(x.first)].fetch_add(1, std::memory_order_relaxed);
        lists.index[std::size_t(at)] = x.second;
    });
    Par::parallel_for(Par::blocked_range<std::int64_t>(0, tiles, 1024),
                      [&](Par::blocked_range<std::int64_t> const& r) {
                          for (std::int64_t t = r.begin(); t != r.end(); ++t)
                              std::sort(lists.index.begin() + lists.offset[std::size_t(t)],
                                        lists.index.begin() + lists.offset[std::size_t(t) + 1]);
                      });
    TVL::throwIfJobCancelled();
    return lists;
}

/// Stamps the spheres of a tile's points into its voxels: the level is the smallest sphere
/// distance, the closest index the point that gave it, the earlier (lower) index keeping a tie.
/// Only voxels within the radius plus @p pad (finest voxels) of a point are visited. A tile is
/// stamped in local arrays that also keep the distance of each voxel's closest point, so that no
/// distance is computed twice. Without @p withClosest only the level is written, and the
/// closest-point channel need not exist; the voxels of a point's box that lie farther than its
/// radius plus @p pad are then left out too, since such a voxel next to the surface always has
/// a nearer point (with @p pad at least one voxel).
/// @return whether some finest voxel ends up inside (0 > level).
template <typename Traits>
bool stampSpheres(PointsDriver<Traits>& m, PointLists const& lists, double pad, bool withClosest)
{
    constexpr int kMax = Traits::kMaxDepth;
    constexpr int W = Traits::kTileWidth;
    constexpr int N = W * W * W;
    std::int64_t const tiles = m.container.tileCount(kMax);
    double const h = double(m.voxelSize);
    std::atomic<bool> inside{false};
    Par::parallel_for(
        Par::blocked_range<std::int64_t>(0, tiles, 64),
        [&](Par::blocked_range<std::int64_t> const& r) {
            if (TVL::bodyCancelled())
                return;
            bool anyInside = false;
            float level[N], own[N];
            std::int64_t id[N];
            for (std::int64_t t = r.begin(); t != r.end(); ++t) {
                Tile<Traits> const& tile = m.container.tile(t, kMax);
                auto lv = m.level.tileData(t, kMax);
                auto cl = withClosest ? m.closest->tileData(t, kMax)
                                      : decltype(m.closest->tileData(t, kMax)){};
                if (lv.empty() || (withClosest && cl.empty()))
                    continue;
                std::copy(lv.data(), lv.data() + N, level);
                if (withClosest)
                    std::copy(cl.data(), cl.data() + N, id);
                else
                    std::fill(id, id + N, std::int64_t(-1));
                for (int v = 0; v < N; ++v)
                    if (id[v] >= 0)
                        own[v] =
                            m.sphereDistance(double3{double(tile.ti()) + v % W + m.offset.x,
                                                     double(tile.tj()) + (v / W) % W + m.offset.y,
                                                     double(tile.tk()) + v / (W * W) + m.offset.z},
                                             id[v]);
                // The sample positions of the tile's voxels along each axis, in finest voxels.
                double cx[W], cy[W], cz[W];
                for (int q = 0; q < W; ++q) {
                    cx[q] = double(tile.ti()) + q + m.offset.x;
                    cy[q] = double(tile.tj()) + q + m.offset.y;
                    cz[q] = double(tile.tk()) + q + m.offset.z;
                }
                double const origin[3] = {double(tile.ti()), double(tile.tj()), double(tile.tk())};
                std::int64_t const qEnd = lists.offset[std::size_t(t) + 1];
                for (std::int64_t q = lists.offset[std::size_t(t)]; q < qEnd; ++q) {
                    std::int64_t const i = lists.index[std::size_t(q)];
                    double3 const& p = m.centre[std::size_t(i)];
                    double const radius = double(m.radius[std::size_t(i)]);
                    double const rv = m.radiusInVoxels(std::size_t(i));
                    int lo[3], hi[3];
                    for (int a = 0; a < 3; ++a) {
                        double const pl = p[a] - origin[a];
                        lo[a] = int(std::max(0.0, std::floor(pl - rv - pad)));
                        hi[a] = int(std::min(double(W - 1), std::ceil(pl + rv + pad)));
                    }
                    double const reach2 = withClosest ? DBL_MAX : (rv + pad) * (rv + pad);
                    for (int k = lo[2]; k <= hi[2]; ++k) {
                        double const dz = cz[k] - p.z;
                        for (int j = lo[1]; j <= hi[1]; ++j) {
                            double const dy = cy[j] - p.y;
                            double const dyz = dy * dy + dz * dz;
                            if (dyz > reach2)
                                continue;
                            for (int ii = lo[0]; ii <= hi[0]; ++ii) {
                                double const dx = cx[ii] - p.x;
                                double const q2 = dx * dx + dyz;
                                if (q2 > reach2)
                                    continue;
                                // As `sphereDistance`, so that the values keep their bits.
                                float const d = float(std::sqrt(q2) * h - radius);
                                int const v = ii + W * (j + W * k);
                                level[v] = std::min(level[v], d);
                                if (id[v] < 0 || own[v] > d) {
                                    id[v] = i;
                                    own[v] = d;
                                }
                            }
                        }
                    }
                }
                for (int v = 0; v < N; ++v)
                    anyInside |= 0.0f > level[v];
                std::copy(level, level + N, lv.data());
                if (withClosest)
                    std::copy(id, id + N, cl.data());
            }
            if (anyInside)
                inside.store(true, std::memory_order_relaxed);
        });
    TVL::throwIfJobCancelled();
    return inside.load() || 0.0f > m.level.defaultValue();
}

/// Stamps the level set alone point by point, with no lists: each point lowers, by an atomic
/// minimum, the voxels within its radius plus @p pad (finest voxels) in the finest tiles it
/// reaches. The minimum does not depend on the order of the points, so that the result is the
/// same on any number of threads, and equal to `stampSpheres` on every voxel that it visits.
/// @return whether some voxel it wrote is inside (0 > level), or the default value is.
template <typename Traits>
bool stampPointsDirectly(PointsDriver<Traits>& m, BandTiles const& band, double pad)
{
    constexpr int kMax = Traits::kMaxDepth;
    constexpr int W = Traits::kTileWidth;
    std::int64_t const w = Container<Traits>::tileVoxelWidth(kMax);
    std::int64_t const tiles = m.container.tileCount(kMax);
    double const h = double(m.voxelSize);
    // The voxel block of every finest tile, looked up once.
    std::vector<float*> blocks(std::size_t(tiles), nullptr);
    Par::parallel_for(Par::blocked_range<std::int64_t>(0, tiles, 4096),
                      [&](Par::blocked_range<std::int64_t> const& r) {
                          for (std::int64_t t = r.begin(); t != r.end(); ++t) {
                              auto lv = m.level.tileData(t, kMax);
                              blocks[std::size_t(t)] = lv.empty() ? nullptr : lv.data();
                          }
                      });
    std::vector<SortedSphere> const& spheres = band.spheres;
    std::atomic<bool> inside{false};
    Par::parallel_for(
        Par::blocked_range<std::size_t>(0, m.size(), 256),
        [&](Par::blocked_range<std::size_t> const& r) {
            if (TVL::bodyCancelled())
                return;
            auto acc = std::as_const(m.container).tileAccessor();
            bool anyInside = false;
            for (std::size_t q = r.begin(); q != r.end(); ++q) {
                double3 const& p = spheres[q].centre;
                double const radius = spheres[q].radius;
                double const rv = radius * double(m.invVoxelSize);
                double const reach = rv + pad, reach2 = reach * reach;
                std::int64_t lo[3], hi[3];
                for (int a = 0; a < 3; ++a) {
                    lo[a] = std::int64_t(std::floor(p[a] - reach));
                    hi[a] = std::int64_t(std::ceil(p[a] + reach));
                }
                for (std::int64_t tz = PointsDriver<Traits>::alignDown(lo[2], kMax); tz <= hi[2];
                     tz += w)
                    for (std::int64_t ty = PointsDriver<Traits>::alignDown(lo[1], kMax);
                         ty <= hi[1]; ty += w)
                        for (std::int64_t tx = PointsDriver<Traits>::alignDown(lo[0], kMax);
                             tx <= hi[0]; tx += w) {
                            std::int64_t const t = band.template find<Traits>(acc, tx, ty, tz);
                            if (t < 0 || !blocks[std::size_t(t)])
                                continue;
                            float* const level = blocks[std::size_t(t)];
                            int const k0 = int(std::max<std::int64_t>(0, lo[2] - tz)),
                                      k1 = int(std::min<std::int64_t>(W - 1, hi[2] - tz));
                            int const j0 = int(std::max<std::int64_t>(0, lo[1] - ty)),
                                      j1 = int(std::min<std::int64_t>(W - 1, hi[1] - ty));
                            int const i0 = int(std::max<std::int64_t>(0, lo[0] - tx)),
                                      i1 = int(std::min<std::int64_t>(W - 1, hi[0] - tx));
                            for (int k = k0; k <= k1; ++k) {
                                double const dz = double(tz) + k + m.offset.z - p.z;
                                for (int j = j0; j <= j1; ++j) {
                                    double const dy = double(ty) + j + m.offset.y - p.y;
                                    double const dyz = dy * dy + dz * dz;
                                    if (dyz > reach2)
                                        continue;
                                    for (int ii = i0; ii <= i1; ++ii) {
                                        double const dx = double(tx) + ii + m.offset.x - p.x;
                                        double const q2 = dx * dx + dyz;
                                        if (q2 > reach2)
                                            continue;
                                        // As `sphereDistance`, so that the values keep their bits.
                                        float const d = float(std::sqrt(q2) * h - radius);
                                        anyInside |= 0.0f > d;
                                        std::atomic_ref<float> v(level[ii + W * (j + W * k)]);
                                        float cur = v.load(std::memory_order_relaxed);
                                        while (d < cur && !v.compare_exchange_weak(
                                                              cur, d, std::memory_order_relaxed)) {
                                        }
                                    }
                                }
                            }
                        }
            }
            if (anyInside)
                inside.store(true, std::memory_order_relaxed);
        });
    TVL::throwIfJobCancelled();
    return inside.load() || 0.0f > m.level.defaultValue();
}

/// Carries closest-point indices from the stamped voxels to the rest of the finest tiles: up to
/// 20 passes, each sweeping the tiles of one checkerboard colour in the eight octant orders while
/// the other colour is read through a copy of its faces. A voxel tries the points of its three
/// upwind neighbours, taking the level min(level, d) and the closer point. The passes stop when
/// no voxel lacks a point, when a pass leaves as many without as the one before, or after 20.
template <typename Traits> void propagateClosestPoints(PointsDriver<Traits>& m)
{
    constexpr int kMax = Traits::kMaxDepth;
    constexpr int W = Traits::kTileWidth;
    constexpr int B = W + 2;
    std::int64_t const tiles = m.container.tileCount(kMax);
    std::vector<unsigned char> colour(std::size_t(tiles), 0);
    for (std::int64_t t = 0; t < tiles; ++t)
        colour[std::size_t(t)] =
            (unsigned char)PointsDriver<Traits>::tileColour(m.container.tile(t, kMax).tijk(), kMax);
    // Face neighbours of each tile at the finest depth (-1: none).
    std::vector<std::array<std::int64_t, 6>> faces;
    faces.resize(std::size_t(tiles));
    Par::parallel_for(Par::blocked_range<std::int64_t>(0, tiles, 64),
                      [&](Par::blocked_range<std::int64_t> const& r) {
                          auto acc = std::as_const(m.container).tileAccessor();
                          static constexpr int kDirs[6] = {
                              TVL::TileTree3D::kNeighborNegX, TVL::TileTree3D::kNeighborPosX,
                              TVL::TileTree3D::kNeighborNegY, TVL::TileTree3D::kNeighborPosY,
                              TVL::TileTree3D::kNeighborNegZ, TVL::TileTree3D::kNeighborPosZ};
                          for (std::int64_t t = r.begin(); t != r.end(); ++t)
                              for (int f = 0; f < 6; ++f) {
                                  auto const& nb =
                                      acc.tileNeighbor(m.container.tile(t, kMax), kDirs[f]);
                                  faces[std::size_t(t)][std::size_t(f)] =
                                      nb.valid() && nb.depth() == kMax ? nb.index() : -1;
                              }
                      });
    auto const at = [](int i, int j, int k) {
        return std::size_t((i + 1) + B * ((j + 1) + B * (k + 1)));
    };
    std::int64_t previous = -1, count = -1;
    for (int pass = 0; pass < 20; ++pass) {
        count = Par::parallel_deterministic_reduce(
            Par::blocked_range<std::int64_t>(0, tiles, 50), std::int64_t(0),
            [&](Par::blocked_range<std::int64_t> const& r, std::int64_t acc) {
                if (TVL::bodyCancelled())
                    return acc;
                std::vector<std::int64_t> halo(std::size_t(B * B * B), -1);
                for (std::int64_t t = r.begin(); t != r.end(); ++t) {
                    auto cl = m.closest->tileData(t, kMax);
                    auto lv = m.level.tileData(t, kMax);
                    if (cl.empty() || lv.empty())
                        continue;
                    if (colour[std::size_t(t)] == (pass & 1)) {
                        Tile<Traits> const& tile = m.container.tile(t, kMax);
                        std::fill(halo.begin(), halo.end(), std::int64_t(-1));
                        for (int k = 0; k < W; ++k)
                            for (int j = 0; j < W; ++j)
                                for (int i = 0; i < W; ++i)
                                    halo[at(i, j, k)] = cl[std::size_t(i + W * (j + W * k))];
                        // The faces of the six neighbours, read-only in this pass.
                        for (int f = 0; f < 6; ++f) {
                            std::int64_t const nb = faces[std::size_t(t)][std::size_t(f)];
                            if (nb < 0)
                                continue;
                            auto const nd = std::as_const(*m.closest).tileData(nb, kMax);
                            if (nd.empty())
                                continue;
                            int const axis = f / 2;
                            bool const high = f % 2 == 1;
                            int const src = high ? 0 : W - 1, dst = high ? W : -1;
                            for (int b = 0; b < W; ++b)
                                for (int a = 0; a < W; ++a) {
                                    int s[3], d[3];
                                    int const other0 = axis == 0 ? 1 : 0,
                                              other1 = axis == 2 ? 1 : 2;
                                    s[axis] = src, d[axis] = dst;
                                    s[other0] = d[other0] = a;
                                    s[other1] = d[other1] = b;
                                    halo[at(d[0], d[1], d[2])] =
                                        nd[std::size_t(s[0] + W * (s[1] + W * s[2]))];
                                }
                        }
                        double3 const origin{double(tile.ti()), double(tile.tj()),
                                             double(tile.tk())};
                        for (int s = 0; s < 8; ++s) {
                            int const sx = (s & 1) ? -1 : 1, sy = (s & 2) ? -1 : 1,
                                      sz = (s & 4) ? -1 : 1;
                            for (int kk = 0; kk < W; ++kk)
                                for (int jj = 0; jj < W; ++jj)
                                    for (int ii = 0; ii < W; ++ii) {
                                        int const i = sx > 0 ? ii : W - 1 - ii;
                                        int const j = sy > 0 ? jj : W - 1 - jj;
                                        int const k = sz > 0 ? kk : W - 1 - kk;
                                        std::size_t const v = std::size_t(i + W * (j + W * k));
                                        std::int64_t& own = halo[at(i, j, k)];
                                        double3 const c{origin.x + i + m.offset.x,
                                                        origin.y + j + m.offset.y,
                                                        origin.z + k + m.offset.z};
                                        std::int64_t const cand[3] = {halo[at(i - sx, j, k)],
                                                                      halo[at(i, j - sy, k)],
                                                                      halo[at(i, j, k - sz)]};
                                        for (std::int64_t q : cand) {
                                            if (q < 0 || q == own)
                                                continue;
                                            float const d = m.sphereDistance(c, q);
                                            lv[v] = std::min(lv[v], d);
                                            if (own < 0) {
                                                own = q;
                                            } else {
                                                float const mine = m.sphereDistance(c, own);
                                                // The lower index keeps a tie.
                                                if (mine > d || (mine == d && q < own))
                                                    own = q;
                                            }
                                        }
                                    }
                        }
                        for (int k = 0; k < W; ++k)
                            for (int j = 0; j < W; ++j)
                                for (int i = 0; i < W; ++i)
                                    cl[std::size_t(i + W * (j + W * k))] = halo[at(i, j, k)];
                    }
                    for (std::size_t v = 0; v < cl.size(); ++v)
                        acc += cl[v] < 0 ? 1 : 0;
                }
                return acc;
            },
            [](std::int64_t a, std::int64_t b) { return a + b; });
        TVL::throwIfJobCancelled();
        if (count == 0 || count == previous)
            break;
        previous = count;
    }
}

} // namespace VolumeGL::TileTree3D::detail
