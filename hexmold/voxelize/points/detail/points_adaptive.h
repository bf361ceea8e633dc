/// @file  voxelize/points/detail/points_adaptive.h
/// @brief The adaptive route of the point voxelizer: the coarse depth, the tiles the points ask
///        for, the partition of the points over them, and the sphere-union distance with the
///        closest point of every voxel, by top-down refinement or per tile.
#pragma once
#include <algorithm>
#include <array>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdint>
#include <deque>
#include <hexmold/analysis/coarsen_refine.h>
#include <hexmold/analysis/grade_tile_tree.h>
#include <hexmold/analysis/level_set_sampler.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/quillon/runtime_services.h>
#include <hexmold/substrate/cancel.h>
#include <hexmold/substrate/canonical_order.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/channel_update.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/halo.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/scratch_channel.h>
#include <hexmold/voxelize/points/detail/points_driver.h>
#include <hexmold/voxelize/points/detail/points_stage_names.h>
#include <iostream>
#include <limits>
#include <memory>
#include <span>
#include <stdexcept>
#include <utility>
#include <vector>

namespace VolumeGL::TileTree3D::detail {

namespace Par = TVL::Parallel;
using TVL::TileTree3D::Tile;
using TVL::TileTree3D::TileCornerLists;
using TVL::TileTree3D::TreeIndex;
using TVL::TileTree3D::VoxelCoord;

/// Per tile of one depth, the points listed in it, ascending (list of tile t: index[offset[t]] to
/// index[offset[t + 1]]).
struct DepthLists {
    std::vector<std::int64_t> offset;
    std::vector<std::int64_t> index;
    std::int64_t const* begin(std::int64_t t) const
    {
        return index.data() + offset[std::size_t(t)];
    }
    std::int64_t const* end(std::int64_t t) const
    {
        return index.data() + offset[std::size_t(t) + 1];
    }
};

/// Builds per-tile lists from (tile, point) records.
inline DepthLists listsFromRecords(std::vector<std::pair<std::int64_t, std::int64_t>>& records,
                                   std::int64_t tiles)
{
    Par::parallel_sort(records.begin(), records.end());
    records.erase(std::unique(records.begin(), records.end()), records.end());
    DepthLists l;
    l.offset.assign(std::size_t(tiles) + 1, 0);
    l.index.reserve(records.size());
    for (auto const& [t, i] : records) {
        ++l.offset[std::size_t(t) + 1];
        l.index.push_back(i);
    }
    for (std::int64_t t = 0; t < tiles; ++t)
        l.offset[std::size_t(t) + 1] += l.offset[std::size_t(t)];
    return l;
}

// ---- the tile kernel ----------------------------------------------------------------------------

/// @brief Sphere-union distances and closest points on the node lattice of a tile.
/// @details Nodes (i, j, k) over [lo, hi) per axis, z outermost, sit at the samples
///          origin + (i + offset) * vdw (finest voxels); their values go to the compact arrays
///          @p outLevel and @p outClosest (may be null) in that order. With a coarse lattice, nodes
///          on it (every index a multiple of R) inherit its value and closest point; the others
///          take the distance of each listed point whose box (radius plus @p threshold) reaches
///          them, and with @p sweep the nodes no point reached take, in up to eight octant
///          sweeps, the best of the points of their upwind neighbours. Ties go to the lower
///          point index, so the list order does not matter.
/// @return true when some value is below @p threshold.
template <typename Traits> struct TileKernel {
    static constexpr int W = Traits::kTileWidth;
    static constexpr int R = Traits::kRatio;
    static constexpr int kMaxNodes = (W + 1) * (W + 1) * (W + 1);

    PointsDriver<Traits> const& m;

    bool operator()(int3 const& origin, std::int64_t vdw, std::int64_t const* first,
                    std::int64_t const* last, float* outLevel, std::int64_t* outClosest,
                    float threshold, float const* coarseLevel, std::int64_t const* coarseClosest,
                    int3 const& child, int3 const& lo, int3 const& hi, bool sweep) const
    {
        constexpr int L = W + 1; // coarse lattices are (W + 1)^3, x fastest
        constexpr std::int64_t kNone = std::numeric_limits<std::int64_t>::max();
        int const nx = hi.x - lo.x, ny = hi.y - lo.y, nz = hi.z - lo.z;
        if (nx <= 0 || ny <= 0 || nz <= 0)
            return false;
        std::array<double3, kMaxNodes> pos;
        std::array<std::int64_t, kMaxNodes> closest;
        std::array<unsigned char, kMaxNodes> inherited;
        int remaining = nx * ny * nz;
        bool flag = false;
        double const v = double(vdw);
        bool const coarseAligned = m.offset.x == 0.0 && m.offset.y == 0.0 && m.offset.z == 0.0;
        for (int k = 0, n = 0; k < nz; ++k)
            for (int j = 0; j < ny; ++j)
                for (int i = 0; i < nx; ++i, ++n) {
                    int const gi = lo.x + i, gj = lo.y + j, gk = lo.z + k;
                    closest[n] = kNone;
                    inherited[n] = 0;
                    pos[n] = double3{double(origin.x) + (gi + m.offset.x) * v,
                                     double(origin.y) + (gj + m.offset.y) * v,
                                     double(origin.z) + (gk + m.offset.z) * v};
                    // A node shares its sample with the coarse lattice only when samples sit at
                    // voxel corners: with any other offset the two lattices are shifted.
                    bool const onCoarse =
                        coarseAligned && gi % R == 0 && gj % R == 0 && gk % R == 0;
                    if (!coarseLevel || (sweep && !coarseClosest) || !onCoarse) {
                        outLevel[n] = m.defaultValue;
                        if (outClosest)
                            outClosest[n] = -1;
                        continue;
                    }
                    constexpr int kCellsPerChild = W / R;
                    int const ci = gi / R + kCellsPerChild * child.x,
                              cj = gj / R + kCellsPerChild * child.y,
                              ck = gk / R + kCellsPerChild * child.z;
                    std::size_t const c = std::size_t(ci + L * (cj + L * ck));
                    inherited[n] = 1;
                    --remaining;
                    outLevel[n] = coarseLevel[c];
                    if (coarseClosest) {
                        closest[n] = coarseClosest[c] < 0 ? kNone : coarseClosest[c];
                        if (outClosest)
                            outClosest[n] = coarseClosest[c];
                    } else if (outClosest) {
                        outClosest[n] = -1;
                    }
                    if (outLevel[n] < threshold)
                        flag = true;
                }
        auto const offer = [&](int n, std::int64_t q) {
            float const d = m.sphereDistance(pos[std::size_t(n)], q);
            if (outLevel[n] > d || (outLevel[n] == d && closest[std::size_t(n)] > q)) {
                outLevel[n] = d;
                if (outClosest)
                    outClosest[n] = q;
                if (closest[std::size_t(n)] == kNone)
                    --remaining;
                closest[std::size_t(n)] = q;
                if (d < threshold)
                    flag = true;
            }
        };
        double const hv = double(m.invVoxelSize);
        for (std::int64_t const* it = first; it != last; ++it) {
            std::int64_t const q = *it;
            double3 const& p = m.centre[std::size_t(q)];
            double const reach = (double(threshold) + double(m.radius[std::size_t(q)])) * hv;
            int r0[3], r1[3];
            int const los[3] = {lo.x, lo.y, lo.z}, his[3] = {hi.x, hi.y, hi.z};
            bool empty = false;
            for (int a = 0; a < 3; ++a) {
                double const o = double(origin[a]);
                double const l = std::floor((p[a] - reach - o) / v),
                             h = std::ceil((p[a] + reach - o) / v);
                r0[a] = int(std::clamp(l, double(los[a]), double(his[a])));
                r1[a] = int(std::clamp(h, double(los[a] - 1), double(his[a] - 1)));
                if (r1[a] < r0[a])
                    empty = true;
            }
            if (empty)
                continue;
            for (int k = r0[2]; k <= r1[2]; ++k)
                for (int j = r0[1]; j <= r1[1]; ++j)
                    for (int i = r0[0]; i <= r1[0]; ++i) {
                        int const n = (i - lo.x) + nx * ((j - lo.y) + ny * (k - lo.z));
                        if (!inherited[std::size_t(n)])
                            offer(n, q);
                    }
        }
        if (!sweep || remaining < 1)
            return flag;
        // Nodes that no point reached take their upwind neighbours' points. Without a node that
        // has a point there is nothing to carry.
        std::array<unsigned char, kMaxNodes> marked;
        bool anyPoint = false;
        for (int n = 0; n < nx * ny * nz; ++n) {
            marked[std::size_t(n)] = closest[std::size_t(n)] == kNone && !inherited[std::size_t(n)];
            anyPoint |= closest[std::size_t(n)] != kNone;
        }
        if (!anyPoint)
            return flag;
        for (int s = 0; s < 8 && remaining >= 1; ++s) {
            int const dx = (s & 1) ? -1 : 1, dy = (s & 2) ? -1 : 1, dz = (s & 4) ? -1 : 1;
            for (int kk = 0; kk < nz; ++kk)
                for (int jj = 0; jj < ny; ++jj)
                    for (int ii = 0; ii < nx; ++ii) {
                        int const i = dx > 0 ? ii : nx - 1 - ii, j = dy > 0 ? jj : ny - 1 - jj,
                                  k = dz > 0 ? kk : nz - 1 - kk;
                        int const n = i + nx * (j + ny * k);
                        if (!marked[std::size_t(n)])
                            continue;
                        int const i1 = std::clamp(i - dx, 0, nx - 1),
                                  j1 = std::clamp(j - dy, 0, ny - 1),
                                  k1 = std::clamp(k - dz, 0, nz - 1);
                        // Neighbours mostly share a point: a point offered once and refused is
                        // refused again, since the node's value only decreases.
                        std::int64_t refused = kNone;
                        for (int c = 0; c < 8; ++c) {
                            int const wi = (c & 1) ? i1 : i, wj = (c & 2) ? j1 : j,
                                      wk = (c & 4) ? k1 : k;
                            std::int64_t const q = closest[std::size_t(wi + nx * (wj + ny * wk))];
                            if (q == kNone || q == closest[std::size_t(n)] || q == refused)
                                continue;
                            offer(n, q);
                            if (closest[std::size_t(n)] != q)
                                refused = q;
                        }
                    }
        }
        return flag;
    }
};

// ---- stage: the coarse depth and the tiles the points ask for -----------------------------------

/// Maximum extent of the points' box, each point grown by its radius and the graded voxel size.
template <typename Traits> double pointBoxExtent(PointsDriver<Traits> const& m)
{
    struct Box {
        double lo[3] = {DBL_MAX, DBL_MAX, DBL_MAX}, hi[3] = {-DBL_MAX, -DBL_MAX, -DBL_MAX};
    };
    Box const box = Par::parallel_reduce(
        Par::blocked_range<std::size_t>(0, m.size(), 4096), Box{},
        [&](Par::blocked_range<std::size_t> const& r, Box b) {
            for (std::size_t i = r.begin(); i != r.end(); ++i) {
                double const g = double(m.radius[i] + m.gradedVoxelSize) * double(m.invVoxelSize);
                for (int a = 0; a < 3; ++a) {
                    b.lo[a] = std::min(b.lo[a], m.centre[i][a] - g);
                    b.hi[a] = std::max(b.hi[a], m.centre[i][a] + g);
                }
            }
            return b;
        },
        [](Box a, Box const& b) {
            for (int q = 0; q < 3; ++q)
                a.lo[q] = std::min(a.lo[q], b.lo[q]), a.hi[q] = std::max(a.hi[q], b.hi[q]);
            return a;
        });
    double e = 0.0;
    for (int a = 0; a < 3; ++a)
        e = std::max(e, box.hi[a] - box.lo[a]);
    return e * double(m.voxelSize);
}

/// The first field (deepest first) whose box overlaps the world box [lo, hi]; null when none.
template <typename Traits>
typename PointsDriver<Traits>::Field const* overlappingField(PointsDriver<Traits> const& m,
                                                             double const lo[3], double const hi[3])
{
    for (auto const& f : m.fields) {
        bool overlap = true;
        for (int a = 0; a < 3; ++a)
            if (double(f.max[a]) + kBoxSlack < lo[a] || double(f.min[a]) - kBoxSlack > hi[a])
                overlap = false;
        if (overlap)
            return &f;
    }
    return nullptr;
}

/// Fixes the coarse depth and the flags that depend on the cloud, then allocates the tiles the
/// points ask for.
template <typename Traits> void refineCoarserLevels(PointsDriver<Traits>& m, double maxExtent)
{
    constexpr int kMax = Traits::kMaxDepth;
    constexpr int W = Traits::kTileWidth;
    constexpr int R = Traits::kRatio;
    int const verbose = CoreGL::Logger::verboseLevel();
    double const invLog = 1.0 / std::log(double(R));
    double const x = 1.0 + double(R - 1) * maxExtent * 0.5 * double(m.invVoxelSize) / double(W);
    int const levels = int(std::ceil(std::log(x) * invLog - 1.0));
    m.minDepth = std::max(0, kMax - std::min(kMax, std::max(0, levels)));
    if (m.isVariedFromProperty && (m.hasDetailSizes || !m.hasSingleRadius)) {
        struct Max {
            float detail = 0.0f;
            double radius = 0.0;
        };
        Max const mx = Par::parallel_reduce(
            Par::blocked_range<std::size_t>(0, m.size(), 4096), Max{},
            [&](Par::blocked_range<std::size_t> const& r, Max a) {
                for (std::size_t i = r.begin(); i != r.end(); ++i) {
                    if (m.hasDetailSizes && std::isfinite(m.detail[i]))
                        a.detail = std::max(a.detail, m.detail[i]);
                    if (!m.hasSingleRadius) {
                        double rv = m.radiusInVoxels(i);
                        if (m.hasDetailSizes)
                            rv /= double(
                                Container<Traits>::voxelDataWidth(m.detailSizeDepth(m.detail[i])));
                        a.radius = std::max(a.radius, rv);
                    }
                }
                return a;
            },
            [](Max a, Max const& b) {
                a.detail = std::max(a.detail, b.detail);
                a.radius = std::max(a.radius, b.radius);
                return a;
            });
        if (m.hasDetailSizes)
            m.minVariedFromPropertyDepth = m.detailSizeDepth(mx.detail);
        if (!m.hasSingleRadius)
            m.maxVariedRadiusInVoxels = int(std::ceil(std::min(mx.radius, 1e9)));
    }
    constexpr int kSmallRadius = R == 2 ? 7 : 9;
    if (m.isVariedFromProperty && m.maxVariedRadiusInVoxels <= kSmallRadius)
        m.allocateAdaptivelyAlongSurface = false;
    int const s = std::min(m.fieldMinDepth, m.minVariedFromPropertyDepth);
    m.minDepth = std::min(s, std::max(m.minDepth, s - 4));
    if (verbose > 0)
        std::cout << "minDepth = " << m.minDepth
                  << "\nminVariedFromPropertyDepth = " << m.minVariedFromPropertyDepth
                  << "\nmaxVariedRadiusInVoxels = " << m.maxVariedRadiusInVoxels
                  << "\nallocateAdaptivelyAlongSurface = " << m.allocateAdaptivelyAlongSurface
                  << '\n';
    if (m.allocateAdaptivelyAlongSurface)
        m.minDepth = std::min(m.minDepth, kMax - 1);
    int const maxNumThreads = Par::maxConcurrency();
    if (verbose > 0)
        std::cout << "maxNumThreads = " << maxNumThreads << '\n';
    std::size_t const grain =
        std::max<std::size_t>(1, m.size() / std::size_t(std::max(1, maxNumThreads)));

    bool const perTile = m.isVariedFromProperty && !m.allocateAdaptivelyAlongSurface;
    bool const hasFields = !m.fields.empty();
    Par::enumerable_thread_specific<CornerSet> sets;
    Par::parallel_for(
        Par::blocked_range<std::size_t>(0, m.size(), grain),
        [&](Par::blocked_range<std::size_t> const& r) {
            if (TVL::bodyCancelled())
                return;
            CornerSet& set = sets.local();
            for (std::size_t i = r.begin(); i != r.end(); ++i) {
                double3 const& p = m.centre[i];
                int depth = m.minDepth;
                if (m.isVariedFromProperty) {
                    int const d = m.hasDetailSizes ? m.detailSizeDepth(m.detail[i]) : kMax;
                    depth = m.allocateAdaptivelyAlongSurface ? std::min(m.minDepth, d) : d;
                }
                std::int64_t lo[3] = {0, 0, 0}, hi[3] = {0, 0, 0};
                if (!(!hasFields && perTile)) {
                    double const rv =
                        m.radiusInVoxels(i) + double(m.padDepthTS[std::size_t(depth)]);
                    for (int a = 0; a < 3; ++a) {
                        lo[a] = std::int64_t(std::floor(p[a] - rv));
                        hi[a] = std::int64_t(std::ceil(p[a] + rv));
                    }
                }
                if (hasFields) {
                    double wl[3], wh[3];
                    for (int a = 0; a < 3; ++a)
                        wl[a] = double(lo[a]) * m.voxelSize, wh[a] = double(hi[a]) * m.voxelSize;
                    auto const* f = overlappingField(m, wl, wh);
                    if (!f)
                        continue; // a point outside every field allocates nothing
                    depth = std::min(f->targetDepth, depth);
                }
                if (perTile) {
                    std::int64_t const w = Container<Traits>::tileVoxelWidth(depth);
                    int3 c;
                    for (int a = 0; a < 3; ++a)
                        c[a] = int(
                            PointsDriver<Traits>::alignDown(std::int64_t(std::floor(p[a])), depth));
                    if (Container<Traits>::inDomain(c.x, c.y, c.z))
                        set.insert(c, depth);
                    (void)w;
                    continue;
                }
                std::int64_t const w = Container<Traits>::tileVoxelWidth(depth);
                std::int64_t a0[3];
                for (int a = 0; a < 3; ++a)
                    a0[a] = PointsDriver<Traits>::alignDown(lo[a], depth);
                for (std::int64_t z = a0[2]; z <= hi[2]; z += w)
                    for (std::int64_t y = a0[1]; y <= hi[1]; y += w)
                        for (std::int64_t x = a0[0]; x <= hi[0]; x += w)
                            if (Container<Traits>::inDomain(x, y, z))
                                set.insert(int3{int(x), int(y), int(z)}, depth);
            }
        });
    TVL::throwIfJobCancelled();
    addCollectedTiles(sets, m.container);
    if (verbose > 0)
        for (int d = 0; d <= kMax; ++d)
            std::cout << "tileCount(" << d << ") = " << m.container.tileCount(d) << '\n';
}

// ---- stage: the partition of the points
// ----------------------------------------------------------

/// The partition: with `allocateAdaptivelyAlongSurface`, every tile of minDepth that a point's
/// padded sphere overlaps lists it (box mode); otherwise the deepest tile holding the point, not
/// deeper than the depth it asks for, lists it and grows its voxel bounds by the point's reach.
template <typename Traits> struct Partition {
    std::vector<DepthLists> lists; ///< per depth; box mode: only minDepth
    /// Per depth and tile, voxel bounds relative to the tile's corner: min x, y, z, max x, y, z.
    std::vector<std::vector<std::array<int, 6>>> bounds;
};

template <typename Traits>
Partition<Traits> partitionPoints(PointsDriver<Traits> const& m, bool wantBounds)
{
    constexpr int kMax = Traits::kMaxDepth;
    Partition<Traits> part;
    part.lists.resize(std::size_t(kMax + 1));
    int const verbose = CoreGL::Logger::verboseLevel();
    using Record = std::pair<std::int64_t, std::int64_t>;
    if (m.allocateAdaptivelyAlongSurface) {
        int const depth = m.minDepth;
        std::int64_t const w = Container<Traits>::tileVoxelWidth(depth);
        Par::enumerable_thread_specific<std::vector<Record>> local;
        Par::parallel_for(Par::blocked_range<std::size_t>(0, m.size(), 256),
                          [&](Par::blocked_range<std::size_t> const& r) {
                              if (TVL::bodyCancelled())
                                  return;
                              auto& out = local.local();
                              auto acc = m.container.tileAccessor();
                              for (std::size_t i = r.begin(); i != r.end(); ++i) {
                                  double3 const& p = m.centre[i];
                                  double const rv = m.radiusInVoxels(i) +
                                                    double(m.padDepthTS[std::size_t(depth)]);
                                  std::int64_t lo[3], hi[3];
                                  for (int a = 0; a < 3; ++a) {
                                      lo[a] = PointsDriver<Traits>::alignDown(
                                          std::int64_t(std::floor(p[a] - rv)), depth);
                                      hi[a] = std::int64_t(std::ceil(p[a] + rv));
                                  }
                                  for (std::int64_t z = lo[2]; z < hi[2]; z += w)
                                      for (std::int64_t y = lo[1]; y < hi[1]; y += w)
                                          for (std::int64_t x = lo[0]; x < hi[0]; x += w) {
                                              if (!Container<Traits>::inDomain(x, y, z))
                                                  continue;
                                              auto const& t = acc.tile(x, y, z, depth);
                                              if (t.valid() && t.depth() == depth)
                                                  out.push_back({t.index(), std::int64_t(i)});
                                          }
                              }
                          });
        TVL::throwIfJobCancelled();
        std::vector<Record> records;
        for (auto& v : local)
            records.insert(records.end(), v.begin(), v.end());
        part.lists[std::size_t(depth)] = listsFromRecords(records, m.container.tileCount(depth));
        return part;
    }
    // Single-tile mode: (depth, tile, point) records, then per-depth lists and bounds.
    struct Entry {
        int depth;
        std::int64_t tile, point;
        int lo[3], hi[3];
    };
    std::vector<Entry> entries(m.size());
    Par::parallel_for(Par::blocked_range<std::size_t>(0, m.size(), 256),
                      [&](Par::blocked_range<std::size_t> const& r) {
                          if (TVL::bodyCancelled())
                              return;
                          auto acc = m.container.tileAccessor();
                          for (std::size_t i = r.begin(); i != r.end(); ++i) {
                              double3 const& p = m.centre[i];
                              int const want = m.isVariedFromProperty && m.hasDetailSizes
                                                   ? m.detailSizeDepth(m.detail[i])
                                                   : kMax;
                              auto const& t = acc.tile(std::int64_t(std::floor(p.x)),
                                                       std::int64_t(std::floor(p.y)),
                                                       std::int64_t(std::floor(p.z)), want);
                              Entry& e = entries[i];
                              e.point = std::int64_t(i);
                              if (!t.valid() || t.depth() < 0 || t.depth() < m.minDepth) {
                                  e.depth = -1;
                                  continue;
                              }
                              e.depth = t.depth();
                              e.tile = t.index();
                              double const w = double(t.voxelDataWidth());
                              double const rv = m.radiusInVoxels(i);
                              int3 const o = t.tijk();
                              for (int a = 0; a < 3; ++a) {
                                  e.lo[a] = int(std::floor((p[a] - rv - double(o[a])) / w - 0.5));
                                  e.hi[a] = int(std::ceil((p[a] + rv - double(o[a])) / w + 0.5));
                              }
                          }
                      });
    TVL::throwIfJobCancelled();
    std::vector<std::vector<Record>> records(std::size_t(kMax + 1));
    if (wantBounds)
        part.bounds.resize(std::size_t(kMax + 1));
    for (int d = m.minDepth; d <= kMax; ++d)
        if (wantBounds)
            part.bounds[std::size_t(d)].assign(
                std::size_t(m.container.tileCount(d)),
                {INT_MAX, INT_MAX, INT_MAX, -INT_MAX, -INT_MAX, -INT_MAX});
    for (Entry const& e : entries) {
        if (e.depth < 0)
            continue;
        records[std::size_t(e.depth)].push_back({e.tile, e.point});
        if (wantBounds) {
            auto& b = part.bounds[std::size_t(e.depth)][std::size_t(e.tile)];
            for (int a = 0; a < 3; ++a) {
                b[std::size_t(a)] = std::min(b[std::size_t(a)], e.lo[a]);
                b[std::size_t(a + 3)] = std::max(b[std::size_t(a + 3)], e.hi[a]);
            }
        }
    }
    std::int64_t total = 0;
    for (int d = m.minDepth; d <= kMax; ++d) {
        std::size_t const count = records[std::size_t(d)].size();
        total += std::int64_t(count);
        part.lists[std::size_t(d)] =
            listsFromRecords(records[std::size_t(d)], m.container.tileCount(d));
        if (verbose > 1)
            std::cout << "numPoints at depth " << d << " = " << count
                      << ", = " << 100.0 * double(count) / double(m.size()) << '\n';
    }
    if (verbose > 1)
        std::cout << "numTotal = " << total << ", overhead = " << double(total) / double(m.size())
                  << '\n';
    return part;
}

/// How many tiles beyond its own the points of a tile reach: from the tile's voxel bounds.
template <int W> int overhang(std::array<int, 6> const& b)
{
    if (b[0] > b[3])
        return 0;
    double o = 0.0;
    for (int a = 0; a < 3; ++a) {
        o = std::max(o, double(b[std::size_t(a + 3)] + 1) / double(W) - 1.0);
        o = std::max(o, double(std::max(0, -b[std::size_t(a)])) / double(W));
    }
    return int(std::ceil(o));
}

// ---- stages: per-tile voxelization and the union with coarser surfaces
// ---------------------------

template <typename Traits>
void voxelizePerTile(PointsDriver<Traits>& m, Partition<Traits> const& part)
{
    constexpr int kMax = Traits::kMaxDepth;
    constexpr int W = Traits::kTileWidth;
    constexpr int N = W * W * W;
    if (CoreGL::Logger::verboseLevel() > 0)
        std::cout << "tileDilation = " << m.tileDilation << '\n';
    TileKernel<Traits> const kernel{m};
    float const threshold = 1.1920929e-07f;
    for (int d = m.minDepth; d <= kMax; ++d) {
        std::int64_t const tiles = m.container.tileCount(d);
        DepthLists const& lists = part.lists[std::size_t(d)];
        if (lists.offset.empty())
            continue;
        Par::parallel_for(Par::blocked_range<std::int64_t>(0, tiles, 1), [&](Par::blocked_range<
                                                                             std::int64_t> const&
                                                                                 r) {
            if (TVL::bodyCancelled())
                return;
            auto acc = m.container.tileAccessor();
            std::vector<std::int64_t> candidates;
            for (std::int64_t t = r.begin(); t != r.end(); ++t) {
                Tile<Traits> const& tile = m.container.tile(t, d);
                candidates.clear();
                int const reach = m.tileDilation;
                if (reach >= 1) {
                    for (int dz = -reach; dz <= reach; ++dz)
                        for (int dy = -reach; dy <= reach; ++dy)
                            for (int dx = -reach; dx <= reach; ++dx) {
                                auto const& nb = acc.tileNeighbor(tile, int3{dx, dy, dz}, d, false);
                                if (!nb.valid() || nb.depth() != d)
                                    continue;
                                candidates.insert(candidates.end(), lists.begin(nb.index()),
                                                  lists.end(nb.index()));
                            }
                }
                auto lv = m.level.tileData(t, d);
                if (lv.empty())
                    continue;
                std::array<float, N> values;
                std::array<std::int64_t, N> ids;
                kernel(tile.tijk(), tile.voxelDataWidth(), candidates.data(),
                       candidates.data() + candidates.size(), values.data(),
                       m.closest ? ids.data() : nullptr, threshold, nullptr, nullptr, int3{0, 0, 0},
                       int3{0, 0, 0}, int3{W, W, W}, true);
                std::copy(values.begin(), values.end(), lv.data());
                if (m.closest) {
                    auto cl = m.closest->tileData(t, d);
                    if (!cl.empty())
                        std::copy(ids.begin(), ids.end(), cl.data());
                }
            }
        });
        TVL::throwIfJobCancelled();
    }
}

/// Coarse surfaces union into finer tiles that their points never reached: each voxel takes the
/// trilinear value of the parent depth's lattice where that is lower, and the closest point of
/// the parent voxel covering it.
template <typename Traits> void interpolateAndUnion(PointsDriver<Traits>& m)
{
    constexpr int kMax = Traits::kMaxDepth;
    constexpr int W = Traits::kTileWidth;
    constexpr int R = Traits::kRatio;
    constexpr int kCells = W / R;
    for (int d = std::min(m.minDepth + 1, kMax); d <= kMax; ++d) {
        if (d == 0)
            continue;
        std::int64_t const tiles = m.container.tileCount(d);
        int const pd = d - 1;
        std::int64_t const pw = Container<Traits>::voxelDataWidth(pd);
        Par::parallel_for(
            Par::blocked_range<std::int64_t>(0, tiles, 1),
            [&](Par::blocked_range<std::int64_t> const& r) {
                if (TVL::bodyCancelled())
                    return;
                auto acc = m.container.tileAccessor();
                // The parent depth's voxel holding the tile-space point, and its value.
                auto read = [&](std::int64_t x, std::int64_t y, std::int64_t z, float& out,
                                std::int64_t* id) {
                    auto const& t = acc.tile(x, y, z, pd);
                    if (!t.valid() || t.depth() != pd)
                        return false;
                    int i, j, k;
                    t.childDataIJK(x, y, z, i, j, k);
                    auto const dd = std::as_const(m.level).tileData(t.treeIndex());
                    if (dd.empty())
                        return false;
                    out = dd(i, j, k);
                    if (id) {
                        auto const cc = std::as_const(*m.closest).tileData(t.treeIndex());
                        *id = cc.empty() ? -1 : cc(i, j, k);
                    }
                    return true;
                };
                for (std::int64_t t = r.begin(); t != r.end(); ++t) {
                    Tile<Traits> const& tile = m.container.tile(t, d);
                    auto lv = m.level.tileData(t, d);
                    if (lv.empty())
                        continue;
                    auto cl = m.closest ? m.closest->tileData(t, d)
                                        : decltype(m.closest->tileData(t, d)){};
                    for (int c = 0; c < kCells; ++c)
                        for (int b = 0; b < kCells; ++b)
                            for (int a = 0; a < kCells; ++a) {
                                std::int64_t const x0 = tile.ti() + a * pw, y0 = tile.tj() + b * pw,
                                                   z0 = tile.tk() + c * pw;
                                float corner[8];
                                std::int64_t id = -1;
                                bool ok = read(x0, y0, z0, corner[0], m.closest ? &id : nullptr);
                                for (int q = 1; q < 8 && ok; ++q)
                                    ok = read(x0 + ((q & 1) ? pw : 0), y0 + ((q & 2) ? pw : 0),
                                              z0 + ((q & 4) ? pw : 0), corner[q], nullptr);
                                if (!ok)
                                    continue;
                                for (int z = 0; z < R; ++z)
                                    for (int y = 0; y < R; ++y)
                                        for (int x = 0; x < R; ++x) {
                                            float const fx = float(x) / R, fy = float(y) / R,
                                                        fz = float(z) / R;
                                            float const x00 =
                                                corner[0] + (corner[1] - corner[0]) * fx;
                                            float const x10 =
                                                corner[2] + (corner[3] - corner[2]) * fx;
                                            float const x01 =
                                                corner[4] + (corner[5] - corner[4]) * fx;
                                            float const x11 =
                                                corner[6] + (corner[7] - corner[6]) * fx;
                                            float const y0 = x00 + (x10 - x00) * fy,
                                                        y1 = x01 + (x11 - x01) * fy;
                                            float const value = y0 + (y1 - y0) * fz;
                                            int const vi = a * R + x, vj = b * R + y,
                                                      vk = c * R + z;
                                            if (lv(vi, vj, vk) > value) {
                                                lv(vi, vj, vk) = value;
                                                if (!cl.empty())
                                                    cl(vi, vj, vk) = id;
                                            }
                                        }
                            }
                }
            });
        TVL::throwIfJobCancelled();
    }
}

// ---- stage: top-down refinement along the surface
// ------------------------------------------------

/// What a tile hands to each child: the points that can influence it, the deepest depth they
/// want, and the tile's node lattice.
template <typename Traits> struct SharedData {
    static constexpr int L = Traits::kTileWidth + 1;
    std::vector<std::int64_t> points;
    int wantedDepth = 0;
    std::array<float, L * L * L> level;
    std::array<std::int64_t, L * L * L> closest;
};

/// A child tile's voxels, kept by the thread that accepted it.
template <typename Traits> struct ChildBlock {
    VoxelCoord coord;
    std::array<float, Traits::kTileSize> level;
};

/// The closest points of a child tile, kept next to its `ChildBlock` (same thread, same place in
/// the thread's store) only when the closest-point channel exists.
template <typename Traits> struct ChildIds {
    std::array<std::int64_t, Traits::kTileSize> closest;
};

template <typename Traits> struct SurfaceRefiner {
    static constexpr int kMax = Traits::kMaxDepth;
    static constexpr int W = Traits::kTileWidth;
    static constexpr int R = Traits::kRatio;
    static constexpr int S = Traits::kSlotsPerAxis;
    static constexpr int L = W + 1;
    static constexpr int kCellsPerChild = W / R;
    /// The shared lattice of all children of a tile: with `Traits<2,4,1>` two children per axis
    /// share a face, so a child skips the planes its sibling before it computed.
    static constexpr bool kShareFaces = R == 2;
    static constexpr int kBig = S * W + 1;

    PointsDriver<Traits>& m;
    TileKernel<Traits> kernel{m};
    Par::enumerable_thread_specific<
        std::pair<std::deque<ChildBlock<Traits>>, std::deque<ChildIds<Traits>>>>
        out;

    explicit SurfaceRefiner(PointsDriver<Traits>& driver) : m(driver) {}

    static std::size_t big(int i, int j, int k) { return std::size_t(i + kBig * (j + kBig * k)); }
    static std::size_t lat(int i, int j, int k) { return std::size_t(i + L * (j + L * k)); }

    /// The interpolation of the parent's lattice misses the child's by more than the tolerance.
    bool errorTooLarge(SharedData<Traits> const& parent, int3 const& child,
                       SharedData<Traits> const& mine) const
    {
        float const tol2 = m.errorTolerance * m.errorTolerance;
        for (int c = 0; c < kCellsPerChild; ++c)
            for (int b = 0; b < kCellsPerChild; ++b)
                for (int a = 0; a < kCellsPerChild; ++a) {
                    int const ox = kCellsPerChild * child.x + a, oy = kCellsPerChild * child.y + b,
                              oz = kCellsPerChild * child.z + c;
                    float k8[8];
                    bool skip = false;
                    for (int q = 0; q < 8; ++q) {
                        k8[q] =
                            parent
                                .level[lat(ox + (q & 1), oy + ((q >> 1) & 1), oz + ((q >> 2) & 1))];
                        if (k8[q] >= m.defaultValue)
                            skip = true;
                    }
                    if (skip)
                        continue;
                    int const ex = a == kCellsPerChild - 1 ? R : R - 1,
                              ey = b == kCellsPerChild - 1 ? R : R - 1,
                              ez = c == kCellsPerChild - 1 ? R : R - 1;
                    for (int sz = 0; sz <= ez; ++sz)
                        for (int sy = 0; sy <= ey; ++sy)
                            for (int sx = 0; sx <= ex; ++sx) {
                                if (sx % R == 0 && sy % R == 0 && sz % R == 0)
                                    continue;
                                float const fx = float(sx) * (1.0f / R),
                                            fy = float(sy) * (1.0f / R),
                                            fz = float(sz) * (1.0f / R);
                                float const x00 = k8[0] + (k8[1] - k8[0]) * fx,
                                            x10 = k8[2] + (k8[3] - k8[2]) * fx;
                                float const x01 = k8[4] + (k8[5] - k8[4]) * fx,
                                            x11 = k8[6] + (k8[7] - k8[6]) * fx;
                                float const y0 = x00 + (x10 - x00) * fy,
                                            y1 = x01 + (x11 - x01) * fy;
                                float const v = y0 + (y1 - y0) * fz;
                                float const node =
                                    mine.level[lat(R * a + sx, R * b + sy, R * c + sz)];
                                float const diff = v - node;
                                if (diff * diff > tol2)
                                    return true;
                            }
                }
        return false;
    }

    /// Decides the children of the tile at @p corner, depth @p d, whose lattice and points are in
    /// @p parent, and descends into the accepted ones.
    void refineTile(SharedData<Traits> const& parent, int3 const& corner, int d)
    {
        if (TVL::bodyCancelled())
            return;
        if (d >= kMax)
            return;
        int const cd = d + 1;
        std::int64_t const cT = Container<Traits>::tileVoxelWidth(cd);
        std::int64_t const cV = Container<Traits>::voxelDataWidth(cd);
        double const h = m.voxelSize;
        double const s3 = double(kSqrt3f);
        double const pad = std::max(1.0, double(cV) * double(m.grading)) * h * s3;
        double const searchRadius = h * 0.88 * double(cT) + pad;
        float const threshold = float(double(m.gradedVoxelSize) * double(cV) * s3);
        std::vector<float> bigLevel, bigClosest0;
        std::vector<float> shareLevel;
        std::vector<std::int64_t> shareClosest;
        if (kShareFaces) {
            shareLevel.assign(std::size_t(kBig) * kBig * kBig, 0.0f);
            shareClosest.assign(std::size_t(kBig) * kBig * kBig, -1);
        }
        std::array<bool, Traits::kChildCount> computed{};
        std::vector<std::pair<int3, std::unique_ptr<SharedData<Traits>>>> accepted;
        auto& stores = out.local();
        auto& store = stores.first;
        auto& idStore = stores.second;
        for (int slot = 0; slot < Traits::kChildCount; ++slot) {
            int3 const child = Tile<Traits>::slotCoordinates(slot);
            int3 const co{int(corner.x + child.x * cT), int(corner.y + child.y * cT),
                          int(corner.z + child.z * cT)};
            double bmin[3], bmax[3], centre[3];
            for (int a = 0; a < 3; ++a) {
                bmin[a] = double(co[a]) * h;
                bmax[a] = double(co[a] + cT) * h;
                centre[a] = 0.5 * (bmin[a] + bmax[a]);
            }
            bool fieldHit = false;
            for (auto const& f : m.fields) {
                if (f.targetDepth <= d)
                    break;
                bool overlap = true;
                for (int a = 0; a < 3; ++a)
                    if (double(f.max[a]) + kBoxSlack < bmin[a] ||
                        double(f.min[a]) - kBoxSlack > bmax[a])
                        overlap = false;
                if (overlap) {
                    fieldHit = true;
                    break;
                }
            }
            auto shared = std::make_unique<SharedData<Traits>>();
            float maxListedRadius = 0.0f;
            for (std::int64_t q : parent.points) {
                double3 const& pv = m.centre[std::size_t(q)];
                double const p[3] = {pv.x * h, pv.y * h, pv.z * h};
                double const r = m.radius[std::size_t(q)];
                bool inside = true;
                for (int a = 0; a < 3; ++a)
                    if (p[a] < bmin[a] - kBoxSlack || p[a] > bmax[a] + kBoxSlack)
                        inside = false;
                if (!inside) {
                    maxListedRadius = std::max(maxListedRadius, float(r));
                    bool miss = false;
                    for (int a = 0; a < 3; ++a)
                        if (p[a] + r + pad < bmin[a] || p[a] - r - pad > bmax[a])
                            miss = true;
                    if (miss)
                        continue;
                    double const dc = std::sqrt((centre[0] - p[0]) * (centre[0] - p[0]) +
                                                (centre[1] - p[1]) * (centre[1] - p[1]) +
                                                (centre[2] - p[2]) * (centre[2] - p[2])) -
                                      r;
                    if (dc > searchRadius)
                        continue;
                }
                shared->points.push_back(q);
                if (m.isVariedFromProperty && shared->wantedDepth <= d) {
                    int const wd =
                        m.hasDetailSizes ? m.detailSizeDepth(m.detail[std::size_t(q)]) : kMax;
                    if (wd > d)
                        shared->wantedDepth = wd;
                }
            }
            float const insideLimit = maxListedRadius > m.deepRadius ? -m.surfaceBand : 0.0f;
            if (shared->points.empty())
                continue;
            if (!m.fields.empty() && !fieldHit)
                continue;
            if (m.isVariedFromProperty && shared->wantedDepth <= d)
                continue;

            // The child's lattice.
            int3 lo{0, 0, 0};
            int3 const hi{L, L, L};
            if (kShareFaces) {
                if (child.x == 1 &&
                    computed[std::size_t(Tile<Traits>::slotNumber(0, child.y, child.z))])
                    lo.x = 1;
                if (child.y == 1 &&
                    computed[std::size_t(Tile<Traits>::slotNumber(child.x, 0, child.z))])
                    lo.y = 1;
                if (child.z == 1 &&
                    computed[std::size_t(Tile<Traits>::slotNumber(child.x, child.y, 0))])
                    lo.z = 1;
            }
            std::array<float, L * L * L> values;
            std::array<std::int64_t, L * L * L> ids;
            bool nearSurface = kernel(
                co, cV, shared->points.data(), shared->points.data() + shared->points.size(),
                values.data(), m.closest ? ids.data() : nullptr, threshold, parent.level.data(),
                m.closest ? parent.closest.data() : nullptr, child, lo, hi, true);
            // The whole lattice: computed nodes, and the faces an earlier sibling computed.
            bool someOutside = false;
            {
                int const nx = hi.x - lo.x, ny = hi.y - lo.y;
                for (int k = lo.z; k < hi.z; ++k)
                    for (int j = lo.y; j < hi.y; ++j)
                        for (int i = lo.x; i < hi.x; ++i) {
                            int const n = (i - lo.x) + nx * ((j - lo.y) + ny * (k - lo.z));
                            float const v = values[std::size_t(n)];
                            if (v >= insideLimit)
                                someOutside = true;
                            shared->level[lat(i, j, k)] = v;
                            shared->closest[lat(i, j, k)] = m.closest ? ids[std::size_t(n)] : -1;
                            if (kShareFaces) {
                                shareLevel[big(W * child.x + i, W * child.y + j, W * child.z + k)] =
                                    v;
                                shareClosest[big(W * child.x + i, W * child.y + j,
                                                 W * child.z + k)] = shared->closest[lat(i, j, k)];
                            }
                        }
                if (kShareFaces) {
                    for (int k = 0; k < L; ++k)
                        for (int j = 0; j < L; ++j)
                            for (int i = 0; i < L; ++i) {
                                if (i >= lo.x && j >= lo.y && k >= lo.z)
                                    continue;
                                std::size_t const b =
                                    big(W * child.x + i, W * child.y + j, W * child.z + k);
                                shared->level[lat(i, j, k)] = shareLevel[b];
                                shared->closest[lat(i, j, k)] = shareClosest[b];
                                // The face a sibling computed is this child's too: a surface that
                                // crosses only there still makes the child.
                                if (shareLevel[b] < threshold)
                                    nearSurface = true;
                                if (shareLevel[b] >= insideLimit)
                                    someOutside = true;
                            }
                    computed[std::size_t(slot)] = true;
                }
            }
            bool result = false;
            if (someOutside) {
                if (!nearSurface)
                    result = false;
                else if (m.errorTolerance == 0.0f)
                    result = true;
                else
                    result = errorTooLarge(parent, child, *shared);
            } else {
                result = hiddenSurface(*shared, co, cT, bmin, bmax);
            }
            if (!result)
                continue;
            ChildBlock<Traits>& blk = store.emplace_back();
            blk.coord = VoxelCoord{co.x, co.y, co.z, cd};
            for (int k = 0, n = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i, ++n)
                        blk.level[std::size_t(n)] = shared->level[lat(i, j, k)];
            if (m.closest) {
                ChildIds<Traits>& ids = idStore.emplace_back();
                for (int k = 0, n = 0; k < W; ++k)
                    for (int j = 0; j < W; ++j)
                        for (int i = 0; i < W; ++i, ++n)
                            ids.closest[std::size_t(n)] = shared->closest[lat(i, j, k)];
            }
            if (cd < kMax)
                accepted.emplace_back(co, std::move(shared));
        }
        for (auto& [co, shared] : accepted) {
            refineTile(*shared, co, d + 1);
            shared.reset();
        }
    }

    /// The lattice lies deep inside the union: a surface hides between its nodes unless one point
    /// covers the whole box, or every finest voxel of the box lies strictly inside a listed sphere.
    bool hiddenSurface(SharedData<Traits> const& shared, int3 const& co, std::int64_t cT,
                       double const bmin[3], double const bmax[3]) const
    {
        double const h = m.voxelSize;
        double const halfDiagonal = 0.5 * std::sqrt((bmax[0] - bmin[0]) * (bmax[0] - bmin[0]) +
                                                    (bmax[1] - bmin[1]) * (bmax[1] - bmin[1]) +
                                                    (bmax[2] - bmin[2]) * (bmax[2] - bmin[2]));
        if (!(m.hasSingleRadius && double(m.radius0) < halfDiagonal)) {
            for (std::int64_t q : shared.points) {
                double const r = m.radius[std::size_t(q)];
                if (r < halfDiagonal)
                    continue;
                double3 const& pv = m.centre[std::size_t(q)];
                bool all = true;
                for (int c = 0; c < 8 && all; ++c) {
                    double const x = ((c & 1) ? bmax[0] : bmin[0]) - pv.x * h;
                    double const y = ((c & 2) ? bmax[1] : bmin[1]) - pv.y * h;
                    double const z = ((c & 4) ? bmax[2] : bmin[2]) - pv.z * h;
                    if (x * x + y * y + z * z > r * r)
                        all = false;
                }
                if (all)
                    return false;
            }
        }
        for (std::int64_t z = 0; z <= cT; ++z)
            for (std::int64_t y = 0; y <= cT; ++y)
                for (std::int64_t x = 0; x <= cT; ++x) {
                    double3 const s{double(co.x + x) + m.offset.x, double(co.y + y) + m.offset.y,
                                    double(co.z + z) + m.offset.z};
                    bool covered = false;
                    for (std::int64_t q : shared.points)
                        if (m.sphereDistance(s, q) < 0.0f) {
                            covered = true;
                            break;
                        }
                    if (!covered)
                        return true;
                }
        return false;
    }
};

template <typename Traits> void refineAdaptively(PointsDriver<Traits>& m, Partition<Traits>& part)
{
    constexpr int kMax = Traits::kMaxDepth;
    constexpr int W = Traits::kTileWidth;
    constexpr int L = W + 1;
    int const d = m.minDepth;
    std::int64_t const tiles = m.container.tileCount(d);
    SurfaceRefiner<Traits> refiner(m);
    DepthLists const& lists = part.lists[std::size_t(d)];
    Par::parallel_for(
        Par::blocked_range<std::int64_t>(0, tiles, 1),
        [&](Par::blocked_range<std::int64_t> const& r) {
            for (std::int64_t t = r.begin(); t != r.end(); ++t) {
                if (TVL::bodyCancelled())
                    return;
                Tile<Traits> const& tile = m.container.tile(t, d);
                auto shared = std::make_unique<SharedData<Traits>>();
                if (!lists.offset.empty())
                    shared->points.assign(lists.begin(t), lists.end(t));
                float const threshold = float(double(m.gradedVoxelSize) *
                                              double(tile.voxelDataWidth()) * double(kSqrt3f));
                std::array<std::int64_t, L * L * L> ids;
                refiner.kernel(tile.tijk(), tile.voxelDataWidth(), shared->points.data(),
                               shared->points.data() + shared->points.size(), shared->level.data(),
                               ids.data(), threshold, nullptr, nullptr, int3{0, 0, 0},
                               int3{0, 0, 0}, int3{L, L, L}, true);
                shared->closest = ids;
                auto lv = m.level.tileData(t, d);
                auto cl =
                    m.closest ? m.closest->tileData(t, d) : decltype(m.closest->tileData(t, d)){};
                for (int k = 0, n = 0; k < W; ++k)
                    for (int j = 0; j < W; ++j)
                        for (int i = 0; i < W; ++i, ++n) {
                            if (!lv.empty())
                                lv[std::size_t(n)] =
                                    shared->level[std::size_t(i + L * (j + L * k))];
                            if (!cl.empty())
                                cl[std::size_t(n)] = ids[std::size_t(i + L * (j + L * k))];
                        }
                if (d < kMax)
                    refiner.refineTile(*shared, tile.tijk(), d);
            }
        });
    TVL::throwIfJobCancelled();
    // The accepted children become tiles, added in canonical order.
    {
        Container<Traits> scratch("", m.voxelSize);
        auto acc = scratch.tileAccessor();
        for (auto const& stores : refiner.out)
            for (auto const& b : stores.first)
                acc.addTile(b.coord);
        Container<Traits> ordered("", m.voxelSize);
        addTilesInCanonicalOrder(scratch, ordered);
        m.container.refine(ordered, nullptr, true);
    }
    m.topology.update(m.container);
    m.level.enableAllocateEmptyTileData();
    m.level.update(m.topology);
    m.level.disableAllocateEmptyTileData();
    if (m.closest) {
        m.closest->enableAllocateEmptyTileData();
        m.closest->update(m.topology);
        m.closest->disableAllocateEmptyTileData();
    }
    m.container.buildAccessorAccelerationStructure(-1);
    for (auto& stores : refiner.out) {
        auto const& store = stores.first;
        auto const& idStore = stores.second;
        Par::parallel_for(Par::blocked_range<std::size_t>(0, store.size(), 256),
                          [&](Par::blocked_range<std::size_t> const& r) {
                              if (TVL::bodyCancelled())
                                  return;
                              auto acc = std::as_const(m.container).tileAccessor();
                              for (std::size_t q = r.begin(); q != r.end(); ++q) {
                                  ChildBlock<Traits> const& b = store[q];
                                  auto const& tile = acc.tile(b.coord);
                                  if (!tile.valid() || tile.depth() != b.coord.depth)
                                      continue;
                                  auto lv = m.level.tileData(tile.treeIndex());
                                  if (!lv.empty())
                                      std::copy(b.level.begin(), b.level.end(), lv.data());
                                  if (m.closest && q < idStore.size()) {
                                      auto cl = m.closest->tileData(tile.treeIndex());
                                      if (!cl.empty())
                                          std::copy(idStore[q].closest.begin(),
                                                    idStore[q].closest.end(), cl.data());
                                  }
                              }
                          });
        TVL::throwIfJobCancelled();
        std::deque<ChildBlock<Traits>>().swap(stores.first);
        std::deque<ChildIds<Traits>>().swap(stores.second);
    }
}

// ---- the route
// ------------------------------------------------------------------------------------

/// Adds the tiles next to tiles whose points reach beyond them (per-tile mode with small spheres).
template <typename Traits> void dilateTiles(PointsDriver<Traits>& m, Partition<Traits> const& part)
{
    constexpr int kMax = Traits::kMaxDepth;
    constexpr int W = Traits::kTileWidth;
    int const verbose = CoreGL::Logger::verboseLevel();
    if (verbose > 1) {
        std::cout << "numTiles before dilation = " << m.container.tileCount(-1)
                  << "\nnumTiles at maxDepth before dilation = " << m.container.tileCount(kMax)
                  << '\n';
        std::int64_t with = 0;
        for (int d = m.minDepth; d <= kMax; ++d)
            for (auto const& b : part.bounds[std::size_t(d)])
                with += b[0] <= b[3] ? 1 : 0;
        std::cout << 100.0 * double(with) /
                         double(std::max<std::int64_t>(1, m.container.tileCount(-1)))
                  << "% of tiles have points\n";
    }
    int minDilation = INT_MAX, maxDilation = 0;
    Par::enumerable_thread_specific<CornerSet> sets;
    {
        auto const timer =
            CoreGL::Logger::timer(PointStageNames::name("adaptive.dilate_coarser_levels"), nullptr);
        for (int d = m.minDepth; d <= kMax; ++d) {
            auto const& bounds = part.bounds[std::size_t(d)];
            for (std::int64_t t = 0; t < std::int64_t(bounds.size()); ++t) {
                auto const& b = bounds[std::size_t(t)];
                if (b[0] > b[3])
                    continue;
                int const o = overhang<W>(b);
                minDilation = std::min(minDilation, o);
                maxDilation = std::max(maxDilation, o);
            }
        }
        Par::parallel_for(Par::blocked_range<int>(m.minDepth, kMax + 1, 1),
                          [&](Par::blocked_range<int> const& r) {
                              for (int d = r.begin(); d != r.end(); ++d) {
                                  auto const& bounds = part.bounds[std::size_t(d)];
                                  std::int64_t const w = Container<Traits>::tileVoxelWidth(d);
                                  CornerSet& set = sets.local();
                                  for (std::int64_t t = 0; t < std::int64_t(bounds.size()); ++t) {
                                      if (TVL::bodyCancelled())
                                          return;
                                      auto const& b = bounds[std::size_t(t)];
                                      if (b[0] > b[3])
                                          continue;
                                      int const o = overhang<W>(b);
                                      if (o <= 0)
                                          continue;
                                      int3 const c = m.container.tile(t, d).tijk();
                                      int lo[3], hi[3];
                                      for (int a = 0; a < 3; ++a) {
                                          lo[a] = o == 1 ? (b[std::size_t(a)] < 0 ? -1 : 0) : -o;
                                          hi[a] = o == 1 ? (b[std::size_t(a + 3)] >= W ? 1 : 0) : o;
                                      }
                                      for (int z = lo[2]; z <= hi[2]; ++z)
                                          for (int y = lo[1]; y <= hi[1]; ++y)
                                              for (int x = lo[0]; x <= hi[0]; ++x) {
                                                  std::int64_t const X = c.x + x * w,
                                                                     Y = c.y + y * w,
                                                                     Z = c.z + z * w;
                                                  if (Container<Traits>::inDomain(X, Y, Z))
                                                      set.insert(int3{int(X), int(Y), int(Z)}, d);
                                              }
                                  }
                              }
                          });
        TVL::throwIfJobCancelled();
    }
    m.tileDilation = maxDilation;
    if (verbose > 1)
        std::cout << "minDilation = " << minDilation << "\nmaxDilation = " << maxDilation << '\n';
    {
        auto const timer = CoreGL::Logger::timer(
            PointStageNames::name("adaptive.dilate_refine_coarser_levels"), nullptr);
        addCollectedTiles(sets, m.container);
    }
    if (verbose > 1)
        std::cout << "numTiles after dilation = " << m.container.tileCount(-1)
                  << "\nnumTiles at maxDepth after dilation = " << m.container.tileCount(kMax)
                  << '\n';
}

template <typename Traits>
void runAdaptiveRoute(PointsDriver<Traits>& m, Quillon::RuntimeServices const& runtime)
{
    constexpr int kMax = Traits::kMaxDepth;
    int const verbose = CoreGL::Logger::verboseLevel();
    if (verbose > 0)
        std::cout << "isVariedFromProperty = " << m.isVariedFromProperty
                  << "\nallocateAdaptivelyAlongSurface = " << m.allocateAdaptivelyAlongSurface
                  << '\n';
    double maxExtent = 0.0;
    if (m.buildTiles) {
        maxExtent = pointBoxExtent(m);
        if (m.errorTolerance > 0.0f)
            m.errorTolerance *= float(maxExtent);
    }
    if (verbose > 1) {
        std::cout << "in_grading = " << m.grading << '\n';
        for (int d = 0; d <= kMax; ++d)
            std::cout << "padDepthTS[" << d << "] = " << m.padDepthTS[std::size_t(d)] << '\n';
    }
    if (!m.buildTiles) {
        m.minDepth = 0;
        m.allocateAdaptivelyAlongSurface = false;
    } else {
        auto const timer = CoreGL::Logger::timer(
            PointStageNames::name("adaptive.refine_coarser_levels"), &runtime);
        refineCoarserLevels(m, maxExtent);
    }
    bool const perTileWithBounds =
        !m.buildTiles || (m.isVariedFromProperty && !m.allocateAdaptivelyAlongSurface);
    Partition<Traits> part;
    {
        auto const timer = CoreGL::Logger::timer(
            PointStageNames::name("adaptive.partition_points_at_coarser_levels"), &runtime);
        m.container.buildAccessorAccelerationStructure(-1);
        part = partitionPoints(m, perTileWithBounds);
    }
    if (!m.buildTiles) {
        // Only the reach of the points, no new tiles.
        for (int d = m.minDepth; d <= kMax; ++d)
            for (auto const& b : part.bounds[std::size_t(d)])
                m.tileDilation = std::max(m.tileDilation, overhang<Traits::kTileWidth>(b));
    } else if (m.isVariedFromProperty && !m.allocateAdaptivelyAlongSurface) {
        dilateTiles(m, part);
        // The lists follow the tiles: indices are stable under `refine`, new tiles list nothing.
        for (int d = m.minDepth; d <= kMax; ++d) {
            auto& l = part.lists[std::size_t(d)];
            std::int64_t const n = m.container.tileCount(d);
            if (!l.offset.empty())
                l.offset.resize(std::size_t(n) + 1, l.offset.back());
        }
    }
    if (m.buildTiles) {
        m.topology.update(m.container);
        m.level.update(m.topology);
    }
    if (m.hasProperties) {
        m.closest = TVL::TileTree3D::scratchChannel<VoxelChannel<Traits, TVL::TileTree3D::Int64>>(
            m.topology, -1, 0, kMax, "voxelClosestPointChannel");
    }
    if (m.allocateAdaptivelyAlongSurface) {
        auto const timer =
            CoreGL::Logger::timer(PointStageNames::name("adaptive.refine_adaptively"), &runtime);
        refineAdaptively(m, part);
    } else {
        m.container.buildAccessorAccelerationStructure(-1);
        {
            auto const timer =
                CoreGL::Logger::timer(PointStageNames::name("adaptive.voxelize"), &runtime);
            voxelizePerTile(m, part);
        }
        auto const timer = CoreGL::Logger::timer(
            PointStageNames::name("adaptive.interpolate_and_union"), &runtime);
        interpolateAndUnion(m);
    }
    {
        auto const timer = CoreGL::Logger::timer(
            PointStageNames::name("adaptive.precompute_tile_neighbors"), &runtime);
        m.container.precomputeTileNeighbors();
    }
    setNonLeafValueToChildValue(m.level, m.container, m.topology.offsetType(), 0, kMax - 1);
}

/// Gives every voxel of the tiles in @p newTiles that still exist the level-set value of the
/// parent voxel covering it.
template <typename Traits>
void fillNewTilesFromParents(PointsDriver<Traits>& m, TileCornerLists<Traits> const& newTiles)
{
    constexpr int kMax = Traits::kMaxDepth;
    constexpr int W = Traits::kTileWidth;
    m.container.buildAccessorAccelerationStructure(-1);
    for (int d = 1; d <= kMax; ++d) {
        auto const& corners = newTiles[d];
        if (corners.empty())
            continue;
        Par::parallel_for(
            Par::blocked_range<std::size_t>(0, corners.size(), 16),
            [&](Par::blocked_range<std::size_t> const& r) {
                if (TVL::bodyCancelled())
                    return;
                auto acc = std::as_const(m.container).tileAccessor();
                for (std::size_t q = r.begin(); q != r.end(); ++q) {
                    int3 const c = corners[q];
                    auto const& tile = acc.tile(c, d);
                    if (!tile.valid() || tile.depth() != d || tile.tijk() != c || tile.parent() < 0)
                        continue;
                    auto const& parent = m.container.tile(tile.parent(), d - 1);
                    auto const pv = std::as_const(m.level).tileData(parent.treeIndex());
                    auto lv = m.level.tileData(tile.treeIndex());
                    if (pv.empty() || lv.empty())
                        continue;
                    std::int64_t const w = tile.voxelDataWidth();
                    for (int k = 0; k < W; ++k)
                        for (int j = 0; j < W; ++j)
                            for (int i = 0; i < W; ++i) {
                                int pi, pj, pk;
                                parent.childDataIJK(c.x + i * w + w / 2, c.y + j * w + w / 2,
                                                    c.z + k * w + w / 2, pi, pj, pk);
                                lv(i, j, k) = pv(pi, pj, pk);
                            }
                }
            });
        TVL::throwIfJobCancelled();
    }
}

/// Grades the tree after redistancing: new tiles take the value of the parent voxel covering
/// each of their voxels, in the level set and in the volume's channels.
template <typename Traits> void gradeAdaptiveTree(PointsDriver<Traits>& m, TVL::Object& volume)
{
    constexpr int kMax = Traits::kMaxDepth;
    TileCornerLists<Traits> newTiles;
    CoreGL::TileTree3D::gradeTileTree(m.container, &newTiles, nullptr, 0, kMax);
    m.topology.update(m.container);
    m.level.update(m.topology);
    TVL::TileTree3D::updateTilesAdded(m.topology, volume);
    fillNewTilesFromParents(m, newTiles);
    TVL::TileTree3D::initializeTileData(m.container, newTiles, volume);
}

/// The extracted components of the volume, which the coarsening hands back to the object and
/// takes out again.
template <typename Traits> struct PointsVolumeGuards {
    TVL::ComponentGuard<Container<Traits>>& container;
    TVL::ComponentGuard<VoxelTopology<Traits>>& topology;
    TVL::ComponentGuard<VoxelChannel<Traits, float>>& level;
    Quillon::String const& containerName;
    Quillon::String const& topologyName;
    Quillon::String const& channelName;
};

/// @brief Coarsens and grades the tree of the per-tile route (detail sizes with spheres small
///        enough to be handled per tile) after redistancing.
/// @details The dilation stage allocated whole blocks of tiles around the points' tiles; most of
///          them lie far from the surface. The level set decides which tiles stay, by the rule
///          of the level-set sampler (the tile's width, twice that above the shallowest depth a
///          point asks for, against |phi| at its centre), and these tiles are coloured:
///          1. each tile is coloured when the rule wants it (the root always); the spare byte
///             marks the tiles that exist now;
///          2. the coarsen-refine adds the wanted children one depth down and grades the
///             coloured tiles, colouring what their grading leans on, so that removing the
///             uncoloured ones keeps the tree graded;
///          3. the added tiles (spare byte 0) are initialised, the level set from the parent
///             voxels that cover them;
///          4. every tile with a coloured child is coloured, and the uncoloured tiles are
///             removed with the channels following.
///          No tile is wanted below the deepest depth the points asked for.
template <typename Traits>
void coarsenAdaptiveTree(PointsDriver<Traits>& m, TVL::Object& volume,
                         PointsVolumeGuards<Traits> const& guards)
{
    constexpr int kMax = Traits::kMaxDepth;
    using CoreGL::TileTree3D::TileColor;
    CoreGL::TileTree3D::LevelSetSampler sampler;
    sampler.channelName = guards.channelName;
    sampler.bandFactor = 2.0f;
    sampler.localLevel = &m.minVariedFromPropertyDepth;
    // The points' tiles lie at the depths they ask for: no tile goes deeper than the deepest of
    // them, where it would hold nothing but its parent's values.
    for (int d = 0; d <= kMax; ++d)
        if (m.container.tileCount(d) > 0)
            sampler.deepestDepth = d;

    // 1. The tiles the level set wants.
    std::vector<std::vector<TileColor>> colors(std::size_t(Traits::kDepthCount));
    {
        m.container.buildAccessorAccelerationStructure(-1);
        CoreGL::TileTree3D::LevelSetSamplerReader<Traits> const reader(
            sampler, m.container, m.topology, m.level, nullptr);
        for (int d = 0; d <= kMax; ++d) {
            auto& c = colors[std::size_t(d)];
            c.assign(std::size_t(m.container.tileCount(d)), TileColor{0, 1});
            if (d == 0) {
                for (auto& x : c)
                    x.colored = 1;
                continue;
            }
            Par::parallel_for(Par::blocked_range<std::int64_t>(0, m.container.tileCount(d), 256),
                              [&](Par::blocked_range<std::int64_t> const& r) {
                                  if (TVL::bodyCancelled())
                                      return;
                                  auto own = reader;
                                  for (std::int64_t t = r.begin(); t != r.end(); ++t)
                                      c[std::size_t(t)].colored =
                                          own.wantsTile(m.container.tile(t, d).tijk(), d, 0.0f);
                              });
            TVL::throwIfJobCancelled();
        }
    }

    // 2. The coarsen-refine works on the object by name: the components go back first.
    guards.container.restore();
    guards.topology.restore();
    guards.level.restore();
    CoreGL::TileTree3D::coarsenRefine<Traits>(0.0f, 0.0f, CoreGL::TileTree3D::kCoarsenRefineCoarsen,
                                              sampler, guards.containerName, guards.topologyName,
                                              volume, "", nullptr, colors.data());

    // 3. The added tiles.
    if (!guards.container.extractAgain() || guards.container.get() != &m.container)
        throw std::logic_error("voxelizePoints: the tree changed identity during coarsening");
    TileCornerLists<Traits> newTiles;
    for (int d = 1; d <= kMax; ++d)
        for (std::int64_t t = 0; t < m.container.tileCount(d); ++t)
            if (colors[std::size_t(d)][std::size_t(t)].spare == 0)
                newTiles[d].push_back(m.container.tile(t, d).tijk());
    TVL::TileTree3D::initializeTileData(m.container, newTiles, volume);

    // 4. The uncoloured tiles go.
    if (!guards.topology.extractAgain() || guards.topology.get() != &m.topology)
        throw std::logic_error("voxelizePoints: the topology changed identity during coarsening");
    for (int d = kMax; d >= 1; --d)
        for (std::int64_t t = 0; t < m.container.tileCount(d); ++t)
            if (colors[std::size_t(d)][std::size_t(t)].colored)
                colors[std::size_t(d - 1)][std::size_t(m.container.tile(t, d).parent())].colored =
                    1;
    TVL::TileTree3D::TileIndexLists<Traits> removals;
    for (int d = 1; d <= kMax; ++d)
        for (std::int64_t t = 0; t < m.container.tileCount(d); ++t)
            if (!colors[std::size_t(d)][std::size_t(t)].colored &&
                colors[std::size_t(d - 1)][std::size_t(m.container.tile(t, d).parent())].colored)
                removals[d].push_back(t);
    TVL::TileTree3D::TileMoveLists<Traits> moved;
    m.container.removeTiles(removals, moved, true);
    m.topology.update(m.container);
    std::span<TVL::TileTree3D::TileMoveList const> const movedSpan(moved.data(), moved.size());
    TVL::TileTree3D::updateTilesRemoved(movedSpan, m.topology, volume);
    if (!guards.level.extractAgain() || guards.level.get() != &m.level)
        throw std::logic_error("voxelizePoints: the level set changed identity during coarsening");
    fillNewTilesFromParents(m, newTiles);
}

/// The last stage of the adaptive route when it built the tiles: grading, and with detail sizes
/// on the per-tile route coarsening first.
template <typename Traits>
void gradeAndCoarsenAdaptiveTree(PointsDriver<Traits>& m, TVL::Object& volume,
                                 PointsVolumeGuards<Traits> const& guards,
                                 Quillon::RuntimeServices const& runtime)
{
    int const verbose = CoreGL::Logger::verboseLevel();
    auto const timer =
        CoreGL::Logger::timer(PointStageNames::name("adaptive.grade_and_coarsen"), &runtime);
    if (verbose > 1)
        std::cout << "tileCount before coarsening and grading = " << m.container.tileCount(-1)
                  << '\n';
    if (m.isVariedFromProperty && !m.allocateAdaptivelyAlongSurface) {
        m.closest = nullptr; // bound to the tree as it was; nothing reads it any more
        coarsenAdaptiveTree(m, volume, guards);
    } else {
        gradeAdaptiveTree(m, volume);
    }
    if (verbose > 1)
        std::cout << "tileCount after coarsening and grading = " << m.container.tileCount(-1)
                  << '\n';
}

} // namespace VolumeGL::TileTree3D::detail
