/// @file  voxelize/mesh/detail/lattice_kernel.h
/// @brief Body of the tile lattice kernel, over any iterator of triangle indices (a plain range
///        or a concurrent triangle list).
#pragma once
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <hexmold/platform/tavrel/spatial_query.h>
#include <hexmold/voxelize/mesh/detail/triangle_batch.h>
#include <hexmold/voxelize/mesh/triangle_distance_kernel.h>
#include <limits>
#include <type_traits>
#include <vector>

namespace VolumeGL::TileTree3D::detail {

/// World coordinate of lattice node @p n along one axis: (corner + spacing * n + offset) * h,
/// in double precision, rounded once to float. Every node, voxel and test uses this one formula.
inline float latticeCoordinate(std::int64_t corner, std::int64_t spacing, int n, float offset,
                               float h)
{
    return static_cast<float>((static_cast<double>(corner) + static_cast<double>(spacing) * n +
                               static_cast<double>(offset)) *
                              static_cast<double>(h));
}

/// Squared distance from a coordinate to the interval [lo, hi], in float.
inline float intervalDistance2(float x, float lo, float hi)
{
    // max({lo - x, x - hi, 0}) as two selections, without branches.
    float const d = std::max(std::max(lo - x, x - hi), 0.0f);
    return d * d;
}

/// The box test of the kernel: a triangle whose box is this much farther than a node's best
/// squared distance cannot win. The margin keeps the float rounding of the box from skipping a
/// triangle that ties.
inline constexpr float kBoxTestTolerance = 0.9999f;

/// The bounds of the triangle (@p a, @p b, @p c) that the lattice kernel tests.
inline TriangleBounds makeTriangleBounds(float3 const& a, float3 const& b, float3 const& c)
{
    TriangleBounds r;
    r.lo[0] = std::min({a.x, b.x, c.x}), r.lo[1] = std::min({a.y, b.y, c.y});
    r.lo[2] = std::min({a.z, b.z, c.z});
    r.hi[0] = std::max({a.x, b.x, c.x}), r.hi[1] = std::max({a.y, b.y, c.y});
    r.hi[2] = std::max({a.z, b.z, c.z});
    r.origin[0] = a.x, r.origin[1] = a.y, r.origin[2] = a.z;
    double const e0[3] = {double(b.x) - a.x, double(b.y) - a.y, double(b.z) - a.z};
    double const e1[3] = {double(c.x) - a.x, double(c.y) - a.y, double(c.z) - a.z};
    double const nrm[3] = {e0[1] * e1[2] - e0[2] * e1[1], e0[2] * e1[0] - e0[0] * e1[2],
                           e0[0] * e1[1] - e0[1] * e1[0]};
    double const nn = nrm[0] * nrm[0] + nrm[1] * nrm[1] + nrm[2] * nrm[2];
    double const scale = (e0[0] * e0[0] + e0[1] * e0[1] + e0[2] * e0[2]) *
                         (e1[0] * e1[0] + e1[1] * e1[1] + e1[2] * e1[2]);
    bool const usePlane = nn > 1e-12 * scale && nn > 0.0;
    double const inv = usePlane ? 1.0 / std::sqrt(nn) : 0.0;
    for (int ax = 0; ax < 3; ++ax)
        r.normal[ax] = nrm[ax] * inv;
    return r;
}

/// @brief A triangle made ready for many distance queries: edges, normal and the inward normals
///        of the edges computed once, in double precision. `triangleBatchBody` is the same
///        distance over several points at once.
/// @details The same closest-feature classification as the spatial query's point-triangle
///          distance (the foot of the perpendicular when it lies in the face, else the nearest
///          edge; slivers as their edges), with the per-triangle products taken out of the
///          per-point work. Distances are exact to double rounding, then rounded to float.
struct PreparedTriangle : PreparedTriangleData {
    void prepare(float3 const& pa, float3 const& pb, float3 const& pc)
    {
        a[0] = pa.x, a[1] = pa.y, a[2] = pa.z;
        b[0] = pb.x, b[1] = pb.y, b[2] = pb.z;
        c[0] = pc.x, c[1] = pc.y, c[2] = pc.z;
        double const* v[3] = {a, b, c};
        double l2[3];
        for (int i = 0; i < 3; ++i) {
            double const* p0 = v[i];
            double const* p1 = v[(i + 1) % 3];
            for (int k = 0; k < 3; ++k)
                e[i][k] = p1[k] - p0[k];
            l2[i] = e[i][0] * e[i][0] + e[i][1] * e[i][1] + e[i][2] * e[i][2];
            invLen2[i] =
                l2[i] > 0.0 ? 1.0 / std::max(l2[i], std::numeric_limits<double>::min()) : 0.0;
        }
        // The normal from the two shorter edges (at the largest angle), oriented as ab x ac.
        auto cross = [](double const* x, double const* y, double* out) {
            out[0] = x[1] * y[2] - x[2] * y[1];
            out[1] = x[2] * y[0] - x[0] * y[2];
            out[2] = x[0] * y[1] - x[1] * y[0];
        };
        double scale;
        if (l2[1] >= l2[0] && l2[1] >= l2[2]) {
            double const ac[3] = {-e[2][0], -e[2][1], -e[2][2]};
            cross(e[0], ac, n);
            scale = l2[0] * l2[2];
        } else if (l2[2] >= l2[0]) {
            double const ba[3] = {-e[0][0], -e[0][1], -e[0][2]};
            cross(e[1], ba, n);
            scale = l2[1] * l2[0];
        } else {
            double const cb[3] = {-e[1][0], -e[1][1], -e[1][2]};
            cross(e[2], cb, n);
            scale = l2[2] * l2[1];
        }
        double const nn = n[0] * n[0] + n[1] * n[1] + n[2] * n[2];
        face = nn > Tavrel::SpatialQuery::detail::kSliverSine2 * scale;
        invNN = face ? 1.0 / nn : 0.0;
        for (int i = 0; i < 3; ++i)
            cross(n, e[i], m[i]);
    }

    /// Squared distance from @p p, rounded to float.
    float distance2(float3 const& p) const
    {
        double const q[3] = {p.x, p.y, p.z};
        double const* v[3] = {a, b, c};
        if (face) {
            bool inside = true;
            for (int i = 0; i < 3 && inside; ++i) {
                double const w = (q[0] - v[i][0]) * m[i][0] + (q[1] - v[i][1]) * m[i][1] +
                                 (q[2] - v[i][2]) * m[i][2];
                inside = w >= 0.0;
            }
            if (inside) {
                double const h = (q[0] - a[0]) * n[0] + (q[1] - a[1]) * n[1] + (q[2] - a[2]) * n[2];
                return static_cast<float>(h * h * invNN);
            }
        }
        double best = std::numeric_limits<double>::infinity();
        for (int i = 0; i < 3; ++i) {
            double const ap[3] = {q[0] - v[i][0], q[1] - v[i][1], q[2] - v[i][2]};
            double t = (ap[0] * e[i][0] + ap[1] * e[i][1] + ap[2] * e[i][2]) * invLen2[i];
            t = std::min(std::max(t, 0.0), 1.0);
            double const d[3] = {ap[0] - e[i][0] * t, ap[1] - e[i][1] * t, ap[2] - e[i][2] * t};
            double const d2 = d[0] * d[0] + d[1] * d[1] + d[2] * d[2];
            best = d2 < best ? d2 : best;
            if (d2 != d2)
                return static_cast<float>(d2);
        }
        return static_cast<float>(best);
    }
};

/// `computeTileLattice` over the triangle indices [begin, end).
template <typename Traits, typename It>
bool computeTileLatticeRange(TriangleKernelContext const& ctx, std::int64_t ci, std::int64_t cj,
                             std::int64_t ck, std::int64_t spacing, It begin, It end,
                             float* out_distances, std::int64_t* out_closest, float band,
                             float const* parentDistances, std::int64_t const* parentClosest,
                             int3 childPosition, int3 rangeBegin, int3 rangeEnd, bool clip,
                             bool sweepFill, bool finalFill,
                             PreparedTriangle const* const* listPrepared = nullptr)
{
    using L = TileLattice<Traits>;
    constexpr int N = L::kNodes;
    constexpr int kCount = L::kCount;
    constexpr int R = Traits::kRatio;
    constexpr int V = Traits::kVoxelsPerSlot;
    constexpr std::int64_t kNone = std::numeric_limits<std::int64_t>::max();
    enum : unsigned char { kCompute = 0, kCopied = 1, kOutside = 2 };

    float const band2 = band * band;
    float const h = ctx.voxelSize;
    static_assert(N <= 8 && N + 8 <= kLatticeStride, "a row of nodes fits one register");
    // The per-axis and per-node arrays have room after their ends: the node test reads whole
    // registers of them (ignoring what lies past the nodes it tests).
    float coord[3][kLatticeStride] = {};
    std::int64_t const corner[3] = {ci, cj, ck};
    for (int a = 0; a < 3; ++a)
        for (int n = 0; n < N; ++n)
            coord[a][n] = latticeCoordinate(corner[a], spacing, n, ctx.voxelOffset[a], h);

    int lo[3] = {std::max(rangeBegin.x, 0), std::max(rangeBegin.y, 0), std::max(rangeBegin.z, 0)};
    int hi[3] = {std::min(rangeEnd.x, N), std::min(rangeEnd.y, N), std::min(rangeEnd.z, N)};

    float best2[kCount + kLatticeTail];
    std::int64_t id[kCount + kLatticeTail];
    unsigned char state[kCount + kLatticeTail];
    std::fill(best2 + kCount, best2 + kCount + kLatticeTail, 0.0f);
    std::fill(id + kCount, id + kCount + kLatticeTail, kNone);
    std::fill(state + kCount, state + kCount + kLatticeTail, kOutside);
    bool within = false;
    int unset = 0;
    bool const withParent = parentDistances != nullptr;
    for (int z = 0; z < N; ++z)
        for (int y = 0; y < N; ++y)
            for (int x = 0; x < N; ++x) {
                int const n = L::index(x, y, z);
                best2[n] = ctx.far2;
                id[n] = kNone;
                if (x < lo[0] || x >= hi[0] || y < lo[1] || y >= hi[1] || z < lo[2] || z >= hi[2]) {
                    state[n] = kOutside;
                } else if (withParent && x % R == 0 && y % R == 0 && z % R == 0) {
                    state[n] = kCopied;
                    int const p = L::index(x / R + V * childPosition.x, y / R + V * childPosition.y,
                                           z / R + V * childPosition.z);
                    float const d = parentDistances[p];
                    best2[n] = d * d;
                    std::int64_t const pid = parentClosest ? parentClosest[p] : kNoTriangle;
                    id[n] = pid < 0 ? kNone : pid;
                    if (best2[n] < band2)
                        within = true;
                } else {
                    state[n] = kCompute;
                    ++unset;
                }
            }

    // Calls f(n, x, y, z) for every node to compute, x fastest.
    auto forEachComputedNode = [&](auto&& f) {
        for (int z = lo[2]; z < hi[2]; ++z)
            for (int y = lo[1]; y < hi[1]; ++y)
                for (int x = lo[0]; x < hi[0]; ++x)
                    if (state[L::index(x, y, z)] == kCompute)
                        f(L::index(x, y, z), x, y, z);
    };
    auto const& triangles = *ctx.triangles;
    auto const& positions = *ctx.positions;
    // A listed triangle is made ready when first measured (the box tests skip most of a long
    // list), once per call, unless the caller hands them in; seeds find theirs through a
    // per-thread table from triangle index to place in the list.
    thread_local std::vector<PreparedTriangle> prepared;
    thread_local std::vector<unsigned char> ready;
    thread_local std::vector<std::int32_t> place;
    std::size_t const listSize = static_cast<std::size_t>(std::distance(begin, end));
    if (unset > 0 && !listPrepared) {
        if (prepared.size() < listSize)
            prepared.resize(listSize);
        ready.assign(listSize, 0);
    }
    auto preparedAt = [&](std::size_t q, std::int64_t t) -> PreparedTriangle const& {
        if (listPrepared)
            return *listPrepared[q];
        if (!ready[q]) {
            ulong3 const& tri = triangles[static_cast<std::size_t>(t)];
            prepared[q].prepare(positions[tri.x], positions[tri.y], positions[tri.z]);
            ready[q] = 1;
        }
        return prepared[q];
    };
    auto take = [&](int n, float d2, std::int64_t t) {
        // Selections rather than a branch: whether a measured node improves is hard to predict.
        // (The float moves as its bits, which selections of integers carry.)
        float const b = best2[n];
        std::int64_t const i = id[n];
        bool const better = (d2 < b) | ((d2 == b) & (t < i));
        std::uint32_t newBits, oldBits;
        std::memcpy(&newBits, &d2, sizeof d2);
        std::memcpy(&oldBits, &b, sizeof b);
        std::uint32_t const keep = better ? newBits : oldBits;
        std::memcpy(&best2[n], &keep, sizeof keep);
        id[n] = better ? t : i;
    };
    // A list whose triangles the caller made ready (a child's, short) is offered whole to the
    // nodes below, its seeds first; other lists take the seeded, bounded path.
    bool const offerAll = unset > 0 && listPrepared && !clip;
    if (withParent && parentClosest && unset > 0 && !offerAll) {
        // Seeds: the listed triangle closest to the parent's node nearest each node. Measured
        // first, they give the bounds below a tight start, so that few other triangles are
        // measured at all. Only listed triangles are taken, so the result is the list's minimum
        // with its tie rule, exactly as without seeds.
        if (place.size() < triangles.size())
            place.assign(triangles.size(), -1);
        {
            std::int32_t q = 0;
            for (It it = begin; it != end; ++it, ++q)
                place[std::size_t(*it)] = q;
        }
        // Each node's seed first; then the nodes sharing a seed (the parent's nodes are few)
        // measured together.
        constexpr int kSeedRoom = kCount + kTriangleBatchPad;
        int seedNode[kCount];
        std::int32_t seedAt[kCount];
        std::int64_t seedTriangle[kCount];
        int seeds = 0;
        forEachComputedNode([&](int n, int x, int y, int z) {
            // The parent's node nearest to this one (rounding half up).
            int const slot[3] = {childPosition.x, childPosition.y, childPosition.z};
            int const c[3] = {x, y, z};
            int near[3];
            for (int a = 0; a < 3; ++a)
                near[a] = (2 * c[a] + R) / (2 * R) + V * slot[a];
            std::int64_t const t = parentClosest[L::index(near[0], near[1], near[2])];
            if (t < 0 || std::size_t(t) >= triangles.size())
                return;
            std::int32_t const q = place[std::size_t(t)];
            if (q >= 0) {
                seedNode[seeds] = n;
                seedAt[seeds] = q;
                seedTriangle[seeds] = t;
                ++seeds;
            }
        });
        if (seeds > 0) {
            TriangleBatchFunction const batch = latticeBatchFunction();
            int group[kCount];
            alignas(64) float gx[kSeedRoom], gy[kSeedRoom], gz[kSeedRoom];
            alignas(64) float gd[kSeedRoom];
            for (int i = 0; i < seeds; ++i) {
                std::int32_t const q = seedAt[i];
                if (q < 0)
                    continue;
                int count = 0;
                for (int j = i; j < seeds; ++j) {
                    if (seedAt[j] != q)
                        continue;
                    int const n = seedNode[j];
                    group[count] = n;
                    gx[count] = coord[0][n % N];
                    gy[count] = coord[1][(n / N) % N];
                    gz[count] = coord[2][n / (N * N)];
                    ++count;
                    seedAt[j] = -1;
                }
                std::int64_t const t = seedTriangle[i];
                PreparedTriangle const& pt = preparedAt(std::size_t(q), t);
                if (count == 1) {
                    take(group[0], pt.distance2(float3{gx[0], gy[0], gz[0]}), t);
                    continue;
                }
                for (int k = count; k < count + kTriangleBatchPad; ++k)
                    gx[k] = gy[k] = gz[k] = 0.0f;
                batch(pt, gx, gy, gz, count, gd);
                for (int k = 0; k < count; ++k)
                    take(group[k], gd[k], t);
            }
        }
        for (It it = begin; it != end; ++it)
            place[std::size_t(*it)] = -1;
    }
    if (offerAll) {
        // A short list with its triangles ready (a child's): every triangle is offered to the
        // nodes to compute, a register of nodes at a time, and the bounds only decide whether a
        // register is measured. The nodes are gathered once, in x-fastest order, so that a
        // register holds neighbours.
        constexpr int kRoom = kCount + kTriangleBatchPad;
        alignas(64) float nx[kRoom], ny[kRoom], nz[kRoom], nb[kRoom];
        alignas(64) std::int64_t nid[kRoom];
        int nodeOf[kCount];
        int m = 0;
        forEachComputedNode([&](int n, int x, int y, int z) {
            nodeOf[m] = n;
            nx[m] = coord[0][x], ny[m] = coord[1][y], nz[m] = coord[2][z];
            nb[m] = best2[n], nid[m] = id[n];
            ++m;
        });
        for (int q = m; q < m + kTriangleBatchPad; ++q)
            nx[q] = ny[q] = nz[q] = 0.0f, nb[q] = -1.0f, nid[q] = kNone;
        LatticeMinFunction const offer = latticeMinFunction();
        LatticeMinArgs args{
            nx, ny, nz, nb, nid, m, nullptr, nullptr, nullptr, nullptr, kBoxTestTolerance, 0};
        TriangleBounds computed;
        auto offerAt = [&](std::size_t at, std::int64_t t) {
            TriangleBounds const* tb = &computed;
            if (ctx.bounds) {
                tb = &ctx.bounds[t];
            } else {
                ulong3 const& tri = triangles[static_cast<std::size_t>(t)];
                computed = makeTriangleBounds(positions[tri.x], positions[tri.y], positions[tri.z]);
            }
            args.boxLo = tb->lo, args.boxHi = tb->hi;
            args.origin = tb->origin, args.normal = tb->normal;
            args.triangle = t;
            offer(*listPrepared[at], args);
        };
        // Seeds first: the listed triangles closest to the parent's nodes over this child. They
        // give the bounds a tight start, so that the rest of the list is mostly not measured.
        constexpr int kParentNodes = (V + 1) * (V + 1) * (V + 1);
        std::ptrdiff_t seedAt[kParentNodes];
        int seeds = 0;
        if (withParent && parentClosest) {
            std::ptrdiff_t const listSize = std::distance(begin, end);
            for (int z = 0; z <= V; ++z)
                for (int y = 0; y <= V; ++y)
                    for (int x = 0; x <= V; ++x) {
                        std::int64_t const t =
                            parentClosest[L::index(x + V * childPosition.x, y + V * childPosition.y,
                                                   z + V * childPosition.z)];
                        if (t < 0)
                            continue;
                        std::ptrdiff_t q = 0;
                        It it = begin;
                        while (q < listSize && *it != t)
                            ++it, ++q;
                        if (q == listSize || std::find(seedAt, seedAt + seeds, q) != seedAt + seeds)
                            continue;
                        seedAt[seeds++] = q;
                        offerAt(std::size_t(q), t);
                    }
        }
        std::size_t at = 0;
        for (It it = begin; it != end; ++it, ++at)
            if (seeds == 0 ||
                std::find(seedAt, seedAt + seeds, std::ptrdiff_t(at)) == seedAt + seeds)
                offerAt(at, *it);
        for (int q = 0; q < m; ++q)
            best2[nodeOf[q]] = nb[q], id[nodeOf[q]] = nid[q];
    }
    float dd[3][kLatticeStride] = {};
    double pd[3][kLatticeStride] = {};
    if (unset > 0 && !offerAll) {
        constexpr int kRoom = kCount + std::max(kTriangleBatchPad, kLatticeOutputPad);
        int candidate[kRoom];
        alignas(64) float cx[kRoom], cy[kRoom], cz[kRoom];
        alignas(64) float measured[kRoom];
        TriangleBatchFunction const batch = latticeBatchFunction();
        LatticeNodesFunction const nodes = latticeNodesFunction();
        // The largest best squared distance of the nodes to compute, per row of x, per slab of
        // z and over the lattice: a triangle whose box is farther than the lattice's from every
        // node is skipped whole, and a row or slab whose own is nearer than the triangle's box
        // along y and z is skipped, each of its nodes failing its box test. Bests only fall, so
        // bounds taken now and then stay valid. A maximum is exact in any order.
        float rowWorst2[N * N];
        float slabWorst2[N];
        float worst2 = 0.0f;
        auto refreshWorst = [&] {
            float w = 0.0f;
            for (int z = 0; z < N; ++z) {
                float slab = 0.0f;
                for (int y = 0; y < N; ++y) {
                    float row = 0.0f;
                    for (int x = 0; x < N; ++x) {
                        int const n = L::index(x, y, z);
                        row = std::max(row, state[n] == kCompute ? best2[n] : 0.0f);
                    }
                    rowWorst2[y + N * z] = row;
                    slab = std::max(slab, row);
                }
                slabWorst2[z] = slab;
                w = std::max(w, slab);
            }
            worst2 = w;
        };
        refreshWorst();
        float const nodeMin[3] = {coord[0][lo[0]], coord[1][lo[1]], coord[2][lo[2]]};
        float const nodeMax[3] = {coord[0][hi[0] - 1], coord[1][hi[1] - 1], coord[2][hi[2] - 1]};
        int sinceRefresh = 0;
        std::size_t at = 0;
        TriangleBounds computed;
        for (It it = begin; it != end; ++it, ++at) {
            std::int64_t const t = *it;
            TriangleBounds const* tb;
            if (ctx.bounds) {
                tb = &ctx.bounds[t];
                if constexpr (std::is_pointer_v<It>) {
                    // The list is in hand: fetch the bounds a few triangles ahead.
                    constexpr std::ptrdiff_t kAhead = 8;
                    if (end - it > kAhead)
                        __builtin_prefetch(&ctx.bounds[it[kAhead]]);
                }
            } else {
                ulong3 const& tri = triangles[static_cast<std::size_t>(t)];
                computed = makeTriangleBounds(positions[tri.x], positions[tri.y], positions[tri.z]);
                tb = &computed;
            }
            float const* const bmin = tb->lo;
            float const* const bmax = tb->hi;
            if (!clip) {
                if (++sinceRefresh == 4) {
                    refreshWorst();
                    sinceRefresh = 0;
                }
                float gap2 = 0.0f;
                for (int ax = 0; ax < 3; ++ax) {
                    float const g =
                        std::max({bmin[ax] - nodeMax[ax], nodeMin[ax] - bmax[ax], 0.0f});
                    gap2 += g * g;
                }
                if (worst2 < kBoxTestTolerance * gap2)
                    continue;
            }
            int wlo[3] = {lo[0], lo[1], lo[2]};
            int whi[3] = {hi[0], hi[1], hi[2]};
            if (!clip) {
                // Only the nodes within the worst best distance of the triangle's box along each
                // axis can be improved by it.
                float const r = std::sqrt(worst2 / kBoxTestTolerance) * 1.0001f;
                for (int ax = 0; ax < 3; ++ax) {
                    while (wlo[ax] < whi[ax] && coord[ax][wlo[ax]] < bmin[ax] - r)
                        ++wlo[ax];
                    while (whi[ax] > wlo[ax] && coord[ax][whi[ax] - 1] > bmax[ax] + r)
                        --whi[ax];
                }
                if (wlo[0] >= whi[0] || wlo[1] >= whi[1] || wlo[2] >= whi[2])
                    continue;
            }
            bool empty = false;
            for (int ax = 0; ax < 3; ++ax) {
                if (clip) {
                    // The nodes within the band of the box, in lattice coordinates.
                    double const o = coord[ax][0];
                    double const s = static_cast<double>(spacing) * h;
                    double const first = std::ceil((static_cast<double>(bmin[ax]) - band - o) / s);
                    double const last = std::floor((static_cast<double>(bmax[ax]) + band - o) / s);
                    int f, l;
                    if (sweepFill) {
                        // Keep at least one node, so that the sweep has a seed near every triangle.
                        f = static_cast<int>(std::clamp(first, double(lo[ax]), double(hi[ax] - 1)));
                        l = static_cast<int>(std::clamp(last, double(lo[ax]), double(hi[ax] - 1)));
                        if (f > l)
                            l = f;
                    } else {
                        f = static_cast<int>(std::clamp(first, double(lo[ax]), double(hi[ax])));
                        l = static_cast<int>(
                            std::clamp(last, double(lo[ax] - 1), double(hi[ax] - 1)));
                    }
                    wlo[ax] = f;
                    whi[ax] = l + 1;
                    if (f > l)
                        empty = true;
                }
                // Every node of the axis (the window's are read): a fixed count, which the
                // compiler turns into whole registers without branches.
                for (int n = 0; n < N; ++n)
                    dd[ax][n] = intervalDistance2(coord[ax][n], bmin[ax], bmax[ax]);
            }
            if (empty)
                continue;
            // A second lower bound: the distance to the triangle's plane, as per-axis terms of
            // the unit normal's dot product (in double: nodes lie close to the plane). Zero for
            // slivers.
            for (int ax = 0; ax < 3; ++ax) {
                double const nrm = tb->normal[ax];
                double const origin = tb->origin[ax];
                for (int n = 0; n < N; ++n)
                    pd[ax][n] = nrm * (double(coord[ax][n]) - origin);
            }
            // The nodes the bounds cannot rule out, gathered a row at a time, then measured
            // together. No node is listed twice, so measuring after the tests changes nothing.
            LatticeNodesArgs const args{N,
                                        {wlo[0], wlo[1], wlo[2]},
                                        {whi[0], whi[1], whi[2]},
                                        &dd[0][0],
                                        &pd[0][0],
                                        &coord[0][0],
                                        best2,
                                        id,
                                        state,
                                        rowWorst2,
                                        slabWorst2,
                                        t,
                                        kBoxTestTolerance,
                                        candidate,
                                        cx,
                                        cy,
                                        cz};
            int const count = nodes(args);
            if (count == 0)
                continue;
            PreparedTriangle const& pt = preparedAt(at, t);
            if (count == 1) {
                take(candidate[0], pt.distance2(float3{cx[0], cy[0], cz[0]}), t);
                continue;
            }
            for (int q = count; q < count + kTriangleBatchPad; ++q)
                cx[q] = cy[q] = cz[q] = 0.0f;
            batch(pt, cx, cy, cz, count, measured);
            for (int q = 0; q < count; ++q)
                take(candidate[q], measured[q], t);
        }
    }

    if (sweepFill) {
        // Fast sweep inside the lattice for the nodes no triangle box reached: each proposes
        // its neighbours' triangles in eight sweep directions.
        bool marked[kCount];
        bool any = false;
        for (int n = 0; n < kCount; ++n) {
            marked[n] = state[n] == kCompute && id[n] == kNone;
            any = any || marked[n];
        }
        for (int sweep = 0; any && sweep < 8; ++sweep) {
            int const sx = (sweep & 1) ? -1 : 1, sy = (sweep & 2) ? -1 : 1,
                      sz = (sweep & 4) ? -1 : 1;
            for (int zz = 0; zz < N; ++zz) {
                int const z = sz > 0 ? zz : N - 1 - zz;
                for (int yy = 0; yy < N; ++yy) {
                    int const y = sy > 0 ? yy : N - 1 - yy;
                    for (int xx = 0; xx < N; ++xx) {
                        int const x = sx > 0 ? xx : N - 1 - xx;
                        int const n = L::index(x, y, z);
                        if (!marked[n])
                            continue;
                        float3 const p{coord[0][x], coord[1][y], coord[2][z]};
                        for (int dz = -1; dz <= 1; ++dz) {
                            int const qz = z + dz;
                            if (qz < 0 || qz >= N)
                                continue;
                            for (int dy = -1; dy <= 1; ++dy) {
                                int const qy = y + dy;
                                if (qy < 0 || qy >= N)
                                    continue;
                                for (int dx = -1; dx <= 1; ++dx) {
                                    int const qx = x + dx;
                                    if (qx < 0 || qx >= N)
                                        continue;
                                    std::int64_t const t = id[L::index(qx, qy, qz)];
                                    if (t == kNone || t == id[n])
                                        continue;
                                    ulong3 const& tri = triangles[static_cast<std::size_t>(t)];
                                    float3 const& a = positions[tri.x];
                                    float3 const& b = positions[tri.y];
                                    float3 const& c = positions[tri.z];
                                    if (id[n] != kNone) {
                                        float const box2 =
                                            intervalDistance2(p.x, std::min({a.x, b.x, c.x}),
                                                              std::max({a.x, b.x, c.x})) +
                                            intervalDistance2(p.y, std::min({a.y, b.y, c.y}),
                                                              std::max({a.y, b.y, c.y})) +
                                            intervalDistance2(p.z, std::min({a.z, b.z, c.z}),
                                                              std::max({a.z, b.z, c.z}));
                                        if (best2[n] < kBoxTestTolerance * box2)
                                            continue;
                                    }
                                    float const d2 =
                                        Tavrel::SpatialQuery::pointTriangleDistance2(p, a, b, c);
                                    if (d2 < best2[n] || (d2 == best2[n] && t < id[n])) {
                                        best2[n] = d2;
                                        id[n] = t;
                                    }
                                }
                            }
                        }
                    }
                }
            }
        }
    }

    for (int n = 0; n < kCount; ++n) {
        if (state[n] == kOutside)
            continue;
        if (state[n] == kCopied) {
            int const z = n / (N * N), y = (n / N) % N, x = n % N;
            int const p = L::index(x / R + V * childPosition.x, y / R + V * childPosition.y,
                                   z / R + V * childPosition.z);
            out_distances[n] = parentDistances[p];
            out_closest[n] = parentClosest ? parentClosest[p] : kNoTriangle;
            continue;
        }
        if (id[n] != kNone) {
            out_distances[n] = std::sqrt(best2[n]);
            out_closest[n] = id[n];
            if (best2[n] < band2)
                within = true;
        } else if (finalFill) {
            out_distances[n] = ctx.far;
            out_closest[n] = kNoTriangle;
        }
    }
    return within;
}

} // namespace VolumeGL::TileTree3D::detail
