/// @file  voxelize/mesh/triangle_distance_kernel.cpp
/// @brief The lattice kernel, the sparse build's tile visit, the red-black sweep of triangle ids
///        and the voxelizer's switches.
#include <hexmold/voxelize/mesh/triangle_distance_kernel.h>

#include <algorithm>
#include <cmath>
#include <hexmold/platform/tavrel/spatial_query.h>
#include <hexmold/substrate/visitor.h>
#include <hexmold/voxelize/mesh/detail/lattice_kernel.h>
#include <limits>

namespace VolumeGL::TileTree3D {

using namespace TVL::TileTree3D;

// ---- switches ---------------------------------------------------------------------------------

namespace {
bool sTrianglePermutations = false;
unsigned long long sTrianglePermutationsSeed = 0;
bool sVoxelizeMeshOptimizations = true;
} // namespace

bool enableTrianglePermutations()
{
    return sTrianglePermutations;
}
void setEnableTrianglePermutations(bool enable)
{
    sTrianglePermutations = enable;
}
unsigned long long trianglePermutationsSeed()
{
    return sTrianglePermutationsSeed;
}
void setTrianglePermutationsSeed(unsigned long long seed)
{
    sTrianglePermutationsSeed = seed;
}
bool enableVoxelizeMeshOptimizations()
{
    return sVoxelizeMeshOptimizations;
}
bool setEnableVoxelizeMeshOptimizations(bool enable)
{
    bool const previous = sVoxelizeMeshOptimizations;
    sVoxelizeMeshOptimizations = enable;
    return previous;
}
bool enableVDBBenchmarkOptimizations()
{
    return false;
}

// ---- lattice kernel ---------------------------------------------------------------------------

template <typename Traits>
bool computeTileLattice(TriangleKernelContext const& ctx, std::int64_t i, std::int64_t j,
                        std::int64_t k, std::int64_t spacing, std::int64_t const* triangleBegin,
                        std::int64_t const* triangleEnd, float* out_distances,
                        std::int64_t* out_closest, float band, float const* parentDistances,
                        std::int64_t const* parentClosest, int3 childPosition, int3 rangeBegin,
                        int3 rangeEnd, bool clip, bool sweepFill, bool finalFill,
                        detail::PreparedTriangle const* const* prepared)
{
    return detail::computeTileLatticeRange<Traits>(
        ctx, i, j, k, spacing, triangleBegin, triangleEnd, out_distances, out_closest, band,
        parentDistances, parentClosest, childPosition, rangeBegin, rangeEnd, clip, sweepFill,
        finalFill, prepared);
}

template <typename Traits>
void visitTileTriangle(TriangleKernelContext const& ctx, int3 const& corner, std::int64_t triangle,
                       TileData<float, Traits::kTileWidth, 0, 0>& io_distance,
                       TileData<TriangleId, Traits::kTileWidth, 0, 0>& io_closest)
{
    constexpr int W = Traits::kTileWidth;
    ulong3 const& t = (*ctx.triangles)[static_cast<std::size_t>(triangle)];
    float3 const& a = (*ctx.positions)[t.x];
    float3 const& b = (*ctx.positions)[t.y];
    float3 const& c = (*ctx.positions)[t.z];
    double const inv = 1.0 / static_cast<double>(ctx.voxelSize);
    int lo[3], hi[3];
    for (int axis = 0; axis < 3; ++axis) {
        // The vertices in voxel coordinates, where voxel n of the tile has its sample at n.
        double const off = ctx.voxelOffset[axis];
        double const va = a[axis] * inv - off, vb = b[axis] * inv - off, vc = c[axis] * inv - off;
        double const corner0 = corner[axis];
        // The box of the vertices grown by a voxel: the voxels next to the triangle get their
        // exact distance here rather than through the sweep's neighbours.
        double l = std::floor(std::min({va, vb, vc})) - corner0 - 1.0;
        double h = std::ceil(std::max({va, vb, vc})) - corner0 + 2.0;
        l = std::clamp(l, 0.0, double(W));
        h = std::clamp(h, 0.0, double(W));
        lo[axis] = static_cast<int>(l);
        hi[axis] = static_cast<int>(h);
    }
    for (int z = lo[2]; z < hi[2]; ++z) {
        float const pz =
            detail::latticeCoordinate(corner.z, 1, z, ctx.voxelOffset.z, ctx.voxelSize);
        for (int y = lo[1]; y < hi[1]; ++y) {
            float const py =
                detail::latticeCoordinate(corner.y, 1, y, ctx.voxelOffset.y, ctx.voxelSize);
            for (int x = lo[0]; x < hi[0]; ++x) {
                float3 const p{
                    detail::latticeCoordinate(corner.x, 1, x, ctx.voxelOffset.x, ctx.voxelSize), py,
                    pz};
                float const d = Tavrel::SpatialQuery::pointTriangleDistance(p, a, b, c);
                if (d < io_distance(x, y, z)) {
                    io_distance(x, y, z) = d;
                    io_closest(x, y, z) = triangle;
                }
            }
        }
    }
}

// ---- red-black sweep --------------------------------------------------------------------------

namespace TrianglesLevelSetSweepKernel {

template <typename Traits>
Kernel<Traits>::Kernel(std::uint32_t color, Container<Traits> const& container,
                       VoxelChannel<Traits, float>& distance,
                       VoxelChannel<Traits, TriangleId>& closest,
                       Quillon::Array<ulong3> const& triangles,
                       Quillon::Array<float3> const& positions, float3 const& voxelOffset)
    : mColor(color), mHalo(HaloTile::kVoxelCount, std::int64_t(-1)), mContainer(&container),
      mDistance(&distance), mClosest(&closest), mTriangles(&triangles), mPositions(&positions),
      mVoxelOffset(voxelOffset), mAccessor(container.tileAccessor())
{
}

template <typename Traits>
Kernel<Traits>::Kernel(Kernel const& other)
    : Base(other), numUnassigned(other.numUnassigned), mColor(other.mColor), mHalo(other.mHalo),
      mContainer(other.mContainer), mDistance(other.mDistance), mClosest(other.mClosest),
      mTriangles(other.mTriangles), mPositions(other.mPositions), mVoxelOffset(other.mVoxelOffset),
      mAccessor(other.mAccessor)
{
}

template <typename Traits> Kernel<Traits>::~Kernel() = default;

template <typename Traits> void Kernel<Traits>::join(Base const& other)
{
    if (auto const* k = dynamic_cast<Kernel const*>(&other))
        numUnassigned += k->numUnassigned;
}

template <typename Traits> typename Kernel<Traits>::Base* Kernel<Traits>::copy() const
{
    auto* k = new Kernel(*this);
    k->numUnassigned = 0;
    return k;
}

template <typename Traits>
void Kernel<Traits>::updateHaloTile(TileType const& tile, TreeIndex const& treeIndex)
{
    mHalo.set(std::int64_t(-1));
    auto const ids = std::as_const(*mClosest).tileData(treeIndex);
    if (ids.empty())
        return;
    for (int z = 0; z < kW; ++z)
        for (int y = 0; y < kW; ++y)
            for (int x = 0; x < kW; ++x)
                mHalo(x, y, z) = ids(x, y, z);
    std::int64_t const w = tile.tileVoxelWidth();
    for (int axis = 0; axis < 3; ++axis)
        for (int side = -1; side <= 1; side += 2) {
            std::int64_t p[3] = {tile.ti(), tile.tj(), tile.tk()};
            p[axis] += side * w;
            TileType const& n = mAccessor.template tileImpl<0>(p[0], p[1], p[2], Traits::kMaxDepth);
            if (!n.valid() || n.depth() != Traits::kMaxDepth)
                continue;
            auto const nIds = std::as_const(*mClosest).tileData(n.treeIndex());
            if (nIds.empty())
                continue;
            // The neighbour's layer next to this tile, written one step outside the tile.
            int const from = side < 0 ? kW - 1 : 0;
            int const to = side < 0 ? -1 : kW;
            for (int b = 0; b < kW; ++b)
                for (int a = 0; a < kW; ++a) {
                    int s[3], d[3];
                    int const u = axis == 0 ? 1 : 0, v = axis == 2 ? 1 : 2;
                    s[axis] = from;
                    d[axis] = to;
                    s[u] = d[u] = a;
                    s[v] = d[v] = b;
                    mHalo(d[0], d[1], d[2]) = nIds(s[0], s[1], s[2]);
                }
        }
}

template <typename Traits>
void Kernel<Traits>::checkVoxel(int i, int j, int k, int di, int dj, int dk,
                                float3 const& worldPosition,
                                Quillon::Array<ulong3> const& triangles,
                                Quillon::Array<float3> const& positions,
                                TileData<float, kW, 0, 0>& distanceTile, HaloTile& idHalo)
{
    std::int64_t const t = idHalo(i + di, j + dj, k + dk);
    if (t < 0 || t == idHalo(i, j, k))
        return;
    ulong3 const& tri = triangles[static_cast<std::size_t>(t)];
    float3 const& a = positions[tri.x];
    float3 const& b = positions[tri.y];
    float3 const& c = positions[tri.z];
    // The triangle's box is no farther than the triangle: when the box is already at least as
    // far as the voxel's distance, the exact distance cannot be strictly smaller. The margin
    // covers the float rounding of the box distance.
    float const current = distanceTile(i, j, k);
    float const bx = detail::intervalDistance2(worldPosition.x, std::min({a.x, b.x, c.x}),
                                               std::max({a.x, b.x, c.x}));
    float const by = detail::intervalDistance2(worldPosition.y, std::min({a.y, b.y, c.y}),
                                               std::max({a.y, b.y, c.y}));
    float const bz = detail::intervalDistance2(worldPosition.z, std::min({a.z, b.z, c.z}),
                                               std::max({a.z, b.z, c.z}));
    if (detail::kBoxTestTolerance * (bx + by + bz) >= current * current)
        return;
    float const d = Tavrel::SpatialQuery::pointTriangleDistance(worldPosition, a, b, c);
    if (d < current) {
        distanceTile(i, j, k) = d;
        idHalo(i, j, k) = t;
    }
}

template <typename Traits> void Kernel<Traits>::beginTile(TileType const& tile)
{
    std::int64_t const w = tile.tileVoxelWidth();
    std::int64_t const a = Traits::kCentreOffset;
    std::uint32_t const parity = static_cast<std::uint32_t>(
        ((tile.ti() + a) / w + (tile.tj() + a) / w + (tile.tk() + a) / w) % 2);
    if (parity != mColor)
        return;
    TreeIndex const ti = tile.treeIndex();
    auto distanceTile = mDistance->tileData(ti);
    auto ids = mClosest->tileData(ti);
    if (distanceTile.empty() || ids.empty())
        return;
    updateHaloTile(tile, ti);

    float const h = mContainer->voxelSize();
    float px[kW], py[kW], pz[kW];
    for (int n = 0; n < kW; ++n) {
        px[n] = detail::latticeCoordinate(tile.ti(), 1, n, mVoxelOffset.x, h);
        py[n] = detail::latticeCoordinate(tile.tj(), 1, n, mVoxelOffset.y, h);
        pz[n] = detail::latticeCoordinate(tile.tk(), 1, n, mVoxelOffset.z, h);
    }
    // The eight directions (i, j, k): (+,+,+), (-,-,-), (+,+,-), (-,-,+), (+,-,-), (-,+,+),
    // (+,-,+), (-,+,-).
    static constexpr int kDirections[8][3] = {{1, 1, 1},   {-1, -1, -1}, {1, 1, -1}, {-1, -1, 1},
                                              {1, -1, -1}, {-1, 1, 1},   {1, -1, 1}, {-1, 1, -1}};
    for (auto const& dir : kDirections) {
        int const si = dir[0], sj = dir[1], sk = dir[2];
        for (int kk = 0; kk < kW; ++kk) {
            int const z = sk > 0 ? kk : kW - 1 - kk;
            for (int jj = 0; jj < kW; ++jj) {
                int const y = sj > 0 ? jj : kW - 1 - jj;
                for (int ii = 0; ii < kW; ++ii) {
                    int const x = si > 0 ? ii : kW - 1 - ii;
                    float3 const p{px[x], py[y], pz[z]};
                    // Upstream neighbours: z first, then x, then y.
                    checkVoxel(x, y, z, 0, 0, -sk, p, *mTriangles, *mPositions, distanceTile,
                               mHalo);
                    checkVoxel(x, y, z, -si, 0, 0, p, *mTriangles, *mPositions, distanceTile,
                               mHalo);
                    checkVoxel(x, y, z, 0, -sj, 0, p, *mTriangles, *mPositions, distanceTile,
                               mHalo);
                }
            }
        }
    }
    for (int z = 0; z < kW; ++z)
        for (int y = 0; y < kW; ++y)
            for (int x = 0; x < kW; ++x) {
                std::int64_t const id = mHalo(x, y, z);
                ids(x, y, z) = id;
                if (id < 0)
                    ++numUnassigned;
            }
}

template class Kernel<Traits24>;
template class Kernel<Traits55>;

} // namespace TrianglesLevelSetSweepKernel

template decltype(computeTileLattice<Traits24>) computeTileLattice<Traits24>;
template decltype(computeTileLattice<Traits55>) computeTileLattice<Traits55>;
template decltype(visitTileTriangle<Traits24>) visitTileTriangle<Traits24>;
template decltype(visitTileTriangle<Traits55>) visitTileTriangle<Traits55>;

} // namespace VolumeGL::TileTree3D
