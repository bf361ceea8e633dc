/// @file  voxelize/mesh/edge_intersections.cpp
/// @brief Fixed-point snapping of a mesh and the exact crossing test of grid edges.
#include <hexmold/voxelize/mesh/edge_intersections.h>

#include <algorithm>
#include <cmath>
#include <hexmold/substrate/cancel.h>
#include <hexmold/substrate/parallel.h>

namespace VolumeGL::TileTree3D {

using namespace TVL::TileTree3D;
using Tavrel::Math::float3;
using Tavrel::Math::int3;
using Tavrel::Math::ulong3;

namespace {

std::int64_t snap(double t)
{
    double const v = std::floor(t * double(kFixedPointScale) + 0.5);
    if (!(v > -double(kFixedPointLimit))) return -kFixedPointLimit; // NaN too
    if (v > double(kFixedPointLimit)) return kFixedPointLimit;
    return static_cast<std::int64_t>(v);
}

int signOf(std::int64_t v) { return (v > 0) - (v < 0); }
int signOf(__int128 v) { return (v > 0) - (v < 0); }

/// The three determinants of the line test, in 64-bit (fast path) or 128-bit arithmetic. w_i is
/// twice the signed area of the point and the edge opposite vertex i.
template <typename Wide, typename Narrow>
void determinants(Narrow b0, Narrow c0, Narrow b1, Narrow c1, Narrow b2, Narrow c2, Narrow pb, Narrow pc, Wide w[3])
{
    w[0] = Wide(b1 - pb) * Wide(c2 - pc) + Wide(pb - b2) * Wide(c1 - pc);
    w[1] = Wide(pb - b0) * Wide(c2 - pc) + Wide(b2 - pb) * Wide(c0 - pc);
    w[2] = Wide(b0 - pb) * Wide(c1 - pc) + Wide(pb - b1) * Wide(c0 - pc);
}

} // namespace

int lineCrossesTriangle(int a, std::int64_t pb, std::int64_t pc, std::array<std::int64_t, 3> const& v0,
                        std::array<std::int64_t, 3> const& v1, std::array<std::int64_t, 3> const& v2, double& out_hit)
{
    int const b = (a + 1) % 3, c = (a + 2) % 3;
    std::array<std::int64_t, 3> const* v[3] = {&v0, &v1, &v2};
    // Signs of the determinants; exact values kept in double only for the hit position.
    int s[3];
    double wd[3];
    bool const small = std::abs(v1[b] - v0[b]) < 0x100000 && std::abs(v1[c] - v0[c]) < 0x100000 &&
                       std::abs(v2[b] - v0[b]) < 0x100000 && std::abs(v2[c] - v0[c]) < 0x100000 &&
                       std::abs(pb - v0[b]) < 0x100000 && std::abs(pc - v0[c]) < 0x100000;
    if (small) {
        // Relative to the first vertex every difference fits 32 bits, every product 64.
        std::int32_t const b1 = std::int32_t(v1[b] - v0[b]), c1 = std::int32_t(v1[c] - v0[c]);
        std::int32_t const b2 = std::int32_t(v2[b] - v0[b]), c2 = std::int32_t(v2[c] - v0[c]);
        std::int32_t const qb = std::int32_t(pb - v0[b]), qc = std::int32_t(pc - v0[c]);
        std::int64_t w[3];
        determinants<std::int64_t, std::int32_t>(0, 0, b1, c1, b2, c2, qb, qc, w);
        for (int i = 0; i < 3; ++i) s[i] = signOf(w[i]), wd[i] = double(w[i]);
    } else {
        __int128 w[3];
        determinants<__int128, std::int64_t>(v0[b], v0[c], v1[b], v1[c], v2[b], v2[c], pb, pc, w);
        for (int i = 0; i < 3; ++i) s[i] = signOf(w[i]), wd[i] = double(w[i]);
    }
    // Simulation of simplicity: a zero determinant takes the sign of the opposite edge's vector,
    // compared along the later of the axes b and c first, then the earlier.
    int const later = std::max(b, c), earlier = std::min(b, c);
    for (int i = 0; i < 3; ++i) {
        if (s[i] != 0) continue;
        std::array<std::int64_t, 3> const& from = *v[(i + 1) % 3];
        std::array<std::int64_t, 3> const& to = *v[(i + 2) % 3];
        s[i] = signOf(to[later] - from[later]);
        if (s[i] == 0) s[i] = signOf(to[earlier] - from[earlier]);
    }
    if (!(s[0] == s[1] && s[1] == s[2]) || s[0] == 0) return 0;
    double const sum = wd[0] + wd[1] + wd[2];
    if (sum != 0.0)
        out_hit = (wd[0] * double(v0[a]) + wd[1] * double(v1[a]) + wd[2] * double(v2[a])) / sum;
    else // a degenerate triangle seen edge on: any of its points
        out_hit = double(v0[a]);
    return s[0];
}

template <typename Traits>
FixedPointCoords makeFixedPointCoords(Container<Traits> const& container, Quillon::Array<float3> const& positions,
                                      float3 const& voxelOffset)
{
    FixedPointCoords out;
    out.points.resize(positions.size());
    TVL::Parallel::parallel_for(TVL::Parallel::blocked_range<std::size_t>(0, positions.size(), 4096),
                                [&](TVL::Parallel::blocked_range<std::size_t> const& r) {
                                    if (TVL::bodyCancelled()) return;
                                    for (std::size_t p = r.begin(); p != r.end(); ++p) {
                                        auto const& x = positions[p];
                                        Tavrel::Math::double3 const t =
                                            container.toTileSpace(Tavrel::Math::double3{x.x, x.y, x.z});
                                        out.points[p] = {snap(t.x), snap(t.y), snap(t.z)};
                                    }
                                });
    TVL::throwIfJobCancelled();
    out.widths.resize(Traits::kDepthCount);
    for (int d = 0; d < Traits::kDepthCount; ++d) out.widths[d] = snap(double(Container<Traits>::voxelDataWidth(d)));
    for (int ax = 0; ax < 3; ++ax) out.sampleOffset[ax] = snap(double(voxelOffset[ax]));
    return out;
}

template <typename Traits>
int countEdgeIntersections(ulong3 const& triangle, FixedPointCoords const& coords, int3 const& corner, int depth,
                           TileData<int3, Traits::kTileWidth, 0, 0>& io_counts)
{
    constexpr int W = Traits::kTileWidth;
    std::array<std::int64_t, 3> const& v0 = coords.points[triangle.x];
    std::array<std::int64_t, 3> const& v1 = coords.points[triangle.y];
    std::array<std::int64_t, 3> const& v2 = coords.points[triangle.z];
    std::int64_t const width = coords.widths[static_cast<std::size_t>(depth)];
    // The fixed-point position of the tile's first sample, and the triangle's box in voxels
    // relative to it.
    std::int64_t origin[3];
    int lo[3], hi[3];
    for (int ax = 0; ax < 3; ++ax) {
        origin[ax] = (std::int64_t(corner[ax]) + Traits::kCentreOffset) * kFixedPointScale + coords.sampleOffset[ax];
        std::int64_t const mn = std::min({v0[ax], v1[ax], v2[ax]}) - origin[ax];
        std::int64_t const mx = std::max({v0[ax], v1[ax], v2[ax]}) - origin[ax];
        double const l = std::floor(double(mn) / double(width));
        double const h = std::ceil(double(mx) / double(width));
        if (h < 0.0 || l > double(W)) return 0;
        lo[ax] = static_cast<int>(std::clamp(l, 0.0, double(W)));
        hi[ax] = static_cast<int>(std::clamp(h, 0.0, double(W)));
    }
    int count = 0;
    for (int a = 0; a < 3; ++a) {
        int const b = (a + 1) % 3, c = (a + 2) % 3;
        // Lines through samples 0..W-1 of the tile on the two other axes.
        for (int jc = lo[c]; jc <= std::min(hi[c], W - 1); ++jc)
            for (int jb = lo[b]; jb <= std::min(hi[b], W - 1); ++jb) {
                std::int64_t const pb = origin[b] + jb * width;
                std::int64_t const pc = origin[c] + jc * width;
                double hit = 0.0;
                if (lineCrossesTriangle(a, pb, pc, v0, v1, v2, hit) == 0) continue;
                double const along = std::floor((hit - double(origin[a])) / double(width));
                if (along < 0.0 || along > double(W - 1)) continue;
                int idx[3];
                idx[a] = static_cast<int>(along);
                idx[b] = jb;
                idx[c] = jc;
                io_counts(idx[0], idx[1], idx[2])[a] += 1;
                ++count;
            }
    }
    return count;
}

template decltype(makeFixedPointCoords<Traits24>) makeFixedPointCoords<Traits24>;
template decltype(makeFixedPointCoords<Traits55>) makeFixedPointCoords<Traits55>;
template decltype(countEdgeIntersections<Traits24>) countEdgeIntersections<Traits24>;
template decltype(countEdgeIntersections<Traits55>) countEdgeIntersections<Traits55>;

} // namespace VolumeGL::TileTree3D
