/// @file  voxelize/mesh/detail/mesh_distance_field_impl.h
/// @brief Body of `createMeshDistanceField`, instantiated once per tree type in
///        mesh_distance_field_t24.cpp and mesh_distance_field_t55.cpp.
#pragma once
#include <hexmold/voxelize/mesh/mesh_distance_field.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <deque>
#include <hexmold/analysis/grade_tile_tree.h>
#include <hexmold/diagnostics/voxel_hash.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/tavrel/spatial_query.h>
#include <hexmold/substrate/cancel.h>
#include <hexmold/substrate/canonical_order.h>
#include <hexmold/substrate/halo.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/scope_guard.h>
#include <hexmold/substrate/scratch_channel.h>
#include <hexmold/substrate/visitor.h>
#include <hexmold/voxelize/mesh/detail/lattice_kernel.h>
#include <hexmold/voxelize/mesh/detail/mesh_stage_names.h>
#include <hexmold/voxelize/mesh/edge_intersections.h>
#include <hexmold/voxelize/mesh/mesh_interior.h>
#include <hexmold/voxelize/mesh/triangle_distance_kernel.h>
#include <iostream>
#include <limits>
#include <memory>
#include <mutex>
#include <sstream>
#include <tuple>
#include <unordered_set>
#include <vector>

namespace VolumeGL::TileTree3D::detail {

using namespace TVL::TileTree3D;
namespace Par = TVL::Parallel;
using Tavrel::Math::double3;

/// floor(log_R(x)) for finite positive x, by exact multiplication (no rounding of a logarithm
/// at exact powers).
inline int floorLogRatio(double x, int ratio)
{
    if (!(x > 0.0))
        return -1000;
    if (!std::isfinite(x))
        return 1000;
    int n = 0;
    if (x >= 1.0) {
        for (double p = ratio; p <= x && n < 1000; p *= ratio)
            ++n;
        return n;
    }
    for (double p = 1.0; p > x && n > -1000; p /= ratio)
        --n;
    return n;
}

/// ceil(log_R(x)) for finite x >= 1 (0 below).
inline int ceilLogRatio(double x, int ratio)
{
    if (!std::isfinite(x))
        return 1000;
    int n = 0;
    for (double p = 1.0; p < x && n < 1000; p *= ratio)
        ++n;
    return n;
}

/// Floor division for tile alignment.
inline std::int64_t floorDiv(std::int64_t a, std::int64_t b)
{
    std::int64_t q = a / b;
    if ((a % b != 0) && ((a < 0) != (b < 0)))
        --q;
    return q;
}

/// Everything one build shares.
template <typename Traits> struct MeshBuild {
    using C = Container<Traits>;
    /// Lists longer than this are clipped to each triangle's box.
    static constexpr std::size_t kLongList = 12000;
    /// Mean triangles per coarse tile from which the build goes non-adaptive.
    static constexpr std::int64_t kDenseTriangles = 2000;

    C& container;
    VoxelTopology<Traits>& topology;
    VoxelChannel<Traits, float>& distance;
    VoxelChannel<Traits, TriangleId>* closest = nullptr;
    Quillon::Array<ulong3> const& triangles;
    Quillon::Array<float3> const& positions;
    Quillon::Array<float> const* detailSizes = nullptr;
    TriangleKernelContext ctx;
    /// Each triangle's bounds for the lattice kernel (`ctx.bounds`).
    std::vector<TriangleBounds> bounds;

    float voxelSize = 1.0f;
    float holeRadius = 0.0f;
    float holeExtra = 0.0f;
    float bandRadius = 0.0f;
    float thickeningDistance = 0.0f;
    float errorTolerance = 0.0f;
    bool detailMode = false;
    bool refineAdaptively = true;
    bool optimizations = true;
    bool computeInterior = false;
    /// Signs by parity of edge crossings: computeInterior without hole closing.
    bool countEdges = false;
    FixedPointCoords fixed;
    /// Crossings of the grid edges (adaptive build) or of the sweep axis's columns (sparse build).
    Quillon::Ptr<VoxelChannel<Traits, int3>> edges;
    Quillon::Ptr<VoxelChannel<Traits, int>> crossings;
    std::vector<ResolutionField> fields; ///< sorted, deepest target first; level = target depth
    int coarsestFieldDepth = Traits::kMaxDepth;
    int minDepth = 0;

    MeshBuild(C& c, VoxelTopology<Traits>& t, VoxelChannel<Traits, float>& d,
              Quillon::Array<ulong3> const& tri, Quillon::Array<float3> const& pos)
        : container(c), topology(t), distance(d), triangles(tri), positions(pos)
    {
    }

    void vertices(std::int64_t t, float3 const*& a, float3 const*& b, float3 const*& c) const
    {
        ulong3 const& tri = triangles[static_cast<std::size_t>(t)];
        a = &positions[tri.x];
        b = &positions[tri.y];
        c = &positions[tri.z];
    }
    float distance2(float3 const& p, std::int64_t t) const
    {
        float3 const *a, *b, *c;
        vertices(t, a, b, c);
        return Tavrel::SpatialQuery::pointTriangleDistance2(p, *a, *b, *c);
    }
    /// The tile corners of @p depth whose tiles overlap the triangle's box grown by @p grow
    /// (world units), aligned around the centred origin.
    /// The first and last tile corners of @p depth whose tiles overlap the triangle's box grown
    /// by @p grow (world units), aligned around the centred origin.
    void tileBox(std::int64_t t, double grow, int depth, std::int64_t lo[3],
                 std::int64_t hi[3]) const
    {
        float3 const *a, *b, *c;
        vertices(t, a, b, c);
        std::int64_t const T = C::tileVoxelWidth(depth);
        std::int64_t const A = Traits::kCentreOffset;
        for (int ax = 0; ax < 3; ++ax) {
            double const mn = std::min({(*a)[ax], (*b)[ax], (*c)[ax]}) - grow;
            double const mx = std::max({(*a)[ax], (*b)[ax], (*c)[ax]}) + grow;
            auto const vlo = static_cast<std::int64_t>(std::floor(mn / voxelSize));
            auto const vhi = static_cast<std::int64_t>(std::floor(mx / voxelSize));
            lo[ax] = floorDiv(vlo + A, T) * T - A;
            hi[ax] = floorDiv(vhi + A, T) * T - A;
        }
    }
    /// Calls @p f(x, y, z) for the corners of `tileBox`, in steps of @p step.
    template <typename F>
    void forEachTileOfBox(std::int64_t t, double grow, int depth, std::int64_t step, F&& f) const
    {
        std::int64_t lo[3], hi[3];
        tileBox(t, grow, depth, lo, hi);
        for (std::int64_t z = lo[2]; z <= hi[2]; z += step)
            for (std::int64_t y = lo[1]; y <= hi[1]; y += step)
                for (std::int64_t x = lo[0]; x <= hi[0]; x += step)
                    f(x, y, z);
    }
    /// World centre of the node lattice of the tile with corner (x, y, z) and width @p T
    /// (finest voxels): the tile's centre shifted by the sample offset, so that every node of
    /// the tile, the last on each axis included, lies within half the tile's diagonal of it.
    float3 tileCentre(std::int64_t x, std::int64_t y, std::int64_t z, std::int64_t T) const
    {
        double const h = voxelSize;
        float3 const o = ctx.voxelOffset;
        return {static_cast<float>((x + 0.5 * T + o.x) * h),
                static_cast<float>((y + 0.5 * T + o.y) * h),
                static_cast<float>((z + 0.5 * T + o.z) * h)};
    }
};

// ---- input checks -----------------------------------------------------------------------------

/// Says what is wrong with the input, or nothing.
template <typename Traits>
Quillon::String checkMeshInput(MeshBuild<Traits> const& b, Quillon::Array<float> const* detailSizes,
                               Quillon::Array<ResolutionField> const* fields, float holeRadius,
                               float thickening)
{
    std::ostringstream why;
    if (!(b.voxelSize > 0.0f) || !std::isfinite(b.voxelSize)) {
        why << "the voxel size " << b.voxelSize << " is not a positive number";
        return why.str();
    }
    if (!std::isfinite(holeRadius) || !std::isfinite(thickening)) {
        why << "the hole radius " << holeRadius << " or thickening distance " << thickening
            << " is not finite";
        return why.str();
    }
    std::size_t const n = b.positions.size();
    for (std::size_t t = 0; t < b.triangles.size(); ++t) {
        ulong3 const& tri = b.triangles[t];
        if (tri.x >= n || tri.y >= n || tri.z >= n) {
            why << "triangle " << t << " has the point indices (" << tri.x << ", " << tri.y << ", "
                << tri.z << "), but there are " << n << " points";
            return why.str();
        }
    }
    // The box of all points, grown by the widest band any stage reaches, must lie inside the
    // tree's domain; every point must be finite.
    double const A = static_cast<double>(Traits::kCentreOffset);
    double const margin =
        64.0 * Container<Traits>::tileVoxelWidth(std::max(Traits::kMaxDepth - 4, 1)) +
        (static_cast<double>(b.bandRadius) + thickening) * 2.0 / b.voxelSize;
    for (std::size_t p = 0; p < n; ++p) {
        float3 const& v = b.positions[p];
        if (!std::isfinite(v.x) || !std::isfinite(v.y) || !std::isfinite(v.z)) {
            why << "point " << p << " has the position (" << v.x << ", " << v.y << ", " << v.z
                << ")";
            return why.str();
        }
        for (int ax = 0; ax < 3; ++ax) {
            double const c = static_cast<double>(v[ax]) / b.voxelSize;
            if (std::abs(c) + margin >= A) {
                why << "point " << p << " at (" << v.x << ", " << v.y << ", " << v.z
                    << ") lies beyond the volume's domain at the voxel size " << b.voxelSize;
                return why.str();
            }
        }
    }
    if (detailSizes && detailSizes->size() != n) {
        why << "there are " << detailSizes->size() << " detail sizes for " << n << " points";
        return why.str();
    }
    if (detailSizes)
        for (std::size_t p = 0; p < n; ++p)
            if (!std::isfinite((*detailSizes)[p])) {
                why << "the detail size of point " << p << " is " << (*detailSizes)[p];
                return why.str();
            }
    if (fields)
        for (std::size_t f = 0; f < fields->size(); ++f) {
            ResolutionField const& r = (*fields)[f];
            for (int ax = 0; ax < 3; ++ax)
                if (std::isnan(r.min[ax]) || std::isnan(r.max[ax])) {
                    why << "resolution field " << f << " has a NaN bound";
                    return why.str();
                }
        }
    return {};
}

// ---- choosing minDepth and preallocating --------------------------------------------------------

/// The padded box of all points: min and max per axis (a parallel reduction; exact).
template <typename Traits>
void pointBounds(MeshBuild<Traits> const& b, double pad, double out_min[3], double out_max[3])
{
    struct Box {
        double lo[3] = {std::numeric_limits<double>::max(), std::numeric_limits<double>::max(),
                        std::numeric_limits<double>::max()};
        double hi[3] = {-std::numeric_limits<double>::max(), -std::numeric_limits<double>::max(),
                        -std::numeric_limits<double>::max()};
    };
    Box const box = Par::parallel_reduce(
        Par::blocked_range<std::size_t>(0, b.positions.size(), 4096), Box{},
        [&](Par::blocked_range<std::size_t> const& r, Box acc) {
            if (TVL::bodyCancelled())
                return acc;
            for (std::size_t p = r.begin(); p != r.end(); ++p)
                for (int ax = 0; ax < 3; ++ax) {
                    double const v = b.positions[p][ax];
                    acc.lo[ax] = std::min(acc.lo[ax], v - pad);
                    acc.hi[ax] = std::max(acc.hi[ax], v + pad);
                }
            return acc;
        },
        [](Box x, Box const& y) {
            for (int ax = 0; ax < 3; ++ax) {
                x.lo[ax] = std::min(x.lo[ax], y.lo[ax]);
                x.hi[ax] = std::max(x.hi[ax], y.hi[ax]);
            }
            return x;
        });
    TVL::throwIfJobCancelled();
    for (int ax = 0; ax < 3; ++ax) {
        out_min[ax] = box.lo[ax];
        out_max[ax] = box.hi[ax];
    }
}

/// A tile named by its depth and three integers at that depth: its corner, or its ordinals along
/// the axes (the sparse build's blocks of coarse tiles).
struct BlockKey {
    int depth;
    std::int64_t i, j, k;
    friend bool operator==(BlockKey const&, BlockKey const&) = default;
};
struct BlockKeyHash {
    std::size_t operator()(BlockKey const& b) const
    {
        std::uint64_t h = std::uint64_t(b.depth) * 0x9e3779b97f4a7c15ull;
        h ^= std::uint64_t(b.i) + 0x9e3779b97f4a7c15ull + (h << 6) + (h >> 2);
        h ^= std::uint64_t(b.j) + 0x9e3779b97f4a7c15ull + (h << 6) + (h >> 2);
        h ^= std::uint64_t(b.k) + 0x9e3779b97f4a7c15ull + (h << 6) + (h >> 2);
        return std::size_t(h);
    }
};

/// Adds the tiles of @p depth within reach of the triangles, through a scratch tree merged in
/// canonical order (so the tile order does not depend on the threads).
template <typename Traits> void preallocateLevel(MeshBuild<Traits>& b, int depth)
{
    using C = Container<Traits>;
    double const W = static_cast<double>(C::voxelDataWidth(depth));
    std::int64_t const T = C::tileVoxelWidth(depth);
    double const bandAtLevel = (W * b.voxelSize + b.bandRadius * 1.01) * 1.7320508;
    double const reach = b.voxelSize * 0.88 * static_cast<double>(T) + bandAtLevel;
    float const reach2 = static_cast<float>(reach * reach);
    bool const wholeBox = b.refineAdaptively && !b.optimizations;
    C* scratch = b.container.threadLocalContainer(0);
    TVL::ScopeGuard release([&] { b.container.freeThreadLocalContainer(scratch); });
    // Tile corners found per worker: neighbouring triangles reach the same tiles over and over,
    // and each addition to the shared scratch tree would take its lock.
    using CornerSet = std::unordered_set<BlockKey, BlockKeyHash>;
    Par::enumerable_thread_specific<CornerSet> found;
    Par::parallel_for(Par::blocked_range<std::size_t>(0, b.triangles.size(), 50),
                      [&](Par::blocked_range<std::size_t> const& r) {
                          if (TVL::bodyCancelled())
                              return;
                          if (wholeBox) {
                              auto acc = scratch->tileAccessor();
                              for (std::size_t t = r.begin(); t != r.end(); ++t) {
                                  std::int64_t lo[3], hi[3];
                                  b.tileBox(std::int64_t(t), bandAtLevel, depth, lo, hi);
                                  acc.addTiles(int3{int(lo[0]), int(lo[1]), int(lo[2])},
                                               int3{int(hi[0]), int(hi[1]), int(hi[2])}, depth);
                              }
                              return;
                          }
                          CornerSet& corners = found.local();
                          for (std::size_t t = r.begin(); t != r.end(); ++t)
                              b.forEachTileOfBox(
                                  std::int64_t(t), bandAtLevel, depth, T,
                                  [&](std::int64_t x, std::int64_t y, std::int64_t z) {
                                      if (b.distance2(b.tileCentre(x, y, z, T), std::int64_t(t)) <=
                                          reach2)
                                          corners.insert({depth, x, y, z});
                                  });
                      });
    {
        auto acc = scratch->tileAccessor();
        for (CornerSet const& corners : found)
            for (BlockKey const& c : corners)
                acc.addTile(c.i, c.j, c.k, depth);
    }
    TVL::throwIfJobCancelled();
    if (scratch->tileCount(depth) > 0) {
        C ordered("", b.voxelSize);
        addTilesInCanonicalOrder(*scratch, ordered);
        b.container.refine(ordered, nullptr, true);
    }
}

/// Per coarse tile: the triangles that reach it, pushed concurrently.
using TriangleList = Par::concurrent_vector<std::int64_t>;

/// Assigns every triangle to the tiles of minDepth within its reach.
template <typename Traits>
void assignTriangles(MeshBuild<Traits>& b, std::vector<TriangleList>& lists)
{
    using C = Container<Traits>;
    int const depth = b.minDepth;
    double const W = static_cast<double>(C::voxelDataWidth(depth));
    std::int64_t const T = C::tileVoxelWidth(depth);
    double const bandAtLevel = (W * b.voxelSize + b.bandRadius * 1.01) * 1.7320508;
    double const reach = b.voxelSize * 0.88 * static_cast<double>(T) + bandAtLevel;
    float const reach2 = static_cast<float>(reach * reach);
    b.container.buildAccessorAccelerationStructure(depth);
    Par::parallel_for(Par::blocked_range<std::size_t>(0, b.triangles.size(), 1),
                      [&](Par::blocked_range<std::size_t> const& r) {
                          if (TVL::bodyCancelled())
                              return;
                          auto acc = std::as_const(b.container).tileAccessor();
                          for (std::size_t t = r.begin(); t != r.end(); ++t)
                              b.forEachTileOfBox(
                                  std::int64_t(t), bandAtLevel, depth, T,
                                  [&](std::int64_t x, std::int64_t y, std::int64_t z) {
                                      if (b.distance2(b.tileCentre(x, y, z, T), std::int64_t(t)) >
                                          reach2)
                                          return;
                                      auto const& tile = acc.tile(x, y, z, depth);
                                      if (tile.valid() && tile.depth() == depth)
                                          lists[static_cast<std::size_t>(tile.index())].push_back(
                                              std::int64_t(t));
                                  });
                      });
    TVL::throwIfJobCancelled();
}

/// The stable reordering of a tile's list by the keys of the permutation switch.
inline std::uint64_t permutationKey(std::uint64_t seed, std::uint64_t tile, std::uint64_t position)
{
    constexpr std::uint64_t M = 0xb4ad5a69595ab2adull;
    std::uint64_t const x = seed + tile;
    std::uint64_t const a = (((x >> 21) | (x << 43)) ^ position) * M;
    std::uint64_t const a2 = a ^ (a >> 28);
    std::uint64_t const bb = (a2 << 12) | (a2 >> 52);
    std::uint64_t const c = ((bb >> 32) ^ x ^ bb) * M;
    std::uint64_t const d = c ^ (c >> 28);
    return d ^ (d >> 23);
}

// ---- refinement ---------------------------------------------------------------------------------

/// What a tile hands to each child it spawned.
template <typename Traits> struct SharedData {
    std::vector<std::int64_t> triangles;
    float smallestDistance2 = std::numeric_limits<float>::max();
    int targetDepth = 0;
    std::array<float, TileLattice<Traits>::kCount> distances;
    std::array<std::int64_t, TileLattice<Traits>::kCount> closest;
};

/// Edge crossings of one tile, counted by the thread that refined it.
template <typename Traits> struct EdgeVoxels {
    VoxelCoord coord;
    TileData<int3, Traits::kTileWidth, 0, 0> counts{std::size_t(Traits::kTileSize), int3{0, 0, 0}};
    bool placed = false; ///< already written through its accepted child
};

/// An accepted child tile's distances, kept by the thread that decided it.
template <typename Traits> struct ChildVoxels {
    VoxelCoord coord;
    std::array<float, Traits::kTileSize> distances;
    EdgeVoxels<Traits>* edges = nullptr; ///< its edge crossings (finest tiles), if any
};

/// An accepted child tile's closest triangles, when the build has a closest-triangle channel.
template <typename Traits> using ChildClosest = std::array<std::int64_t, Traits::kTileSize>;

/// One thread's accepted children: their distances and, in the same order, their closest
/// triangles when the build keeps them.
template <typename Traits> struct ChildStore {
    std::deque<ChildVoxels<Traits>> voxels;
    std::deque<ChildClosest<Traits>> closest;
};

/// Per-thread scratch of the child decisions: the lattice of a whole parent at child spacing,
/// so that a child reuses the face an earlier sibling computed.
template <typename Traits> struct RefineScratch {
    static constexpr int kBig = Traits::kSlotsPerAxis * Traits::kTileWidth + 1;
    std::vector<float> distances = std::vector<float>(std::size_t(kBig) * kBig * kBig);
    std::vector<std::int64_t> closest = std::vector<std::int64_t>(std::size_t(kBig) * kBig * kBig);
    std::vector<unsigned char> written = std::vector<unsigned char>(Traits::kChildCount);
    std::vector<std::int64_t> childList;
    std::vector<PreparedTriangle> parentPrepared;   ///< the parent's triangles, made ready
    std::vector<std::array<double, 6>> parentBoxes; ///< their boxes: min x, y, z, max x, y, z
    /// Per triangle and axis, the child slots along the axis that its box grown by the child
    /// band overlaps, one bit per slot.
    std::vector<std::array<unsigned char, 3>> parentSlots;
    /// Per child: squared distance to its centre, triangle, place in the parent's list (of the
    /// parent's triangles within reach of the centre).
    std::vector<std::vector<std::tuple<float, std::int64_t, std::uint32_t>>> childKeyed;
    /// The child list's triangles made ready: pointers into `parentPrepared`.
    std::vector<PreparedTriangle const*> childPrepared;
    static std::size_t index(int i, int j, int k)
    {
        return std::size_t(i) + kBig * (std::size_t(j) + kBig * std::size_t(k));
    }
};

template <typename Traits> struct Refiner {
    using B = MeshBuild<Traits>;
    using C = Container<Traits>;
    using L = TileLattice<Traits>;
    static constexpr int N = L::kNodes;
    static constexpr int kMax = Traits::kMaxDepth;
    static constexpr int kW = Traits::kTileWidth;
    static constexpr int kR = Traits::kRatio;
    static constexpr int kS = Traits::kSlotsPerAxis;
    static constexpr int kV = Traits::kVoxelsPerSlot;

    B& b;
    Par::enumerable_thread_specific<ChildStore<Traits>> out;
    Par::enumerable_thread_specific<RefineScratch<Traits>> scratch;
    Par::enumerable_thread_specific<std::deque<EdgeVoxels<Traits>>> edgeOut;
    std::array<std::atomic<std::int64_t>, Traits::kDepthCount> nanoseconds{};

    explicit Refiner(B& build) : b(build) {}

    /// Counts the edge crossings of @p list in the tile with corner @p corner at depth @p d into
    /// the thread's store (kept only when there are any). @return the kept counts, or null.
    template <typename It>
    EdgeVoxels<Traits>* countEdges(It first, It last, int3 const& corner, int d)
    {
        auto& store = edgeOut.local();
        EdgeVoxels<Traits>& e = store.emplace_back();
        e.coord = VoxelCoord{corner.x, corner.y, corner.z, d};
        int found = 0;
        for (It t = first; t != last; ++t)
            found += countEdgeIntersections<Traits>(b.triangles[static_cast<std::size_t>(*t)],
                                                    b.fixed, corner, d, e.counts);
        if (found == 0) {
            store.pop_back();
            return nullptr;
        }
        return &e;
    }

    /// depthOf(size) = deepest - floor(log_R(size / h)), clamped to [0, deepest].
    int depthOf(double size) const
    {
        double const x = size / b.voxelSize;
        if (!(x >= 1.0))
            return kMax;
        return std::clamp(kMax - floorLogRatio(x, kR), 0, kMax);
    }

    /// The depth a triangle asks of a child of depth d + 1 (detail mode).
    int triangleTarget(std::int64_t t, double const bmin[3], double const bmax[3], int d) const
    {
        ulong3 const& tri = b.triangles[static_cast<std::size_t>(t)];
        std::uint64_t const v[3] = {tri.x, tri.y, tri.z};
        auto const& sizes = *b.detailSizes;
        double inside = std::numeric_limits<double>::max();
        bool anyInside = false;
        for (std::uint64_t p : v) {
            float3 const& q = b.positions[p];
            if (q.x >= bmin[0] && q.x <= bmax[0] && q.y >= bmin[1] && q.y <= bmax[1] &&
                q.z >= bmin[2] && q.z <= bmax[2]) {
                inside = std::min(inside, double(sizes[p]));
                anyInside = true;
            }
        }
        if (anyInside) {
            int const di = depthOf(inside);
            if (di > d)
                return di;
        }
        double const smallest =
            std::min({double(sizes[v[0]]), double(sizes[v[1]]), double(sizes[v[2]])});
        int const ds = depthOf(smallest);
        if (ds == 0 || ds <= d)
            return 0;
        int largest = 0;
        for (int cz = 0; cz < 2; ++cz)
            for (int cy = 0; cy < 2; ++cy)
                for (int cx = 0; cx < 2; ++cx) {
                    float3 const corner{static_cast<float>(cx ? bmax[0] : bmin[0]),
                                        static_cast<float>(cy ? bmax[1] : bmin[1]),
                                        static_cast<float>(cz ? bmax[2] : bmin[2])};
                    float3 bc;
                    Tavrel::SpatialQuery::pointTriangleBC(corner, b.positions[v[0]],
                                                          b.positions[v[1]], b.positions[v[2]], bc);
                    double const size =
                        bc.x * sizes[v[0]] + bc.y * sizes[v[1]] + bc.z * sizes[v[2]];
                    int const dc = depthOf(size);
                    if (dc > d)
                        return dc;
                    largest = std::max(largest, dc);
                }
        return largest;
    }

    /// Whether the parent's lattice fails to reproduce the child's within the error tolerance.
    bool errorTooLarge(SharedData<Traits> const& parent, int3 const& slot, float const* child,
                       float childBand) const
    {
        float const far = b.ctx.far;
        float const tol2 = b.errorTolerance * b.errorTolerance;
        for (int pz = 0; pz < kV; ++pz)
            for (int py = 0; py < kV; ++py)
                for (int px = 0; px < kV; ++px) {
                    // The parent cell's corners.
                    int const ox = kV * slot.x + px, oy = kV * slot.y + py, oz = kV * slot.z + pz;
                    float c[8];
                    bool usable = true;
                    for (int q = 0; q < 8; ++q) {
                        c[q] = parent.distances[L::index(ox + (q & 1), oy + ((q >> 1) & 1),
                                                         oz + ((q >> 2) & 1))];
                        if (!(c[q] < far))
                            usable = false;
                    }
                    if (!usable)
                        continue;
                    int const ez = pz == kV - 1 ? kR : kR - 1;
                    int const ey = py == kV - 1 ? kR : kR - 1;
                    int const ex = px == kV - 1 ? kR : kR - 1;
                    for (int mz = 0; mz <= ez; ++mz)
                        for (int my = 0; my <= ey; ++my)
                            for (int mx = 0; mx <= ex; ++mx) {
                                bool const onParent =
                                    (mx % kR == 0) && (my % kR == 0) && (mz % kR == 0);
                                if (onParent)
                                    continue;
                                float const stored =
                                    child[L::index(px * kR + mx, py * kR + my, pz * kR + mz)];
                                if (stored > childBand)
                                    continue;
                                float const fx = float(mx) / kR, fy = float(my) / kR,
                                            fz = float(mz) / kR;
                                float const x00 = c[0] + (c[1] - c[0]) * fx,
                                            x10 = c[2] + (c[3] - c[2]) * fx;
                                float const x01 = c[4] + (c[5] - c[4]) * fx,
                                            x11 = c[6] + (c[7] - c[6]) * fx;
                                float const y0 = x00 + (x10 - x00) * fy,
                                            y1 = x01 + (x11 - x01) * fy;
                                float const v = y0 + (y1 - y0) * fz;
                                float const diff = v - stored;
                                if (diff * diff > tol2)
                                    return true;
                            }
                }
        return false;
    }

    /// Decides the children of one tile (of depth @p d, corner @p corner) and recurses into the
    /// accepted ones.
    void refineTile(std::unique_ptr<SharedData<Traits>> parent, int3 const corner, int const d)
    {
        if (TVL::bodyCancelled())
            return;
        auto const start = std::chrono::steady_clock::now();
        int const cd = d + 1;
        std::int64_t const cT = C::tileVoxelWidth(cd);
        std::int64_t const cVw = C::voxelDataWidth(cd);
        double const h = b.voxelSize;
        float const childBand =
            static_cast<float>((double(cVw) * h + b.bandRadius * 1.01) * 1.7320508);
        double const reachD = h * 0.88 * double(cT) + childBand;
        float const reach2 = static_cast<float>(reachD * reachD);
        float const childBand2 = childBand * childBand;
        constexpr float kSlack = 1.1754944e-38f;

        std::vector<std::pair<int3, std::unique_ptr<SharedData<Traits>>>> accepted;
        // The tile's own grid edges: the parity walk crosses a tile's voxels at its depth,
        // covered or not, to hand each child the state of its first sample.
        if (b.countEdges)
            countEdges(parent->triangles.begin(), parent->triangles.end(), corner, d);
        {
            RefineScratch<Traits>& s = scratch.local();
            std::fill(s.written.begin(), s.written.end(), 0);
            // The parent's triangles made ready once for all its children.
            s.parentPrepared.resize(parent->triangles.size());
            s.parentBoxes.resize(parent->triangles.size());
            for (std::size_t q = 0; q < parent->triangles.size(); ++q) {
                float3 const *a, *bb, *c;
                b.vertices(parent->triangles[q], a, bb, c);
                s.parentPrepared[q].prepare(*a, *bb, *c);
                for (int ax = 0; ax < 3; ++ax) {
                    s.parentBoxes[q][ax] = std::min({(*a)[ax], (*bb)[ax], (*c)[ax]});
                    s.parentBoxes[q][3 + ax] = std::max({(*a)[ax], (*bb)[ax], (*c)[ax]});
                }
            }
            // A child's box is the product of its slot's extent along each axis, so the overlap
            // test of a grown triangle box splits into one test per axis and slot.
            constexpr int kS = Traits::kSlotsPerAxis;
            static_assert(kS <= 8, "one bit per slot");
            double slotMin[3][kS], slotMax[3][kS];
            for (int ax = 0; ax < 3; ++ax)
                for (int q = 0; q < kS; ++q) {
                    int const c = static_cast<int>(corner[ax] + q * cT);
                    slotMin[ax][q] = (double(c) + b.ctx.voxelOffset[ax]) * h;
                    slotMax[ax][q] = (double(c + cT) + b.ctx.voxelOffset[ax]) * h;
                }
            s.parentSlots.resize(parent->triangles.size());
            for (std::size_t q = 0; q < parent->triangles.size(); ++q) {
                auto const& box = s.parentBoxes[q];
                for (int ax = 0; ax < 3; ++ax) {
                    double const mn = box[ax] - childBand;
                    double const mx = box[3 + ax] + childBand;
                    unsigned bits = 0;
                    for (int k = 0; k < kS; ++k)
                        if (!(mx + kSlack < slotMin[ax][k] || mn - kSlack > slotMax[ax][k]))
                            bits |= 1u << k;
                    s.parentSlots[q][std::size_t(ax)] = static_cast<unsigned char>(bits);
                }
            }
            // The distances from the children's centres to the parent's triangles, a triangle
            // at a time over the children its grown box overlaps (in the order of the parent's
            // list, so each child's entries keep that order).
            constexpr int kC = Traits::kChildCount;
            constexpr int kRoom = kC + kTriangleBatchPad;
            alignas(64) float centreX[kRoom], centreY[kRoom], centreZ[kRoom];
            for (int slot = 0; slot < kC; ++slot) {
                int3 const sc = Tile<Traits>::slotCoordinates(slot);
                double centre[3];
                for (int ax = 0; ax < 3; ++ax) {
                    std::int64_t const c = corner[ax] + sc[ax] * cT;
                    double const lo = (double(c) + b.ctx.voxelOffset[ax]) * h;
                    double const hi = (double(c + cT) + b.ctx.voxelOffset[ax]) * h;
                    centre[ax] = 0.5 * (lo + hi);
                }
                centreX[slot] = static_cast<float>(centre[0]);
                centreY[slot] = static_cast<float>(centre[1]);
                centreZ[slot] = static_cast<float>(centre[2]);
            }
            s.childKeyed.resize(kC);
            for (auto& keyed : s.childKeyed)
                keyed.clear();
            {
                TriangleBatchFunction const batch = latticeBatchFunction();
                alignas(64) float px[kRoom], py[kRoom], pz[kRoom], measured[kRoom];
                int which[kC];
                for (std::size_t q = 0; q < parent->triangles.size(); ++q) {
                    auto const& slots = s.parentSlots[q];
                    int count = 0;
                    for (int z = 0; z < kS; ++z) {
                        if (!((slots[2] >> z) & 1u))
                            continue;
                        for (int y = 0; y < kS; ++y) {
                            if (!((slots[1] >> y) & 1u))
                                continue;
                            for (int x = 0; x < kS; ++x) {
                                if (!((slots[0] >> x) & 1u))
                                    continue;
                                int const slot = Tile<Traits>::slotNumber(x, y, z);
                                which[count] = slot;
                                px[count] = centreX[slot];
                                py[count] = centreY[slot];
                                pz[count] = centreZ[slot];
                                ++count;
                            }
                        }
                    }
                    if (count == 0)
                        continue;
                    if (count == 1) {
                        measured[0] = s.parentPrepared[q].distance2(float3{px[0], py[0], pz[0]});
                    } else {
                        for (int k = count; k < count + kTriangleBatchPad; ++k)
                            px[k] = py[k] = pz[k] = 0.0f;
                        batch(s.parentPrepared[q], px, py, pz, count, measured);
                    }
                    std::int64_t const t = parent->triangles[q];
                    for (int k = 0; k < count; ++k)
                        if (measured[k] <= reach2)
                            s.childKeyed[std::size_t(which[k])].emplace_back(
                                measured[k], t, static_cast<std::uint32_t>(q));
                }
            }
            ChildStore<Traits>& store = out.local();
            for (int slot = 0; slot < Traits::kChildCount; ++slot) {
                int3 const sc = Tile<Traits>::slotCoordinates(slot);
                int3 const cc{static_cast<int>(corner.x + sc.x * cT),
                              static_cast<int>(corner.y + sc.y * cT),
                              static_cast<int>(corner.z + sc.z * cT)};
                double bmin[3], bmax[3];
                // The box of the child's lattice nodes: its tile box shifted by the sample offset.
                for (int ax = 0; ax < 3; ++ax) {
                    bmin[ax] = (double(cc[ax]) + b.ctx.voxelOffset[ax]) * h;
                    bmax[ax] = (double(cc[ax] + cT) + b.ctx.voxelOffset[ax]) * h;
                }
                // Resolution fields: a field deeper than d whose box overlaps the child's.
                if (!b.fields.empty()) {
                    bool hit = false;
                    for (ResolutionField const& f : b.fields) {
                        if (f.level <= d)
                            break;
                        bool overlap = true;
                        for (int ax = 0; ax < 3; ++ax)
                            if (f.max[ax] + kSlack < bmin[ax] || f.min[ax] - kSlack > bmax[ax])
                                overlap = false;
                        if (overlap) {
                            hit = true;
                            break;
                        }
                    }
                    if (!hit)
                        continue;
                }
                // The child's triangles: those whose grown box overlaps the child and that lie
                // within reach of its centre.
                auto& list = s.childList;
                list.clear();
                auto& keyed = s.childKeyed[std::size_t(slot)];
                float smallest = std::numeric_limits<float>::max();
                int target = 0;
                for (auto const& [d2, t, q] : keyed) {
                    smallest = std::min(smallest, d2);
                    if (b.detailMode && target <= d)
                        target = std::max(target, triangleTarget(t, bmin, bmax, d));
                }
                if (!(reach2 > smallest))
                    continue;
                if (b.detailMode && target <= d)
                    continue;
                // The parent's order is kept: the lattice takes the parent's closest triangles
                // first, and its result does not depend on the order of the list.
                s.childPrepared.clear();
                for (auto const& [d2, t, q] : keyed) {
                    list.push_back(t);
                    s.childPrepared.push_back(&s.parentPrepared[q]);
                }

                // The child's lattice: nodes shared with the parent are copied, a face an earlier
                // sibling wrote is reused.
                float dist[L::kCount];
                std::int64_t ids[L::kCount];
                int3 rb{0, 0, 0};
                int3 const re{N, N, N};
                if (sc.x > 0 && s.written[Tile<Traits>::slotNumber(sc.x - 1, sc.y, sc.z)])
                    rb.x = 1;
                if (sc.y > 0 && s.written[Tile<Traits>::slotNumber(sc.x, sc.y - 1, sc.z)])
                    rb.y = 1;
                if (sc.z > 0 && s.written[Tile<Traits>::slotNumber(sc.x, sc.y, sc.z - 1)])
                    rb.z = 1;
                int const bx = sc.x * kW, by = sc.y * kW, bz = sc.z * kW;
                if (rb.x || rb.y || rb.z)
                    for (int z = 0; z < N; ++z)
                        for (int y = 0; y < N; ++y)
                            for (int x = 0; x < N; ++x) {
                                if (!((rb.x && x == 0) || (rb.y && y == 0) || (rb.z && z == 0)))
                                    continue;
                                std::size_t const q =
                                    RefineScratch<Traits>::index(bx + x, by + y, bz + z);
                                dist[L::index(x, y, z)] = s.distances[q];
                                ids[L::index(x, y, z)] = s.closest[q];
                            }
                bool const clip = b.optimizations && list.size() > B::kLongList;
                bool within = computeTileLattice<Traits>(
                    b.ctx, cc.x, cc.y, cc.z, cVw, list.data(), list.data() + list.size(), dist, ids,
                    childBand, parent->distances.data(), parent->closest.data(), sc, rb, re, clip,
                    clip, true, s.childPrepared.data());
                for (int z = 0; z < N; ++z)
                    for (int y = 0; y < N; ++y)
                        for (int x = 0; x < N; ++x) {
                            std::size_t const q =
                                RefineScratch<Traits>::index(bx + x, by + y, bz + z);
                            s.distances[q] = dist[L::index(x, y, z)];
                            s.closest[q] = ids[L::index(x, y, z)];
                            // A reused face counts for the band as much as the computed nodes.
                            if (!within &&
                                ((rb.x && x == 0) || (rb.y && y == 0) || (rb.z && z == 0))) {
                                float const v = dist[L::index(x, y, z)];
                                if (v * v < childBand2)
                                    within = true;
                            }
                        }
                s.written[slot] = 1;
                if (!within)
                    continue;
                if (b.errorTolerance > 0.0f && !errorTooLarge(*parent, sc, dist, childBand))
                    continue;

                // Accepted: keep its voxels, and its lattice and list for its own children.
                ChildVoxels<Traits>& voxels = store.voxels.emplace_back();
                voxels.coord = VoxelCoord{cc.x, cc.y, cc.z, cd};
                for (int z = 0; z < kW; ++z)
                    for (int y = 0; y < kW; ++y)
                        for (int x = 0; x < kW; ++x)
                            voxels.distances[x + kW * (y + kW * z)] =
                                std::abs(dist[L::index(x, y, z)]);
                if (b.closest) {
                    ChildClosest<Traits>& closest = store.closest.emplace_back();
                    for (int z = 0; z < kW; ++z)
                        for (int y = 0; y < kW; ++y)
                            for (int x = 0; x < kW; ++x)
                                closest[x + kW * (y + kW * z)] = ids[L::index(x, y, z)];
                }
                if (cd == kMax && b.countEdges)
                    voxels.edges = countEdges(list.begin(), list.end(), cc, cd);
                if (cd < kMax) {
                    auto child = std::make_unique<SharedData<Traits>>();
                    child->triangles.assign(list.begin(), list.end());
                    child->smallestDistance2 = smallest;
                    child->targetDepth = target;
                    std::copy(dist, dist + L::kCount, child->distances.begin());
                    std::copy(ids, ids + L::kCount, child->closest.begin());
                    accepted.emplace_back(cc, std::move(child));
                }
            }
        }
        parent.reset();
        nanoseconds[d] += std::chrono::duration_cast<std::chrono::nanoseconds>(
                              std::chrono::steady_clock::now() - start)
                              .count();
        if (accepted.empty())
            return;
        if (accepted.size() == 1) {
            refineTile(std::move(accepted[0].second), accepted[0].first, cd);
            return;
        }
        Par::parallel_for(Par::blocked_range<std::size_t>(0, accepted.size(), 1),
                          [&](Par::blocked_range<std::size_t> const& r) {
                              for (std::size_t q = r.begin(); q != r.end(); ++q)
                                  refineTile(std::move(accepted[q].second), accepted[q].first, cd);
                          });
    }
};

// ---- the builds
// -----------------------------------------------------------------------------------

/// Updates the topology and the channels after tiles were added.
template <typename Traits> void followTiles(MeshBuild<Traits>& b, bool emptyDistanceBlocks)
{
    b.topology.update(b.container);
    if (emptyDistanceBlocks)
        b.distance.enableAllocateEmptyTileData();
    b.distance.update(b.topology);
    if (emptyDistanceBlocks)
        b.distance.disableAllocateEmptyTileData();
    if (b.closest)
        b.closest->update(b.topology);
}

/// Writes a lattice's voxel nodes into the channels' blocks of tile @p t.
template <typename Traits>
void storeLatticeVoxels(MeshBuild<Traits>& b, TreeIndex const& t, float const* dist,
                        std::int64_t const* ids)
{
    using L = TileLattice<Traits>;
    constexpr int W = Traits::kTileWidth;
    auto dd = b.distance.tileData(t);
    if (!dd.empty())
        for (int z = 0; z < W; ++z)
            for (int y = 0; y < W; ++y)
                for (int x = 0; x < W; ++x)
                    dd(x, y, z) = std::abs(dist[L::index(x, y, z)]);
    if (b.closest) {
        auto cd = b.closest->tileData(t);
        if (!cd.empty())
            for (int z = 0; z < W; ++z)
                for (int y = 0; y < W; ++y)
                    for (int x = 0; x < W; ++x)
                        cd(x, y, z) = ids[L::index(x, y, z)];
    }
}

template <typename Traits>
void buildAdaptive(MeshBuild<Traits>& b,
                   Quillon::Ptr<VoxelChannel<Traits, TriangleId>>* closestSlot, int* out_minDepth,
                   float* out_bboxMaxSideLength)
{
    using C = Container<Traits>;
    using L = TileLattice<Traits>;
    constexpr int kMax = Traits::kMaxDepth;
    constexpr int kR = Traits::kRatio;
    constexpr int kW = Traits::kTileWidth;
    int const verbose = CoreGL::Logger::verboseLevel();
    std::vector<TriangleList> lists;
    {
        auto const timer =
            CoreGL::Logger::timer(MeshStageNames::name("preallocate_coarser_levels"), nullptr);
        double const padding = b.bandRadius * 1.01 + b.voxelSize;
        double lo[3], hi[3];
        pointBounds(b, padding, lo, hi);
        double const minSide = std::min({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]});
        double const maxSide = std::max({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]});
        if (out_bboxMaxSideLength)
            *out_bboxMaxSideLength = static_cast<float>(maxSide);
        b.errorTolerance = static_cast<float>(b.errorTolerance * maxSide);

        int boxDepth =
            kMax - std::min(kMax, ceilLogRatio(1.0 + minSide * 0.5 / b.voxelSize / kW, kR) - 1);
        if (b.holeRadius > 0.0f) {
            if (verbose > 1)
                std::cout << "minDepth before minHoleRadius constraint = " << boxDepth << '\n';
            int const holeDepth =
                kMax - floorLogRatio(b.holeRadius * 2.0 / (b.voxelSize * 1.25), kR);
            boxDepth = std::max(boxDepth, holeDepth);
            if (verbose > 1)
                std::cout << "minDepth after minHoleRadius constraint = " << boxDepth << '\n';
        }
        int detailDepth = kMax;
        if (b.detailMode) {
            float const smallest = Par::parallel_reduce(
                Par::blocked_range<std::size_t>(0, b.detailSizes->size(), 4096),
                std::numeric_limits<float>::max(),
                [&](Par::blocked_range<std::size_t> const& r, float acc) {
                    for (std::size_t p = r.begin(); p != r.end(); ++p)
                        acc = std::min(acc, (*b.detailSizes)[p]);
                    return acc;
                },
                [](float x, float y) { return std::min(x, y); });
            double const x = smallest / b.voxelSize;
            detailDepth = x > 0.0 ? std::clamp(kMax - floorLogRatio(x, kR), 0, kMax) : kMax;
        }
        b.minDepth = std::min(kMax - 1,
                              std::max(boxDepth, std::min(b.coarsestFieldDepth, detailDepth) - kW));
        if (verbose > 1)
            std::cout << "minDepth = " << b.minDepth << '\n';

        preallocateLevel(b, b.minDepth);

        if (!(b.errorTolerance > 0.0f) && !b.detailMode && b.fields.empty() && b.optimizations) {
            std::int64_t const tiles = b.container.tileCount(b.minDepth);
            std::int64_t const mean = tiles > 0 ? std::int64_t(b.triangles.size()) / tiles : 0;
            if (verbose > 0)
                std::cout
                    << "Is a candidate for allocating non-adaptively\nTriangle mean density = "
                    << mean << '\n';
            if (tiles > 0 && mean >= MeshBuild<Traits>::kDenseTriangles) {
                if (verbose > 0)
                    std::cout << "Switching to non-adaptive algorithm\n";
                b.refineAdaptively = false;
                b.minDepth = kMax;
                preallocateLevel(b, b.minDepth);
            } else if (verbose > 0) {
                std::cout << "NOT switching to non-adaptive algorithm\n";
            }
        }

        lists =
            std::vector<TriangleList>(static_cast<std::size_t>(b.container.tileCount(b.minDepth)));
        assignTriangles(b, lists);
        if (verbose > 1 && !lists.empty()) {
            std::size_t mn = std::numeric_limits<std::size_t>::max(), mx = 0, sum = 0;
            for (auto const& l : lists) {
                mn = std::min(mn, l.size());
                mx = std::max(mx, l.size());
                sum += l.size();
            }
            std::cout << "minNumTriangles = " << mn << "\nmaxNumTriangles = " << mx
                      << "\nmeanNumTriangles = " << float(sum) / float(lists.size()) << '\n';
        }
        if (enableTrianglePermutations()) {
            unsigned long long const seed = trianglePermutationsSeed();
            std::cout << "Triangle permutation enabled with seed " << seed << '\n';
            Par::parallel_for(
                Par::blocked_range<std::size_t>(0, lists.size(), 1),
                [&](Par::blocked_range<std::size_t> const& r) {
                    if (TVL::bodyCancelled())
                        return;
                    for (std::size_t t = r.begin(); t != r.end(); ++t) {
                        auto& l = lists[t];
                        std::vector<std::pair<std::uint64_t, std::int64_t>> keyed(l.size());
                        for (std::size_t j = 0; j < l.size(); ++j)
                            keyed[j] = {permutationKey(seed, t, j), l[j]};
                        std::stable_sort(
                            keyed.begin(), keyed.end(),
                            [](auto const& x, auto const& y) { return x.first < y.first; });
                        for (std::size_t j = 0; j < l.size(); ++j)
                            l[j] = keyed[j].second;
                    }
                });
            TVL::throwIfJobCancelled();
        }
    }
    {
        auto const timer =
            CoreGL::Logger::timer(MeshStageNames::name("grade_coarser_levels"), nullptr);
        CoreGL::TileTree3D::gradeTileTree(b.container, nullptr, nullptr, b.minDepth - 6,
                                          b.minDepth);
        followTiles(b, false);
        if (closestSlot) {
            *closestSlot =
                scratchChannel<VoxelChannel<Traits, TriangleId>>(b.topology, -1, 0, kMax);
            b.closest = closestSlot->get();
        }
        if (out_minDepth)
            *out_minDepth = b.minDepth;
    }

    if (b.countEdges) {
        auto const timer =
            CoreGL::Logger::timer(MeshStageNames::name("precompute_fixed_point_coords"), nullptr);
        b.fixed = makeFixedPointCoords(b.container, b.positions, b.ctx.voxelOffset);
    }

    if (!b.refineAdaptively) {
        // Dense meshes: the finest tiles' lattices straight from their lists.
        auto const timer = CoreGL::Logger::timer(
            MeshStageNames::name("compute_distances_and_intersections"), nullptr);
        int const d = b.minDepth;
        if (b.countEdges) {
            b.edges =
                scratchChannel<VoxelChannel<Traits, int3>>(b.topology, int3{0, 0, 0}, 0, kMax);
        }
        std::int64_t const spacing = C::voxelDataWidth(d);
        float const band =
            static_cast<float>((double(spacing) * b.voxelSize + b.bandRadius * 1.01) * 1.7320508);
        Par::parallel_for(
            Par::blocked_range<std::int64_t>(0, b.container.tileCount(d), 1),
            [&](Par::blocked_range<std::int64_t> const& r) {
                std::vector<std::int64_t> list;
                for (std::int64_t t = r.begin(); t != r.end(); ++t) {
                    if (TVL::bodyCancelled())
                        return;
                    auto const& tile = b.container.tile(t, d);
                    auto const& src = lists[static_cast<std::size_t>(t)];
                    list.assign(src.begin(), src.end());
                    float dist[L::kCount];
                    std::int64_t ids[L::kCount];
                    bool const clip = b.optimizations && list.size() > MeshBuild<Traits>::kLongList;
                    computeTileLattice<Traits>(
                        b.ctx, tile.ti(), tile.tj(), tile.tk(), spacing, list.data(),
                        list.data() + list.size(), dist, ids, band, nullptr, nullptr, int3{0, 0, 0},
                        int3{0, 0, 0}, int3{L::kNodes, L::kNodes, L::kNodes}, clip, clip, true);
                    storeLatticeVoxels(b, tile.treeIndex(), dist, ids);
                    if (b.edges) {
                        auto counts = b.edges->tileData(tile.treeIndex());
                        for (std::int64_t q : list)
                            countEdgeIntersections<Traits>(b.triangles[static_cast<std::size_t>(q)],
                                                           b.fixed, tile.tijk(), d, counts);
                    }
                }
            });
        TVL::throwIfJobCancelled();
        return;
    }

    auto const outerTimer = CoreGL::Logger::timer(
        MeshStageNames::name("adaptive_triangle_refine_and_voxelization"), nullptr);
    Refiner<Traits> refiner(b);
    {
        auto const timer = CoreGL::Logger::timer(MeshStageNames::name("refine"), nullptr);
        auto const start = std::chrono::steady_clock::now();
        int const d = b.minDepth;
        std::int64_t const spacing = C::voxelDataWidth(d);
        float const band =
            static_cast<float>((double(spacing) * b.voxelSize + b.bandRadius * 1.01) * 1.7320508);
        Par::parallel_for(
            Par::blocked_range<std::int64_t>(0, b.container.tileCount(d), 1),
            [&](Par::blocked_range<std::int64_t> const& r) {
                for (std::int64_t t = r.begin(); t != r.end(); ++t) {
                    if (TVL::bodyCancelled())
                        return;
                    auto const& tile = b.container.tile(t, d);
                    auto shared = std::make_unique<SharedData<Traits>>();
                    {
                        auto& src = lists[static_cast<std::size_t>(t)];
                        shared->triangles.assign(src.begin(), src.end());
                        TriangleList().swap(src);
                    }
                    auto const& list = shared->triangles;
                    bool const clip = b.optimizations && list.size() > MeshBuild<Traits>::kLongList;
                    computeTileLattice<Traits>(
                        b.ctx, tile.ti(), tile.tj(), tile.tk(), spacing, list.data(),
                        list.data() + list.size(), shared->distances.data(), shared->closest.data(),
                        band, nullptr, nullptr, int3{0, 0, 0}, int3{0, 0, 0},
                        int3{L::kNodes, L::kNodes, L::kNodes}, clip, clip, true);
                    storeLatticeVoxels(b, tile.treeIndex(), shared->distances.data(),
                                       shared->closest.data());
                    refiner.refineTile(std::move(shared), tile.tijk(), d);
                }
            });
        TVL::throwIfJobCancelled();
        if (verbose > 1) {
            double total = 0.0;
            for (int q = 0; q <= kMax; ++q) {
                double const s = double(refiner.nanoseconds[q].load()) * 1e-9;
                if (s > 0.0)
                    std::cout << "Timing for level " << q << " = " << s << '\n';
                total += s;
            }
            std::cout
                << "Total time = "
                << std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count()
                << "\nAccumulated time = " << total << '\n';
        }
    }
    // The accepted children become tiles, depth by depth (parents first) in the order k, j, i,
    // so that the tile order does not depend on the threads. Every child's parent is a tile of
    // the tree or an accepted child one depth up. Each keeps the index of its tile.
    struct Accepted {
        VoxelCoord coord;
        ChildVoxels<Traits> const* voxels;
        ChildClosest<Traits> const* closest;
        std::int64_t index;
    };
    std::vector<std::vector<Accepted>> accepted(std::size_t(kMax) + 1);
    {
        for (auto const& store : refiner.out)
            for (std::size_t q = 0; q < store.voxels.size(); ++q) {
                ChildVoxels<Traits> const& v = store.voxels[q];
                accepted[std::size_t(v.coord.depth)].push_back(
                    {v.coord, &v, b.closest ? &store.closest[q] : nullptr, -1});
            }
        auto acc = b.container.tileAccessor();
        for (auto& tiles : accepted) {
            Par::parallel_sort(tiles.begin(), tiles.end(),
                               [](Accepted const& x, Accepted const& y) {
                                   return std::tie(x.coord.k, x.coord.j, x.coord.i) <
                                          std::tie(y.coord.k, y.coord.j, y.coord.i);
                               });
            for (Accepted& t : tiles) {
                auto const& tile = acc.addTile(t.coord);
                if (tile.valid() && tile.depth() == t.coord.depth)
                    t.index = tile.index();
            }
        }
        followTiles(b, true);
    }
    {
        auto const timer =
            CoreGL::Logger::timer(MeshStageNames::name("assign_voxelization"), nullptr);
        // The sign walk, the DOF classification and the redistancing after this ask for tiles'
        // neighbours at every tile: tabulated once from the parents' tables, they are answered
        // without hashing.
        b.container.precomputeTileNeighbors();
        b.container.buildAccessorAccelerationStructure(-1);
        if (b.countEdges)
            b.edges =
                scratchChannel<VoxelChannel<Traits, int3>>(b.topology, int3{0, 0, 0}, 0, kMax);
        for (int d = 0; d <= kMax; ++d) {
            auto const& tiles = accepted[std::size_t(d)];
            Par::parallel_for(
                Par::blocked_range<std::size_t>(0, tiles.size(), 256),
                [&](Par::blocked_range<std::size_t> const& r) {
                    if (TVL::bodyCancelled())
                        return;
                    for (std::size_t q = r.begin(); q != r.end(); ++q) {
                        Accepted const& t = tiles[q];
                        if (t.index < 0)
                            continue;
                        if (t.closest) {
                            auto cdata = b.closest->tileData(t.index, d);
                            if (!cdata.empty())
                                std::copy(t.closest->begin(), t.closest->end(), cdata.data());
                        }
                        auto ddata = b.distance.tileData(t.index, d);
                        if (!ddata.empty())
                            std::copy(t.voxels->distances.begin(), t.voxels->distances.end(),
                                      ddata.data());
                        if (EdgeVoxels<Traits>* e = t.voxels->edges) {
                            auto edata = b.edges->tileData(t.index, d);
                            if (!edata.empty())
                                std::copy(e->counts.begin(), e->counts.end(), edata.data());
                            e->placed = true;
                        }
                    }
                });
            TVL::throwIfJobCancelled();
        }
        std::vector<std::vector<Accepted>>().swap(accepted);
        for (auto& store : refiner.out) {
            std::deque<ChildVoxels<Traits>>().swap(store.voxels);
            std::deque<ChildClosest<Traits>>().swap(store.closest);
        }
        if (b.countEdges) {
            // The tiles' own crossings (those of accepted children are placed already).
            for (auto& store : refiner.edgeOut) {
                Par::parallel_for(Par::blocked_range<std::size_t>(0, store.size(), 256),
                                  [&](Par::blocked_range<std::size_t> const& r) {
                                      if (TVL::bodyCancelled())
                                          return;
                                      auto acc = std::as_const(b.container).tileAccessor();
                                      for (std::size_t q = r.begin(); q != r.end(); ++q) {
                                          EdgeVoxels<Traits> const& e = store[q];
                                          if (e.placed)
                                              continue;
                                          auto const& tile = acc.tile(e.coord);
                                          if (!tile.valid() || tile.depth() != e.coord.depth)
                                              continue;
                                          auto data = b.edges->tileData(tile.treeIndex());
                                          if (!data.empty())
                                              std::copy(e.counts.begin(), e.counts.end(),
                                                        data.data());
                                      }
                                  });
                TVL::throwIfJobCancelled();
                std::deque<EdgeVoxels<Traits>>().swap(store);
            }
        }
        if (verbose > 0) {
            Quillon::String const prefix = meshDebugPrefix();
            std::ostringstream count;
            count << "[#" << b.distance.elementCount(-1) << "]";
            CoreGL::writeVoxelHashLine(prefix + count.str(),
                                       ".voxel_hash.after_refine = ", b.container, b.distance, 0);
            if (b.closest) {
                std::ostringstream c2;
                c2 << "(closest_triangle)[#" << b.closest->elementCount(-1) << "]";
                CoreGL::writeVoxelHashLine(
                    prefix + c2.str(), ".voxel_hash.after_refine = ", b.container, *b.closest, 0);
            }
            if (b.edges) {
                std::ostringstream c3;
                c3 << "(edge intersection count)[#" << b.edges->elementCount(-1) << "]";
                CoreGL::writeVoxelHashLine(prefix + c3.str(),
                                           ".voxel_hash.after_refine = ", b.container, *b.edges, 0);
            }
        }
    }
}

/// One (tile, triangle) record of the sparse build: 40 bytes.
struct SparseRecord {
    std::int64_t tileIndex = -1; ///< index in the merged tree (-1 until known)
    std::int32_t depth = 0;
    std::int32_t padding0 = 0;
    std::int64_t triangle = 0;
    std::int32_t ti = 0, tj = 0, tk = 0;
    std::int32_t padding1 = 0;
};
static_assert(sizeof(SparseRecord) == 40, "a sparse-build record is 40 bytes");

template <typename Traits>
void buildSparse(MeshBuild<Traits>& b, Quillon::Ptr<VoxelChannel<Traits, TriangleId>>* closestSlot,
                 int narrowBandHalfWidth)
{
    using C = Container<Traits>;
    constexpr int kMax = Traits::kMaxDepth;
    constexpr int kW = Traits::kTileWidth;
    double const h = b.voxelSize;
    std::vector<SparseRecord> records;
    {
        auto const timer =
            CoreGL::Logger::timer(MeshStageNames::name("triangle_refine_reduction"), nullptr);
        std::size_t const n = b.triangles.size();
        std::size_t const threads = static_cast<std::size_t>(std::max(1, Par::maxConcurrency()));
        std::size_t const grain = std::max<std::size_t>(1, std::min<std::size_t>(512, n / threads));
        double const grow = narrowBandHalfWidth * h + b.bandRadius * 1.01;
        double const keep =
            (narrowBandHalfWidth * 2.0 + kW) * 0.87 * h + b.thickeningDistance * 1.01;
        float const keep2 = static_cast<float>(keep * keep);
        float const near2 = static_cast<float>((h * 1.74) * (h * 1.74));
        std::int64_t const T = C::tileVoxelWidth(kMax);

        struct Body {
            MeshBuild<Traits> const* b;
            std::unique_ptr<C> tmp;
            std::vector<SparseRecord> records;
            /// The blocks of coarse tiles this body has added: depth and tile ordinals.
            std::unordered_set<BlockKey, BlockKeyHash> addedBlocks;
            double grow;
            float keep2, near2;
            std::int64_t T;
            Body(MeshBuild<Traits> const& build, double g, float k2, float n2, std::int64_t t)
                : b(&build), tmp(std::make_unique<C>("tmp", build.voxelSize)), grow(g), keep2(k2),
                  near2(n2), T(t)
            {
                tmp->tileAccessor().addTile(0, 0, 0, 0);
            }
            Body(Body& o, Par::split)
                : b(o.b), tmp(std::make_unique<C>("tmp", o.b->voxelSize)), grow(o.grow),
                  keep2(o.keep2), near2(o.near2), T(o.T)
            {
                tmp->tileAccessor().addTile(0, 0, 0, 0);
            }
            void operator()(Par::blocked_range<std::size_t> const& r)
            {
                if (TVL::bodyCancelled())
                    return;
                auto acc = tmp->tileAccessor();
                for (std::size_t t = r.begin(); t != r.end(); ++t)
                    b->forEachTileOfBox(
                        std::int64_t(t), grow, kMax, T,
                        [&](std::int64_t x, std::int64_t y, std::int64_t z) {
                            float const d2 =
                                b->distance2(b->tileCentre(x, y, z, T), std::int64_t(t));
                            if (!(d2 < keep2))
                                return;
                            acc.addTile(x, y, z, kMax);
                            SparseRecord rec;
                            rec.depth = kMax;
                            rec.triangle = std::int64_t(t);
                            rec.ti = int(x), rec.tj = int(y), rec.tk = int(z);
                            records.push_back(rec);
                            if (d2 < near2)
                                for (int d = kMax - 1; d >= 1; --d) {
                                    std::int64_t const w = C::tileVoxelWidth(d);
                                    // The block around a finest tile depends only on the tile of
                                    // depth d that holds it (the +1 on x never reaches the next
                                    // ordinal: finest corners are multiples of the tile width). A
                                    // block this body added once is not added again, and then
                                    // neither are the coarser ones, added with it.
                                    std::int64_t const A = Traits::kCentreOffset;
                                    BlockKey const key{d, floorDiv(x + A, w), floorDiv(y + A, w),
                                                       floorDiv(z + A, w)};
                                    if (!addedBlocks.insert(key).second)
                                        break;
                                    acc.addTiles(int3{int(x - w), int(y - w), int(z - w)},
                                                 int3{int(x + w + 1), int(y + w), int(z + w)}, d);
                                }
                        });
            }
            void join(Body& o)
            {
                if (o.tmp->tileCount(-1) > 1)
                    tmp->refine(*o.tmp, nullptr, true);
                records.insert(records.end(), o.records.begin(), o.records.end());
            }
        };
        Body body(b, grow, keep2, near2, T);
        Par::parallel_reduce(Par::blocked_range<std::size_t>(0, n, grain), body,
                             Par::auto_partitioner());
        TVL::throwIfJobCancelled();
        C ordered("", b.voxelSize);
        addTilesInCanonicalOrder(*body.tmp, ordered);
        b.container.refine(ordered, nullptr, true);
        followTiles(b, false);
        records.swap(body.records);

        b.container.buildAccessorAccelerationStructure(kMax);
        std::size_t const mapGrain =
            std::max<std::size_t>(1, std::min<std::size_t>(512, records.size() / threads));
        Par::parallel_for(Par::blocked_range<std::size_t>(0, records.size(), mapGrain),
                          [&](Par::blocked_range<std::size_t> const& r) {
                              if (TVL::bodyCancelled())
                                  return;
                              auto acc = std::as_const(b.container).tileAccessor();
                              for (std::size_t q = r.begin(); q != r.end(); ++q) {
                                  auto const& tile =
                                      acc.tile(records[q].ti, records[q].tj, records[q].tk, kMax);
                                  records[q].tileIndex =
                                      tile.valid() && tile.depth() == kMax ? tile.index() : -1;
                              }
                          });
        TVL::throwIfJobCancelled();
        auto const less = [](SparseRecord const& x, SparseRecord const& y) {
            return x.tileIndex != y.tileIndex ? x.tileIndex < y.tileIndex : x.triangle < y.triangle;
        };
        if (records.size() < 500)
            std::sort(records.begin(), records.end(), less);
        else
            Par::parallel_sort(records.begin(), records.end(), less);
    }
    Quillon::Ptr<VoxelChannel<Traits, TriangleId>> own;
    {
        auto const timer =
            CoreGL::Logger::timer(MeshStageNames::name("allocate_temporary_channels"), nullptr);
        auto made = scratchChannel<VoxelChannel<Traits, TriangleId>>(b.topology, -1, 0, kMax);
        if (closestSlot)
            *closestSlot = made;
        else
            own = made;
        b.closest = made.get();
        if (b.computeInterior && !(b.holeRadius > 0.0f))
            b.crossings = scratchChannel<VoxelChannel<Traits, int>>(b.topology, 0, kMax, kMax);
    }
    {
        auto const timer =
            CoreGL::Logger::timer(MeshStageNames::name("voxelize_tile_triangle_id"), nullptr);
        // Runs of records of one tile; a tile is never split between bodies.
        std::vector<std::size_t> starts;
        for (std::size_t q = 0; q < records.size(); ++q)
            if (records[q].tileIndex >= 0 &&
                (q == 0 || records[q].tileIndex != records[q - 1].tileIndex))
                starts.push_back(q);
        starts.push_back(records.size());
        double const reject = (narrowBandHalfWidth * 2.0 + kW) * 0.87 * h;
        float const reject2 = static_cast<float>(reject * reject);
        std::int64_t const T = C::tileVoxelWidth(kMax);
        Par::parallel_for(
            Par::blocked_range<std::size_t>(0, starts.size() - 1, 2),
            [&](Par::blocked_range<std::size_t> const& r) {
                if (TVL::bodyCancelled())
                    return;
                for (std::size_t g = r.begin(); g != r.end(); ++g) {
                    std::size_t const first = starts[g];
                    std::size_t end = starts[g + 1];
                    TreeIndex const ti{records[first].tileIndex, kMax};
                    auto dist = b.distance.tileData(ti);
                    auto ids = b.closest->tileData(ti);
                    if (dist.empty() || ids.empty())
                        continue;
                    int3 const corner{records[first].ti, records[first].tj, records[first].tk};
                    float3 const centre = b.tileCentre(corner.x, corner.y, corner.z, T);
                    for (std::size_t q = first; q < end && records[q].tileIndex == ti.index; ++q) {
                        if (b.distance2(centre, records[q].triangle) > reject2)
                            continue;
                        visitTileTriangle<Traits>(b.ctx, corner, records[q].triangle, dist, ids);
                    }
                }
            });
        TVL::throwIfJobCancelled();
        b.container.precomputeTileNeighbors();
        b.container.buildAccessorAccelerationStructure(-1);
        std::vector<SparseRecord>().swap(records);
    }
    {
        auto const timer =
            CoreGL::Logger::timer(MeshStageNames::name("mesh_fast_sweep_red_black"), nullptr);
        std::int64_t previous = -1;
        for (int pass = 0; pass < 100; ++pass) {
            std::int64_t current = 0;
            for (std::uint32_t color = 0; color < 2; ++color) {
                TrianglesLevelSetSweepKernel::Kernel<Traits> kernel(color, b.container, b.distance,
                                                                    *b.closest, b.triangles,
                                                                    b.positions, b.ctx.voxelOffset);
                std::as_const(b.container)
                    .reduceInternalNonInlined(&kernel, kTraversalSingleDepth, kNoTile, kMax, kMax,
                                              50, 0, 0, kVisitInteriorVoxelNone);
                current += kernel.numUnassigned;
            }
            std::int64_t const change = previous - current;
            previous = current;
            if (previous == 0 || change == 0)
                break;
        }
    }
}

/// Gives the grid edges of the tiles above minDepth their crossing counts. Those tiles have no
/// triangle lists, but each of their sample lines is a sample line of the minDepth tiles below,
/// and the surface lies inside minDepth tiles with a margin: a coarse edge's count is the sum of
/// the minDepth edges along it.
template <typename Traits> void addCountsToCoarserDepths(MeshBuild<Traits>& b)
{
    constexpr int W = Traits::kTileWidth;
    int const d0 = b.minDepth;
    if (!b.edges || d0 <= 0)
        return;
    std::int64_t const w0 = Container<Traits>::voxelDataWidth(d0);
    Par::parallel_for(
        Par::blocked_range<std::int64_t>(0, b.container.tileCount(d0), 16),
        [&](Par::blocked_range<std::int64_t> const& r) {
            if (TVL::bodyCancelled())
                return;
            for (std::int64_t t = r.begin(); t != r.end(); ++t) {
                Tile<Traits> const& tile = b.container.tile(t, d0);
                auto const counts = std::as_const(*b.edges).tileData(t, d0);
                if (counts.empty())
                    continue;
                for (int k = 0, v = 0; k < W; ++k)
                    for (int j = 0; j < W; ++j)
                        for (int i = 0; i < W; ++i, ++v)
                            for (int a = 0; a < 3; ++a) {
                                int const n = counts[std::size_t(v)][a];
                                if (n == 0)
                                    continue;
                                std::int64_t const x[3] = {tile.ti() + i * w0, tile.tj() + j * w0,
                                                           tile.tk() + k * w0};
                                for (std::int64_t p = tile.parent(), d = d0 - 1; p >= 0 && d >= 0;
                                     --d) {
                                    Tile<Traits> const& up = b.container.tile(p, int(d));
                                    std::int64_t const w =
                                        Container<Traits>::voxelDataWidth(int(d));
                                    int u[3];
                                    bool onLine = true;
                                    for (int ax = 0; ax < 3; ++ax) {
                                        std::int64_t const rel = x[ax] - up.tijk()[ax];
                                        u[ax] = int(rel / w);
                                        if (ax != a && rel % w != 0)
                                            onLine = false;
                                    }
                                    // Off this depth's sample lines, off every coarser one's.
                                    if (!onLine)
                                        break;
                                    auto up_counts = b.edges->tileData(up.treeIndex());
                                    if (!up_counts.empty())
                                        std::atomic_ref<int>(up_counts(u[0], u[1], u[2])[a])
                                            .fetch_add(n, std::memory_order_relaxed);
                                    p = up.parent();
                                }
                            }
            }
        });
    TVL::throwIfJobCancelled();
}

/// Counts the crossings of every triangle with the sweep axis's columns through the finest tiles,
/// one triangle after the other.
template <typename Traits> void countColumnCrossings(MeshBuild<Traits>& b, int signMode, int axis)
{
    using C = Container<Traits>;
    constexpr int kMax = Traits::kMaxDepth;
    std::int64_t const T = C::tileVoxelWidth(kMax);
    auto acc = std::as_const(b.container).tileAccessor();
    for (std::size_t t = 0; t < b.triangles.size(); ++t) {
        if ((t & 4095) == 0)
            TVL::throwIfJobCancelled();
        b.forEachTileOfBox(std::int64_t(t), b.voxelSize, kMax, T,
                           [&](std::int64_t x, std::int64_t y, std::int64_t z) {
                               auto const& tile = acc.tile(x, y, z, kMax);
                               if (!tile.valid() || tile.depth() != kMax)
                                   return;
                               auto counts = b.crossings->tileData(tile.treeIndex());
                               if (counts.empty())
                                   return;
                               countAxisCrossings<Traits>(b.triangles[t], b.fixed, tile.tijk(),
                                                          kMax, axis, signMode, counts);
                           });
    }
}

/// Fills every depth's voxels of @p value's sign from its magnitude only.
template <typename Traits> void absoluteValues(MeshBuild<Traits>& b)
{
    b.container.traverse(
        TVL::TileTree3D::detail::Dummy{}, TVL::TileTree3D::detail::Dummy{},
        [&](Tile<Traits> const& tile) {
            if (TVL::bodyCancelled())
                return;
            auto d = b.distance.tileData(tile.treeIndex());
            for (float& v : d)
                v = std::abs(v);
        },
        TVL::TileTree3D::detail::Dummy{}, NoVoxelVisit{}, kTraversalUnordered, kNoTile, 0,
        Traits::kMaxDepth, 1, true, 0, 0, false, 0);
    TVL::throwIfJobCancelled();
}

/// The sign stage. Returns false only for an inconsistent walk on an error-driven tree.
template <typename Traits>
bool computeSigns(MeshBuild<Traits>& b, bool adaptiveBuild, int signMode, int sweepAxis)
{
    constexpr int kMax = Traits::kMaxDepth;
    int const verbose = CoreGL::Logger::verboseLevel();
    Quillon::String const prefix = meshDebugPrefix();
    bool const empty = b.container.tileCount(-1) == 0;
    if (adaptiveBuild) {
        if (empty)
            return true;
        if (!(b.holeRadius > 0.0f)) {
            bool consistent = true;
            {
                auto const timer =
                    CoreGL::Logger::timer(MeshStageNames::name("compute_interior"), nullptr);
                addCountsToCoarserDepths(b);
                consistent = signByEdgeParity(b.container, b.distance, b.edges.get());
                b.edges.reset();
            }
            if (!consistent) {
                if (verbose > 0)
                    std::cout << "Inconsistency found: Computing interior using floodfill\n";
                // Coarse cells of an error-driven tree can hide a crossing: the caller builds again
                // without the error test.
                if (b.errorTolerance > 0.0f)
                    return false;
                absoluteValues(b);
                auto const timer = CoreGL::Logger::timer(
                    MeshStageNames::name("compute_interior.flood_fill"), nullptr);
                floodFillInterior(b.container, b.topology, b.distance, b.voxelSize, true);
            } else if (verbose > 0) {
                std::cout
                    << "No inconsistency found: Computing interior using intersection counts\n";
            }
        } else {
            auto const timer =
                CoreGL::Logger::timer(MeshStageNames::name("compute_interior.flood_fill"), nullptr);
            floodFillInterior(b.container, b.topology, b.distance, b.holeRadius, true);
        }
        if (verbose > 0)
            CoreGL::writeVoxelHashLine(prefix, ".voxel_hash.after_sign = ", b.container, b.distance,
                                       0);
        setNonLeafValueToChildValue(b.distance, b.container, b.topology.offsetType(), 0, kMax - 1);
        if (verbose > 0)
            CoreGL::writeVoxelHashLine(prefix, ".voxel_hash.after_setting_non_leaf = ", b.container,
                                       b.distance, 0);
        return true;
    }
    if (b.holeRadius > 0.0f) {
        if (b.container.tileCount(kMax) > 0) {
            auto const timer =
                CoreGL::Logger::timer(MeshStageNames::name("compute_interior.flood_fill"), nullptr);
            floodFillInterior(b.container, b.topology, b.distance, b.holeRadius, false);
        }
        return true;
    }
    if (!b.crossings)
        return true;
    int const axis = std::clamp(sweepAxis, 0, 5) / 2;
    {
        auto const timer =
            CoreGL::Logger::timer(MeshStageNames::name("compute_interior_assign_signed"), nullptr);
        b.fixed = makeFixedPointCoords(b.container, b.positions, b.ctx.voxelOffset);
        countColumnCrossings(b, signMode, axis);
    }
    {
        auto const timer = CoreGL::Logger::timer(MeshStageNames::name("compute_interior"), nullptr);
        signBySparseColumns(b.container, b.distance, *b.crossings, signMode, sweepAxis);
        b.crossings.reset();
    }
    {
        auto const timer = CoreGL::Logger::timer(MeshStageNames::name("sign_propagation"), nullptr);
        propagateSignsToCoarserDepths(b.container, b.distance);
    }
    if (verbose > 0)
        CoreGL::writeVoxelHashLine(prefix, ".voxel_hash.after_sign = ", b.container, b.distance, 0);
    return true;
}

/// Subtracts @p amount from every voxel of depths [minDepth, maxDepth].
template <typename Traits>
void offsetVoxels(MeshBuild<Traits>& b, float amount, int minDepth, int maxDepth, bool negate)
{
    b.container.traverse(
        TVL::TileTree3D::detail::Dummy{}, TVL::TileTree3D::detail::Dummy{},
        [&](Tile<Traits> const& tile) {
            if (TVL::bodyCancelled())
                return;
            auto d = b.distance.tileData(tile.treeIndex());
            for (float& v : d)
                v = negate ? -v : v - amount;
        },
        TVL::TileTree3D::detail::Dummy{}, NoVoxelVisit{}, kTraversalUnordered, kNoTile, minDepth,
        maxDepth, 1, true, 0, 0, false, 0);
    TVL::throwIfJobCancelled();
}

} // namespace VolumeGL::TileTree3D::detail

namespace VolumeGL::TileTree3D {

template <typename Traits>
bool createMeshDistanceField(
    TVL::TileTree3D::Container<Traits>& io_container,
    TVL::TileTree3D::VoxelTopology<Traits>& io_topology,
    TVL::TileTree3D::VoxelChannel<Traits, float>& io_distance,
    Quillon::Ptr<TVL::TileTree3D::VoxelChannel<Traits, TriangleId>>* io_closestTriangleChannel,
    Quillon::Array<Tavrel::Math::ulong3> const& triangles,
    Quillon::Array<Tavrel::Math::float3> const& positions, Quillon::Array<float> const* detailSizes,
    bool computeInterior, float holeRadius, float thickeningDistance, bool invert,
    int narrowBandHalfWidth, int signMode, int sweepAxis, bool adaptiveBuild, Adaptivity adaptivity,
    float maxRelativeError, Quillon::Array<ResolutionField> const* resolutionFields,
    int* out_minDepth, float* out_bboxMaxSideLength)
{
    using namespace detail;
    constexpr int kMax = Traits::kMaxDepth;
    if (triangles.empty())
        return true;

    MeshBuild<Traits> b(io_container, io_topology, io_distance, triangles, positions);
    b.voxelSize = io_container.voxelSize();
    b.holeRadius = holeRadius > 0.0f ? holeRadius : 0.0f;
    b.holeExtra = b.holeRadius - b.voxelSize > 0.0f ? b.holeRadius - b.voxelSize : 0.0f;
    b.thickeningDistance = thickeningDistance > 0.0f ? thickeningDistance : 0.0f;
    b.bandRadius = std::max(b.holeExtra, b.thickeningDistance);
    b.computeInterior = computeInterior;
    b.optimizations = enableVoxelizeMeshOptimizations();
    b.detailSizes = detailSizes;
    b.detailMode = adaptivity == AdaptivityDetailSizes && detailSizes != nullptr;

    Quillon::String const problem =
        checkMeshInput(b, detailSizes, resolutionFields, holeRadius, thickeningDistance);
    if (!problem.empty()) {
        if (CoreGL::Logger::errorVerboseLevel() > 0)
            std::cerr << "createMeshDistanceField.error: " << problem << "; nothing was built\n";
        return true;
    }

    b.errorTolerance = (adaptivity != AdaptivityMaxRelativeError || b.holeRadius > 0.0f)
                           ? 0.0f
                           : static_cast<float>(double(b.voxelSize) * maxRelativeError);
    io_container.setMaxRelativeRefinementError(
        b.errorTolerance > 0.0f ? b.errorTolerance / b.voxelSize : 0.0f);
    if (resolutionFields) {
        for (ResolutionField f : *resolutionFields) {
            f.level = kMax - f.level;
            b.fields.push_back(f);
            b.coarsestFieldDepth = std::min(b.coarsestFieldDepth, f.level);
        }
        std::stable_sort(
            b.fields.begin(), b.fields.end(),
            [](ResolutionField const& x, ResolutionField const& y) { return x.level > y.level; });
    }
    b.ctx.far = io_distance.defaultValue();
    b.ctx.far2 = b.ctx.far * b.ctx.far;
    b.ctx.voxelSize = b.voxelSize;
    b.ctx.voxelOffset = io_topology.offset();
    b.ctx.triangles = &triangles;
    b.ctx.positions = &positions;
    b.ctx.tileWidth = Traits::kTileWidth;
    b.bounds.resize(triangles.size());
    Par::parallel_for(Par::blocked_range<std::size_t>(0, triangles.size(), 4096),
                      [&](Par::blocked_range<std::size_t> const& r) {
                          for (std::size_t t = r.begin(); t != r.end(); ++t) {
                              ulong3 const& tri = triangles[t];
                              b.bounds[t] = detail::makeTriangleBounds(
                                  positions[tri.x], positions[tri.y], positions[tri.z]);
                          }
                      });
    b.ctx.bounds = b.bounds.data();

    b.countEdges = computeInterior && adaptiveBuild && !(b.holeRadius > 0.0f);

    if (adaptiveBuild)
        buildAdaptive(b, io_closestTriangleChannel, out_minDepth, out_bboxMaxSideLength);
    else
        buildSparse(b, io_closestTriangleChannel, narrowBandHalfWidth);
    if (computeInterior && !computeSigns(b, adaptiveBuild, signMode, sweepAxis))
        return false;

    if (b.thickeningDistance > 0.0f) {
        auto const timer = CoreGL::Logger::timer(MeshStageNames::name("thickening"), nullptr);
        offsetVoxels(b, b.thickeningDistance, adaptiveBuild ? 0 : kMax, kMax, false);
        if (CoreGL::Logger::verboseLevel() > 0)
            CoreGL::writeVoxelHashLine(
                meshDebugPrefix(), ".voxel_hash.after_thicken = ", io_container, io_distance, 0);
    }
    if (invert) {
        auto const timer = CoreGL::Logger::timer(MeshStageNames::name("invert"), nullptr);
        offsetVoxels(b, 0.0f, 0, kMax, true);
        float const flipped = -io_distance.defaultValue();
        io_distance.setDefaultValue(&flipped);
    }
    return true;
}

} // namespace VolumeGL::TileTree3D
