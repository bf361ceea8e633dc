/// @file  voxelize/mesh/edge_intersections.cpp
/// @brief Fixed-point snapping of a mesh and the exact crossing test of grid edges.
#include <hexmold/voxelize/mesh/edge_intersections.h>

#include <algorithm>
#include <cmath>
#include <hexmold/substrate/cancel.h>
#include <hexmold/substrate/parallel.h>
#include <limits>

namespace VolumeGL::TileTree3D {

using namespace TVL::TileTree3D;
using Tavrel::Math::float3;
using Tavrel::Math::int3;
using Tavrel::Math::ulong3;

namespace {

std::int64_t snap(double t)
{
    double const v = std::floor(t * double(kFixedPointScale) + 0.5);
    if (!(v > -double(kFixedPointLimit)))
        return -kFixedPointLimit; // NaN too
    if (v > double(kFixedPointLimit))
        return kFixedPointLimit;
    return static_cast<std::int64_t>(v);
}

int signOf(std::int64_t v)
{
    return (v > 0) - (v < 0);
}
int signOf(__int128 v)
{
    return (v > 0) - (v < 0);
}

/// The three determinants of the line test, in 64-bit (fast path) or 128-bit arithmetic. w_i is
/// twice the signed area of the point and the edge opposite vertex i.
template <typename Wide, typename Narrow>
void determinants(Narrow b0, Narrow c0, Narrow b1, Narrow c1, Narrow b2, Narrow c2, Narrow pb,
                  Narrow pc, Wide w[3])
{
    w[0] = Wide(b1 - pb) * Wide(c2 - pc) + Wide(pb - b2) * Wide(c1 - pc);
    w[1] = Wide(pb - b0) * Wide(c2 - pc) + Wide(b2 - pb) * Wide(c0 - pc);
    w[2] = Wide(b0 - pb) * Wide(c1 - pc) + Wide(pb - b1) * Wide(c0 - pc);
}

/// The exact crossing of the line along a through (pb, pc) with a triangle: the sign (+1 front,
/// -1 back, 0 none) and the hit along a as a0 + num / den with den > 0, the vertices' barycentric
/// blend.
struct Crossing {
    int sign = 0;
    __int128 num = 0, den = 1;
};

Crossing crossLine(int a, std::int64_t pb, std::int64_t pc, std::array<std::int64_t, 3> const& v0,
                   std::array<std::int64_t, 3> const& v1, std::array<std::int64_t, 3> const& v2)
{
    int const b = (a + 1) % 3, c = (a + 2) % 3;
    std::array<std::int64_t, 3> const* v[3] = {&v0, &v1, &v2};
    int s[3];
    __int128 w[3];
    bool const small = std::abs(v1[b] - v0[b]) < 0x100000 && std::abs(v1[c] - v0[c]) < 0x100000 &&
                       std::abs(v2[b] - v0[b]) < 0x100000 && std::abs(v2[c] - v0[c]) < 0x100000 &&
                       std::abs(pb - v0[b]) < 0x100000 && std::abs(pc - v0[c]) < 0x100000;
    if (small) {
        // Relative to the first vertex every difference fits 32 bits, every product 64.
        std::int32_t const b1 = std::int32_t(v1[b] - v0[b]), c1 = std::int32_t(v1[c] - v0[c]);
        std::int32_t const b2 = std::int32_t(v2[b] - v0[b]), c2 = std::int32_t(v2[c] - v0[c]);
        std::int32_t const qb = std::int32_t(pb - v0[b]), qc = std::int32_t(pc - v0[c]);
        std::int64_t w64[3];
        determinants<std::int64_t, std::int32_t>(0, 0, b1, c1, b2, c2, qb, qc, w64);
        for (int i = 0; i < 3; ++i)
            s[i] = signOf(w64[i]), w[i] = w64[i];
    } else {
        determinants<__int128, std::int64_t>(v0[b], v0[c], v1[b], v1[c], v2[b], v2[c], pb, pc, w);
        for (int i = 0; i < 3; ++i)
            s[i] = signOf(w[i]);
    }
    // Simulation of simplicity. Every sample is taken as moved by (e, e^2, e^3) along (x, y, z),
    // e infinitely small, the same for every line, so that the moved grid meets the mesh in
    // general position and parities agree between lines of different axes. A zero determinant
    // then takes the sign of its derivative along the move: the opposite edge's vector along the
    // later of the axes b and c first (negated when that axis is c), then along the earlier.
    int const later = std::max(b, c), earlier = std::min(b, c);
    for (int i = 0; i < 3; ++i) {
        if (s[i] != 0)
            continue;
        std::array<std::int64_t, 3> const& from = *v[(i + 1) % 3];
        std::array<std::int64_t, 3> const& to = *v[(i + 2) % 3];
        s[i] = signOf(to[later] - from[later]) * (later == c ? -1 : 1);
        if (s[i] == 0)
            s[i] = signOf(to[earlier] - from[earlier]) * (earlier == c ? -1 : 1);
    }
    Crossing out;
    if (!(s[0] == s[1] && s[1] == s[2]) || s[0] == 0)
        return out;
    out.sign = s[0];
    // A back hit negates the determinants, so that the weights are not negative.
    if (out.sign < 0)
        for (__int128& x : w)
            x = -x;
    __int128 const den = w[0] + w[1] + w[2];
    if (den > 0) {
        out.num = w[1] * __int128(v1[a] - v0[a]) + w[2] * __int128(v2[a] - v0[a]);
        out.den = den;
    } // else a degenerate triangle seen edge on: its first point
    return out;
}

/// floor(x / y) for y > 0.
__int128 floorDiv128(__int128 x, __int128 y)
{
    __int128 q = x / y;
    if ((x % y != 0) && (x < 0))
        --q;
    return q;
}

/// Whether a hit that falls exactly on a sample lies before the moved sample (see the
/// simulation of simplicity in `crossLine`): the sample moves by e^(1 + axis) along each axis, the
/// hit by -(n_b d_b + n_c d_c) / n_a as the line moves, n the triangle's normal.
bool hitBeforeSample(int a, std::array<std::int64_t, 3> const& v0,
                     std::array<std::int64_t, 3> const& v1, std::array<std::int64_t, 3> const& v2)
{
    __int128 e1[3], e2[3], n[3];
    for (int k = 0; k < 3; ++k)
        e1[k] = v1[k] - v0[k], e2[k] = v2[k] - v0[k];
    n[0] = e1[1] * e2[2] - e1[2] * e2[1];
    n[1] = e1[2] * e2[0] - e1[0] * e2[2];
    n[2] = e1[0] * e2[1] - e1[1] * e2[0];
    int const sa = signOf(n[a]);
    // hit - sample = sum over axes m in order x, y, z of e^(1+m) times: -1 for m = a, and
    // -n_m / n_a otherwise; the first non-zero term decides.
    for (int m = 0; m < 3; ++m) {
        int const t = m == a ? -1 : -signOf(n[m]) * sa;
        if (t != 0)
            return t < 0;
    }
    return true;
}

/// The voxel along the line that holds the hit: floor((a0 + num / den - origin) / width), exact
/// while the products fit 127 bits (always, but for triangles spanning most of the clamp range,
/// which fall back to long double). A hit exactly on a sample goes to the edge before or after
/// it as the simulation of simplicity says.
std::int64_t hitVoxel(Crossing const& x, int a, std::array<std::int64_t, 3> const& v0,
                      std::array<std::int64_t, 3> const& v1, std::array<std::int64_t, 3> const& v2,
                      std::int64_t origin, std::int64_t width)
{
    __int128 const limit = __int128(1) << 83;
    if (x.den < limit) {
        __int128 const num = __int128(v0[a] - origin) * x.den + x.num;
        __int128 const span = __int128(width) * x.den;
        __int128 q = floorDiv128(num, span);
        if (num - q * span == 0 && hitBeforeSample(a, v0, v1, v2))
            --q;
        if (q < -(__int128(1) << 62))
            return std::numeric_limits<std::int64_t>::min() / 2;
        if (q > (__int128(1) << 62))
            return std::numeric_limits<std::int64_t>::max() / 2;
        return std::int64_t(q);
    }
    long double const t = (static_cast<long double>(v0[a] - origin) +
                           static_cast<long double>(x.num) / static_cast<long double>(x.den)) /
                          static_cast<long double>(width);
    return static_cast<std::int64_t>(std::floor(std::clamp(t, -1e18L, 1e18L)));
}

} // namespace

int lineCrossesTriangle(int a, std::int64_t pb, std::int64_t pc,
                        std::array<std::int64_t, 3> const& v0,
                        std::array<std::int64_t, 3> const& v1,
                        std::array<std::int64_t, 3> const& v2, double& out_hit)
{
    Crossing const x = crossLine(a, pb, pc, v0, v1, v2);
    if (x.sign == 0)
        return 0;
    out_hit = double(v0[a]) + static_cast<double>(static_cast<long double>(x.num) /
                                                  static_cast<long double>(x.den));
    return x.sign;
}

template <typename Traits>
FixedPointCoords makeFixedPointCoords(Container<Traits> const& container,
                                      Quillon::Array<float3> const& positions,
                                      float3 const& voxelOffset)
{
    FixedPointCoords out;
    out.points.resize(positions.size());
    TVL::Parallel::parallel_for(
        TVL::Parallel::blocked_range<std::size_t>(0, positions.size(), 4096),
        [&](TVL::Parallel::blocked_range<std::size_t> const& r) {
            if (TVL::bodyCancelled())
                return;
            for (std::size_t p = r.begin(); p != r.end(); ++p) {
                auto const& x = positions[p];
                Tavrel::Math::double3 const t =
                    container.toTileSpace(Tavrel::Math::double3{x.x, x.y, x.z});
                out.points[p] = {snap(t.x), snap(t.y), snap(t.z)};
            }
        });
    TVL::throwIfJobCancelled();
    out.widths.resize(Traits::kDepthCount);
    for (int d = 0; d < Traits::kDepthCount; ++d)
        out.widths[d] = snap(double(Container<Traits>::voxelDataWidth(d)));
    for (int ax = 0; ax < 3; ++ax)
        out.sampleOffset[ax] = snap(double(voxelOffset[ax]));
    return out;
}

namespace {

/// Calls @p f(i, j, k, a, sign) for every crossing of the triangle with the grid edges along
/// the axes a in @p axes (bit a set) of the tile with corner @p corner at @p depth.
template <int W, typename F>
int forEachCrossing(ulong3 const& triangle, FixedPointCoords const& coords, int3 const& corner,
                    int depth, std::int64_t centreOffset, int axes, F&& f)
{
    std::array<std::int64_t, 3> const& v0 = coords.points[triangle.x];
    std::array<std::int64_t, 3> const& v1 = coords.points[triangle.y];
    std::array<std::int64_t, 3> const& v2 = coords.points[triangle.z];
    std::int64_t const width = coords.widths[static_cast<std::size_t>(depth)];
    // The fixed-point position of the tile's first sample, and the triangle's box in voxels
    // relative to it.
    std::int64_t origin[3], mn[3], mx[3];
    // Most triangles of a tile's list miss its samples' box: integer comparisons first.
    std::int64_t const span = std::int64_t(W) * width;
    for (int ax = 0; ax < 3; ++ax) {
        origin[ax] =
            (std::int64_t(corner[ax]) + centreOffset) * kFixedPointScale + coords.sampleOffset[ax];
        mn[ax] = std::min({v0[ax], v1[ax], v2[ax]}) - origin[ax];
        mx[ax] = std::max({v0[ax], v1[ax], v2[ax]}) - origin[ax];
        if (mx[ax] < 0 || mn[ax] > span)
            return 0;
    }
    int lo[3], hi[3];
    for (int ax = 0; ax < 3; ++ax) {
        // Lines at samples n with n * width in [mn, mx]: n from ceil(mn / width) to floor(mx /
        // width).
        std::int64_t const l = mn[ax] <= 0 ? 0 : (mn[ax] + width - 1) / width;
        std::int64_t const h = mx[ax] / width;
        lo[ax] = static_cast<int>(std::min<std::int64_t>(l, W));
        hi[ax] = static_cast<int>(std::min<std::int64_t>(h, W));
    }
    int count = 0;
    for (int a = 0; a < 3; ++a) {
        if (!(axes & (1 << a)))
            continue;
        int const b = (a + 1) % 3, c = (a + 2) % 3;
        int const jbEnd = std::min(hi[b], W - 1), jcEnd = std::min(hi[c], W - 1);
        // Most lines miss the triangle. Where every difference to the first vertex fits 20 bits
        // (as in `crossLine`'s fast path), the determinants relative to that vertex expand to
        // affine functions of the line's position q (the products qb qc cancel):
        // w1 = qb c2 - b2 qc, w2 = b1 qc - qb c1, w0 = b1 c2 - b2 c1 + qb (c1 - c2) + qc (b2 - b1),
        // the same integers. A line whose signs differ, none zero, misses, as `crossLine` says.
        constexpr std::int64_t kSmall = 0x100000;
        std::int64_t const b1 = v1[b] - v0[b], c1 = v1[c] - v0[c];
        std::int64_t const b2 = v2[b] - v0[b], c2 = v2[c] - v0[c];
        std::int64_t const qbLo = origin[b] + lo[b] * width - v0[b];
        std::int64_t const qbHi = origin[b] + jbEnd * width - v0[b];
        std::int64_t const qcLo = origin[c] + lo[c] * width - v0[c];
        std::int64_t const qcHi = origin[c] + jcEnd * width - v0[c];
        bool const small = std::abs(b1) < kSmall && std::abs(c1) < kSmall &&
                           std::abs(b2) < kSmall && std::abs(c2) < kSmall &&
                           std::abs(qbLo) < kSmall && std::abs(qbHi) < kSmall &&
                           std::abs(qcLo) < kSmall && std::abs(qcHi) < kSmall;
        std::int64_t const k0 = b1 * c2 - b2 * c1;
        // Lines through samples 0..W-1 of the tile on the two other axes.
        for (int jc = lo[c]; jc <= jcEnd; ++jc)
            for (int jb = lo[b]; jb <= jbEnd; ++jb) {
                std::int64_t const pb = origin[b] + jb * width;
                std::int64_t const pc = origin[c] + jc * width;
                if (small) {
                    std::int64_t const qb = pb - v0[b], qc = pc - v0[c];
                    std::int64_t const w1 = qb * c2 - b2 * qc;
                    std::int64_t const w2 = b1 * qc - qb * c1;
                    std::int64_t const w0 = k0 + qb * (c1 - c2) + qc * (b2 - b1);
                    bool const pos = w0 > 0 && w1 > 0 && w2 > 0;
                    bool const neg = w0 < 0 && w1 < 0 && w2 < 0;
                    bool const zero = w0 == 0 || w1 == 0 || w2 == 0;
                    if (!pos && !neg && !zero)
                        continue;
                }
                Crossing const x = crossLine(a, pb, pc, v0, v1, v2);
                if (x.sign == 0)
                    continue;
                // Exact: a hit on a sample belongs to the edge that starts there, at every depth.
                std::int64_t const along = hitVoxel(x, a, v0, v1, v2, origin[a], width);
                if (along < 0 || along > W - 1)
                    continue;
                int idx[3];
                idx[a] = static_cast<int>(along);
                idx[b] = jb;
                idx[c] = jc;
                f(idx[0], idx[1], idx[2], a, x.sign);
                ++count;
            }
    }
    return count;
}

} // namespace

template <typename Traits>
int countEdgeIntersections(ulong3 const& triangle, FixedPointCoords const& coords,
                           int3 const& corner, int depth,
                           TileData<int3, Traits::kTileWidth, 0, 0>& io_counts)
{
    return forEachCrossing<Traits::kTileWidth>(
        triangle, coords, corner, depth, Traits::kCentreOffset, 7,
        [&](int i, int j, int k, int a, int) { io_counts(i, j, k)[a] += 1; });
}

template <typename Traits>
int countAxisCrossings(ulong3 const& triangle, FixedPointCoords const& coords, int3 const& corner,
                       int depth, int axis, int signMode,
                       TileData<int, Traits::kTileWidth, 0, 0>& io_counts)
{
    return forEachCrossing<Traits::kTileWidth>(
        triangle, coords, corner, depth, Traits::kCentreOffset, 1 << axis,
        [&](int i, int j, int k, int, int sign) {
            io_counts(i, j, k) += signMode == 0 ? 1 : signMode > 0 ? sign : -sign;
        });
}

template decltype(makeFixedPointCoords<Traits24>) makeFixedPointCoords<Traits24>;
template decltype(makeFixedPointCoords<Traits55>) makeFixedPointCoords<Traits55>;
template decltype(countEdgeIntersections<Traits24>) countEdgeIntersections<Traits24>;
template decltype(countEdgeIntersections<Traits55>) countEdgeIntersections<Traits55>;
template decltype(countAxisCrossings<Traits24>) countAxisCrossings<Traits24>;
template decltype(countAxisCrossings<Traits55>) countAxisCrossings<Traits55>;

} // namespace VolumeGL::TileTree3D
