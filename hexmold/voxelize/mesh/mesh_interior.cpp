/// @file  voxelize/mesh/mesh_interior.cpp
/// @brief Parity walk, flood fill and the sparse build's column signs.
#include <hexmold/voxelize/mesh/mesh_interior.h>

#include <algorithm>
#include <atomic>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <hexmold/levelset/dof_classification.h>
#include <hexmold/levelset/level_set_redistance.h>
#include <hexmold/substrate/cancel.h>
#include <hexmold/substrate/halo.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/scratch_channel.h>
#include <hexmold/substrate/tree_index.h>
#include <hexmold/substrate/union_find.h>
#include <memory>
#include <tuple>
#include <vector>

namespace VolumeGL::TileTree3D {

using namespace TVL::TileTree3D;
namespace Par = TVL::Parallel;
using Tavrel::Math::int3;

namespace {

/// The high-face neighbour directions, +x, +y, +z.
constexpr int kHighFace[3] = {kNeighborPosX, kNeighborPosY, kNeighborPosZ};
constexpr int kLowFace[3] = {kNeighborNegX, kNeighborNegY, kNeighborNegZ};

/// Sets the sign bit: the magnitude stays exactly as it was.
inline float negative(float v)
{
    return std::copysign(v, -1.0f);
}

template <typename Traits> constexpr int kW = Traits::kTileWidth;
template <typename Traits> constexpr int kVoxels = kW<Traits>* kW<Traits>* kW<Traits>;

template <typename Traits> constexpr int stride(int a)
{
    return a == 0 ? 1 : a == 1 ? kW<Traits> : kW<Traits> * kW<Traits>;
}

/// Local voxel of @p coarse that holds the tile-space point @p p, and whether @p p is exactly
/// that voxel's corner (so that its sample is the point's sample).
template <typename Traits>
bool alignedVoxel(Tile<Traits> const& coarse, std::int64_t const p[3], int out[3])
{
    std::int64_t const w = Tile<Traits>::voxelDataWidth(coarse.depth());
    int3 const c = coarse.tijk();
    bool aligned = true;
    for (int ax = 0; ax < 3; ++ax) {
        std::int64_t const rel = p[ax] - c[ax];
        if (rel < 0 || rel >= w * kW<Traits>)
            return false;
        if (rel % w != 0)
            aligned = false;
        out[ax] = static_cast<int>(rel / w);
    }
    return aligned;
}

/// Local voxel of @p t that holds the tile-space point @p p; false when @p t does not hold it.
template <typename Traits> bool voxelAt(Tile<Traits> const& t, std::int64_t const p[3], int out[3])
{
    std::int64_t const w = Tile<Traits>::voxelDataWidth(t.depth());
    int3 const c = t.tijk();
    for (int ax = 0; ax < 3; ++ax) {
        std::int64_t const rel = p[ax] - c[ax];
        if (rel < 0 || rel >= w * kW<Traits>)
            return false;
        out[ax] = static_cast<int>(rel / w);
    }
    return true;
}

/// Calls @p f(tile) for every tile of @p depth in parallel, then polls cancellation.
template <typename Traits, typename F>
void forTilesOfDepth(Container<Traits> const& container, int depth, std::int64_t grain, F&& f)
{
    std::int64_t const n = container.tileCount(depth);
    if (n <= 0)
        return;
    Par::parallel_for(Par::blocked_range<std::int64_t>(0, n, grain),
                      [&](Par::blocked_range<std::int64_t> const& r) {
                          if (TVL::bodyCancelled())
                              return;
                          for (std::int64_t t = r.begin(); t != r.end(); ++t)
                              f(container.tile(t, depth));
                      });
    TVL::throwIfJobCancelled();
}

} // namespace

// ---- parity
// ---------------------------------------------------------------------------------------

template <typename Traits>
bool signByEdgeParity(Container<Traits> const& container, VoxelChannel<Traits, float>& io_distance,
                      VoxelChannel<Traits, int3> const* edgeCounts)
{
    constexpr int W = kW<Traits>;
    constexpr int V = kVoxels<Traits>;
    constexpr int D = Traits::kDepthCount;
    // state[d][tile * V + voxel]: 1 inside, 0 outside, for covered voxels too.
    std::vector<std::vector<std::uint8_t>> state(D);
    for (int d = 0; d < D; ++d)
        state[d].assign(std::size_t(std::max<std::int64_t>(0, container.tileCount(d))) * V, 0);
    auto odd = [](ConstTileData<int3, W, 0, 0> const& c, int v, int a) -> std::uint8_t {
        return c.empty() ? 0 : std::uint8_t(c[std::size_t(v)][a] & 1);
    };
    auto counts = [&](std::int64_t t, int d) {
        return edgeCounts ? std::as_const(*edgeCounts).tileData(t, d)
                          : ConstTileData<int3, W, 0, 0>();
    };

    // The walk: coarse to fine; a tile starts from its parent voxel's state, a root outside.
    for (int d = 0; d < D; ++d) {
        forTilesOfDepth(container, d, 16, [&](Tile<Traits> const& tile) {
            std::uint8_t entry = 0;
            if (d > 0 && tile.parent() >= 0) {
                Tile<Traits> const& p = container.tile(tile.parent(), d - 1);
                std::int64_t const pw = Tile<Traits>::voxelDataWidth(d - 1);
                int const li = int((tile.ti() - p.ti()) / pw), lj = int((tile.tj() - p.tj()) / pw),
                          lk = int((tile.tk() - p.tk()) / pw);
                entry =
                    state[d - 1][std::size_t(p.index()) * V + std::size_t(li + W * (lj + W * lk))];
            }
            auto const c = counts(tile.index(), d);
            std::uint8_t* s = &state[d][std::size_t(tile.index()) * V];
            for (int k = 0, v = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i, ++v) {
                        if (i > 0)
                            s[v] = s[v - 1] ^ odd(c, v - 1, 0);
                        else if (j > 0)
                            s[v] = s[v - W] ^ odd(c, v - W, 1);
                        else if (k > 0)
                            s[v] = s[v - W * W] ^ odd(c, v - W * W, 2);
                        else
                            s[v] = entry;
                    }
            auto dd = io_distance.tileData(tile.treeIndex());
            if (dd.empty())
                return;
            for (int k = 0, v = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i, ++v)
                        if (s[v] && tile.isLeaf(i, j, k))
                            dd[std::size_t(v)] = negative(dd[std::size_t(v)]);
        });
    }

    // The checks: every edge the walk did not take must agree with the states at its ends.
    std::atomic<bool> inconsistent{false};
    for (int d = 0; d < D; ++d) {
        std::int64_t const w = Tile<Traits>::voxelDataWidth(d);
        forTilesOfDepth(container, d, 16, [&](Tile<Traits> const& tile) {
            if (inconsistent.load(std::memory_order_relaxed))
                return;
            auto acc = container.tileAccessor();
            auto const c = counts(tile.index(), d);
            std::uint8_t const* s = &state[d][std::size_t(tile.index()) * V];
            bool bad = false;
            // Inside the tile.
            for (int k = 0, v = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i, ++v) {
                        int const at[3] = {i, j, k};
                        for (int a = 0; a < 3; ++a)
                            if (at[a] + 1 < W && s[v + stride<Traits>(a)] != (s[v] ^ odd(c, v, a)))
                                bad = true;
                    }
            // Across the high faces.
            for (int a = 0; a < 3 && !bad; ++a) {
                Tile<Traits> const& n = acc.tileNeighbor(tile, kHighFace[a]);
                if (!n.valid() || n.depth() > d)
                    continue;
                std::uint8_t const* sn = &state[n.depth()][std::size_t(n.index()) * V];
                int const b = (a + 1) % 3, cc = (a + 2) % 3;
                for (int q = 0; q < W && !bad; ++q)
                    for (int p = 0; p < W; ++p) {
                        int u[3];
                        u[a] = W - 1;
                        u[b] = p;
                        u[cc] = q;
                        int const v = u[0] + W * (u[1] + W * u[2]);
                        std::uint8_t const expected = s[v] ^ odd(c, v, a);
                        if (n.depth() == d) {
                            u[a] = 0;
                            if (sn[u[0] + W * (u[1] + W * u[2])] != expected)
                                bad = true;
                            continue;
                        }
                        std::int64_t const end[3] = {tile.ti() + (u[0] + (a == 0)) * w,
                                                     tile.tj() + (u[1] + (a == 1)) * w,
                                                     tile.tk() + (u[2] + (a == 2)) * w};
                        int l[3];
                        if (alignedVoxel(n, end, l) && sn[l[0] + W * (l[1] + W * l[2])] != expected)
                            bad = true;
                    }
            }
            // Child samples that coincide with samples of the parent.
            if (!bad && d > 0 && tile.parent() >= 0) {
                Tile<Traits> const& p = container.tile(tile.parent(), d - 1);
                std::uint8_t const* sp = &state[d - 1][std::size_t(p.index()) * V];
                for (int k = 0, v = 0; k < W; ++k)
                    for (int j = 0; j < W; ++j)
                        for (int i = 0; i < W; ++i, ++v) {
                            std::int64_t const at[3] = {tile.ti() + i * w, tile.tj() + j * w,
                                                        tile.tk() + k * w};
                            int l[3];
                            if (alignedVoxel(p, at, l) && sp[l[0] + W * (l[1] + W * l[2])] != s[v])
                                bad = true;
                        }
            }
            if (bad)
                inconsistent.store(true, std::memory_order_relaxed);
        });
        if (inconsistent.load())
            break;
    }
    return !inconsistent.load();
}

// ---- flood fill
// -----------------------------------------------------------------------------------

template <typename Traits>
void floodFillInterior(Container<Traits> const& container, VoxelTopology<Traits> const& topology,
                       VoxelChannel<Traits, float>& io_distance, float radius, bool adaptiveBuild)
{
    constexpr int W = kW<Traits>;
    constexpr int V = kVoxels<Traits>;
    constexpr int kMax = Traits::kMaxDepth;
    constexpr int kV = Traits::kVoxelsPerSlot;
    constexpr int kR = Traits::kRatio;
    int const first = adaptiveBuild ? 0 : kMax;
    float const h = container.voxelSize();

    auto addToAll = [&](float amount) {
        for (int d = first; d <= kMax; ++d)
            forTilesOfDepth(container, d, 16, [&](Tile<Traits> const& tile) {
                auto dd = io_distance.tileData(tile.treeIndex());
                for (float& v : dd)
                    v += amount;
            });
    };
    addToAll(-radius);

    // One id per voxel of the depths taken part, the last one standing for the outside.
    std::vector<std::int64_t> base(Traits::kDepthCount + 1, 0);
    for (int d = 0; d < Traits::kDepthCount; ++d)
        base[d + 1] =
            base[d] + (d >= first ? std::max<std::int64_t>(0, container.tileCount(d)) * V : 0);
    std::int64_t const outside = base[Traits::kDepthCount];
    UnionFind uf(outside + 1);
    auto id = [&](Tile<Traits> const& t, int v) { return base[t.depth()] + t.index() * V + v; };

    // Seeds.
    if (adaptiveBuild) {
        for (auto it = container.cbeginRoots(); it != container.cendRoots(); ++it) {
            Tile<Traits> const& root = container.tile(it->second);
            for (int q = 0; q < 8; ++q) {
                int const i = (q & 1) ? W - 1 : 0, j = (q & 2) ? W - 1 : 0, k = (q & 4) ? W - 1 : 0;
                uf.unite(id(root, i + W * (j + W * k)), outside);
            }
        }
    } else if (container.tileCount(kMax) > 0) {
        std::int64_t best = 0;
        for (std::int64_t t = 1; t < container.tileCount(kMax); ++t) {
            Tile<Traits> const& a = container.tile(t, kMax);
            Tile<Traits> const& b = container.tile(best, kMax);
            if (std::make_tuple(a.ti(), a.tj(), a.tk()) < std::make_tuple(b.ti(), b.tj(), b.tk()))
                best = t;
        }
        uf.unite(id(container.tile(best, kMax), 0), outside);
    }

    // Regions. A covered voxel is one with the child sample it coincides with, and has no
    // neighbours of its own: a coarse grid cannot see a band thinner than its voxels, so regions
    // meet only where uncovered voxels touch, at one depth or across a change of depth.
    for (int d = first; d <= kMax; ++d) {
        std::int64_t const w = Tile<Traits>::voxelDataWidth(d);
        forTilesOfDepth(container, d, 16, [&](Tile<Traits> const& tile) {
            auto acc = container.tileAccessor();
            auto const dd = std::as_const(io_distance).tileData(tile.treeIndex());
            if (dd.empty())
                return;
            auto inside = [](float x) { return 0.0f > x; };
            for (int k = 0, v = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i, ++v) {
                        std::int64_t const me = id(tile, v);
                        if (!tile.isLeaf(i, j, k)) {
                            if (d < kMax) {
                                Tile<Traits> const& child =
                                    container.tile(tile.childTreeIndex(i / kV, j / kV, k / kV));
                                int const ci = (i % kV) * kR, cj = (j % kV) * kR,
                                          ck = (k % kV) * kR;
                                uf.unite(me, id(child, ci + W * (cj + W * ck)));
                            }
                            continue;
                        }
                        bool const in = inside(dd[std::size_t(v)]);
                        int const at[3] = {i, j, k};
                        for (int a = 0; a < 3; ++a) {
                            if (at[a] + 1 < W) {
                                int const nv = v + stride<Traits>(a);
                                int3 const nl{i + (a == 0), j + (a == 1), k + (a == 2)};
                                if (tile.isLeaf(nl.x, nl.y, nl.z) &&
                                    inside(dd[std::size_t(nv)]) == in)
                                    uf.unite(me, id(tile, nv));
                            }
                            // Across the tile's faces: the same-depth neighbour on the high side,
                            // coarser neighbours on both sides (a finer one looks at this tile).
                            for (int dir = -1; dir <= 1; dir += 2) {
                                if (dir > 0 ? at[a] != W - 1 : at[a] != 0)
                                    continue;
                                Tile<Traits> const& n =
                                    acc.tileNeighbor(tile, dir > 0 ? kHighFace[a] : kLowFace[a]);
                                if (!n.valid() || n.depth() < first || n.depth() > d)
                                    continue;
                                if (n.depth() == d && dir < 0)
                                    continue;
                                auto const nd = std::as_const(io_distance).tileData(n.treeIndex());
                                if (nd.empty())
                                    continue;
                                int l[3];
                                std::int64_t const p[3] = {tile.ti() + (i + (a == 0 ? dir : 0)) * w,
                                                           tile.tj() + (j + (a == 1 ? dir : 0)) * w,
                                                           tile.tk() +
                                                               (k + (a == 2 ? dir : 0)) * w};
                                if (!voxelAt(n, p, l) || !n.isLeaf(l[0], l[1], l[2]))
                                    continue;
                                int const nv = l[0] + W * (l[1] + W * l[2]);
                                if (inside(nd[std::size_t(nv)]) == in)
                                    uf.unite(me, id(n, nv));
                            }
                        }
                    }
        });
    }

    // What the outside does not reach is inside; nothing stays on the zero level.
    std::int64_t const outsideRoot = uf.find(outside);
    float const eps = h * 0.001f;
    for (int d = first; d <= kMax; ++d)
        forTilesOfDepth(container, d, 16, [&](Tile<Traits> const& tile) {
            auto dd = io_distance.tileData(tile.treeIndex());
            for (int v = 0; v < int(dd.size()) && v < V; ++v) {
                float& x = dd[std::size_t(v)];
                if (uf.find(id(tile, v)) != outsideRoot)
                    x = -std::abs(x);
                if (x >= -eps && x <= 0.0f)
                    x = -(eps + 1.1920929e-7f);
            }
        });

    std::int64_t deepest = 0;
    for (int d = 1; d <= kMax; ++d)
        if (container.tileCount(d) > 0)
            deepest = d;
    if (adaptiveBuild && deepest > 0)
        setNonLeafValueToChildValue(io_distance, container, topology.offsetType(), 0, kMax - 1);

    // Redistance the offset field, then move it back.
    int const iterations = static_cast<int>(std::ceil(radius / (h * 4.0f)));
    if (adaptiveBuild) {
        auto dofPtr = scratchChannel<VoxelChannel<Traits, short>>(topology, 0, 0, kMax);
        auto& dof = *dofPtr;
        LevelSet::classifyDegreesOfFreedom(container, dof);
        LevelSet::levelSetRedistance<Traits>(
            container, topology, io_distance, true, true, false, 0, kMax, nullptr, nullptr, 0.01f,
            FLT_MAX, FLT_MAX, iterations + 10, iterations + 1, true, false, &dof,
            Quillon::String("Volume::LevelSet::redistance"), LevelSet::kRedistanceSweeping);
    } else {
        LevelSet::levelSetRedistance<Traits>(
            container, topology, io_distance, true, false, false, 0, kMax, nullptr, nullptr, 1.0f,
            FLT_MAX, FLT_MAX, 2, iterations + 10, true, false, nullptr,
            Quillon::String("Volume::LevelSet::redistance"), LevelSet::kRedistanceSweeping);
    }
    addToAll(radius);
}

// ---- sparse build
// -----------------------------------------------------------------------------------

template <typename Traits>
void signBySparseColumns(Container<Traits> const& container,
                         VoxelChannel<Traits, float>& io_distance,
                         VoxelChannel<Traits, int> const& crossings, int signMode, int sweepAxis)
{
    constexpr int W = kW<Traits>;
    constexpr int kMax = Traits::kMaxDepth;
    int const a = std::clamp(sweepAxis, 0, 5) / 2;
    bool const fromHigh = (std::clamp(sweepAxis, 0, 5) & 1) != 0;
    int const b = (a + 1) % 3, c = (a + 2) % 3;
    std::int64_t const n = container.tileCount(kMax);
    if (n <= 0)
        return;
    // Rows of finest tiles along the axis: sorted by the two other corners, then along it.
    struct Entry {
        std::int32_t cb, cc, ca;
        std::int64_t tile;
    };
    std::vector<Entry> tiles(static_cast<std::size_t>(n));
    for (std::int64_t t = 0; t < n; ++t) {
        int3 const p = container.tile(t, kMax).tijk();
        tiles[std::size_t(t)] = {p[b], p[c], p[a], t};
    }
    Par::parallel_sort(tiles.begin(), tiles.end(), [fromHigh](Entry const& x, Entry const& y) {
        if (x.cc != y.cc)
            return x.cc < y.cc;
        if (x.cb != y.cb)
            return x.cb < y.cb;
        return fromHigh ? x.ca > y.ca : x.ca < y.ca;
    });
    std::vector<std::size_t> rows;
    for (std::size_t q = 0; q < tiles.size(); ++q)
        if (q == 0 || tiles[q].cb != tiles[q - 1].cb || tiles[q].cc != tiles[q - 1].cc)
            rows.push_back(q);
    rows.push_back(tiles.size());
    auto isInside = [signMode](int count) {
        return signMode == 0 ? (count & 1) != 0 : signMode > 0 ? count > 0 : count < 0;
    };
    Par::parallel_for(Par::blocked_range<std::size_t>(0, rows.size() - 1, 16),
                      [&](Par::blocked_range<std::size_t> const& r) {
                          if (TVL::bodyCancelled())
                              return;
                          for (std::size_t row = r.begin(); row != r.end(); ++row) {
                              int running[W][W] = {};
                              for (std::size_t q = rows[row]; q != rows[row + 1]; ++q) {
                                  TreeIndex const t{tiles[q].tile, kMax};
                                  auto dd = io_distance.tileData(t);
                                  auto const cr = crossings.tileData(t);
                                  for (int pc = 0; pc < W; ++pc)
                                      for (int pb = 0; pb < W; ++pb)
                                          for (int s = 0; s < W; ++s) {
                                              int u[3];
                                              u[a] = fromHigh ? W - 1 - s : s;
                                              u[b] = pb;
                                              u[c] = pc;
                                              std::size_t const v =
                                                  std::size_t(u[0] + W * (u[1] + W * u[2]));
                                              int const here = cr.empty() ? 0 : cr[v];
                                              // From the low side a voxel is tested before its own
                                              // crossings (those up to the next sample) are added;
                                              // from the high side after.
                                              if (fromHigh)
                                                  running[pc][pb] += here;
                                              if (!dd.empty() && isInside(running[pc][pb]))
                                                  dd[v] = -dd[v];
                                              if (!fromHigh)
                                                  running[pc][pb] += here;
                                          }
                              }
                          }
                      });
    TVL::throwIfJobCancelled();
}

template <typename Traits>
void propagateSignsToCoarserDepths(Container<Traits> const& container,
                                   VoxelChannel<Traits, float>& io_distance)
{
    constexpr int W = kW<Traits>;
    constexpr int V = kVoxels<Traits>;
    constexpr int kMax = Traits::kMaxDepth;
    constexpr int kV = Traits::kVoxelsPerSlot;
    constexpr int kR = Traits::kRatio;
    for (int d = kMax - 1; d >= 0; --d) {
        std::int64_t const n = container.tileCount(d);
        if (n <= 0)
            continue;
        // Covered voxels first: the sign of the child sample they coincide with.
        forTilesOfDepth(container, d, 16, [&](Tile<Traits> const& tile) {
            auto dd = io_distance.tileData(tile.treeIndex());
            if (dd.empty() || tile.isLeaf())
                return;
            for (int k = 0, v = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i, ++v) {
                        if (tile.isLeaf(i, j, k))
                            continue;
                        auto const cd = std::as_const(io_distance)
                                            .tileData(tile.childTreeIndex(i / kV, j / kV, k / kV));
                        if (cd.empty())
                            continue;
                        int const ci = (i % kV) * kR, cj = (j % kV) * kR, ck = (k % kV) * kR;
                        float const child = cd(ci, cj, ck);
                        dd[std::size_t(v)] = std::copysign(dd[std::size_t(v)], child);
                    }
        });
        // Uncovered voxels: face-connected regions, marked by the covered voxels they touch.
        UnionFind uf(n * V);
        std::vector<std::atomic<std::uint8_t>> touches(std::size_t(n) * V);
        auto covered = [](Tile<Traits> const& t, int i, int j, int k) {
            return !t.isLeaf(i, j, k);
        };
        // The voxel next to (i, j, k) of @p tile along a (dir +1/-1): its tile (same depth) and
        // local index, or none.
        auto neighbour = [&](auto& acc, Tile<Traits> const& tile, int const at[3], int a, int dir,
                             Tile<Traits> const*& out, int& outV) {
            int l[3] = {at[0], at[1], at[2]};
            l[a] += dir;
            out = &tile;
            if (l[a] < 0 || l[a] >= W) {
                Tile<Traits> const& nb =
                    acc.tileNeighbor(tile, dir > 0 ? kHighFace[a] : kLowFace[a]);
                if (!nb.valid() || nb.depth() != tile.depth())
                    return false;
                out = &nb;
                l[a] = dir > 0 ? 0 : W - 1;
            }
            outV = l[0] + W * (l[1] + W * l[2]);
            return true;
        };
        // The sign that the finer data gives a covered voxel where it touches an uncovered one:
        // that of the deepest voxel holding the first finest voxel across the shared face (-1, +1,
        // 0 for none).
        auto faceSign = [&](Tile<Traits> const& tile, int const at[3], int a, int dir,
                            Tile<Traits> const& coveredTile, int3 const& coveredVoxel) {
            std::int64_t const w = Tile<Traits>::voxelDataWidth(d);
            std::int64_t p[3];
            for (int ax = 0; ax < 3; ++ax)
                p[ax] = tile.tijk()[ax] + at[ax] * w;
            std::int64_t const cornerA = coveredTile.tijk()[a] + coveredVoxel[a] * w;
            p[a] = dir > 0 ? cornerA : cornerA + w - 1;
            Tile<Traits> const* t = &container.tile(coveredTile.childTreeIndex(
                coveredVoxel.x / kV, coveredVoxel.y / kV, coveredVoxel.z / kV));
            for (;;) {
                int l[3];
                if (!t->valid() || !voxelAt(*t, p, l))
                    return 0;
                if (t->isLeaf(l[0], l[1], l[2]) || t->depth() >= kMax) {
                    auto const nd = std::as_const(io_distance).tileData(t->treeIndex());
                    if (nd.empty())
                        return 0;
                    return std::signbit(nd(l[0], l[1], l[2])) ? -1 : 1;
                }
                t = &container.tile(t->childTreeIndex(l[0] / kV, l[1] / kV, l[2] / kV));
            }
        };
        forTilesOfDepth(container, d, 16, [&](Tile<Traits> const& tile) {
            auto acc = container.tileAccessor();
            for (int k = 0, v = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i, ++v) {
                        if (covered(tile, i, j, k))
                            continue;
                        int const at[3] = {i, j, k};
                        for (int a = 0; a < 3; ++a) {
                            Tile<Traits> const* nt;
                            int nv;
                            if (!neighbour(acc, tile, at, a, 1, nt, nv))
                                continue;
                            int3 const nl{nv % W, (nv / W) % W, nv / (W * W)};
                            if (!covered(*nt, nl.x, nl.y, nl.z))
                                uf.unite(tile.index() * V + v, nt->index() * V + nv);
                        }
                    }
        });
        forTilesOfDepth(container, d, 16, [&](Tile<Traits> const& tile) {
            auto acc = container.tileAccessor();
            for (int k = 0, v = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i, ++v) {
                        if (covered(tile, i, j, k))
                            continue;
                        int const at[3] = {i, j, k};
                        std::uint8_t mark = 0;
                        for (int a = 0; a < 3; ++a)
                            for (int dir = -1; dir <= 1; dir += 2) {
                                Tile<Traits> const* nt;
                                int nv;
                                if (!neighbour(acc, tile, at, a, dir, nt, nv))
                                    continue;
                                int3 const nl{nv % W, (nv / W) % W, nv / (W * W)};
                                if (!covered(*nt, nl.x, nl.y, nl.z))
                                    continue;
                                int const sgn = faceSign(tile, at, a, dir, *nt, nl);
                                if (sgn != 0)
                                    mark |= sgn < 0 ? 1 : 2;
                            }
                        if (mark)
                            touches[std::size_t(uf.find(tile.index() * V + v))].fetch_or(mark);
                    }
        });
        forTilesOfDepth(container, d, 16, [&](Tile<Traits> const& tile) {
            auto acc = container.tileAccessor();
            auto dd = io_distance.tileData(tile.treeIndex());
            if (dd.empty())
                return;
            for (int k = 0, v = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i, ++v) {
                        if (covered(tile, i, j, k))
                            continue;
                        std::uint8_t const mark =
                            touches[std::size_t(uf.find(tile.index() * V + v))].load();
                        bool in = mark == 1;
                        if (mark == 3) {
                            // Both: this voxel's own covered neighbours decide, inside first.
                            int const at[3] = {i, j, k};
                            in = false;
                            for (int a = 0; a < 3 && !in; ++a)
                                for (int dir = -1; dir <= 1 && !in; dir += 2) {
                                    Tile<Traits> const* nt;
                                    int nv;
                                    if (!neighbour(acc, tile, at, a, dir, nt, nv))
                                        continue;
                                    int3 const nl{nv % W, (nv / W) % W, nv / (W * W)};
                                    if (!covered(*nt, nl.x, nl.y, nl.z))
                                        continue;
                                    if (faceSign(tile, at, a, dir, *nt, nl) < 0)
                                        in = true;
                                }
                        }
                        float& x = dd[std::size_t(v)];
                        x = in ? negative(x) : std::abs(x);
                    }
        });
    }
}

template decltype(signByEdgeParity<Traits24>) signByEdgeParity<Traits24>;
template decltype(signByEdgeParity<Traits55>) signByEdgeParity<Traits55>;
template decltype(floodFillInterior<Traits24>) floodFillInterior<Traits24>;
template decltype(floodFillInterior<Traits55>) floodFillInterior<Traits55>;
template decltype(signBySparseColumns<Traits24>) signBySparseColumns<Traits24>;
template decltype(signBySparseColumns<Traits55>) signBySparseColumns<Traits55>;
template decltype(propagateSignsToCoarserDepths<Traits24>) propagateSignsToCoarserDepths<Traits24>;
template decltype(propagateSignsToCoarserDepths<Traits55>) propagateSignsToCoarserDepths<Traits55>;

} // namespace VolumeGL::TileTree3D
