/// @file  levelset/detail/redistance_impl.h
/// @brief What the redistancing sources share: the tile sweep, the surface distance by Newton
///        steps, the per-depth constants, the parallel loop over the tiles of a depth, and the
///        stages that one source runs and another calls.
/// @details Header-only where it has to inline into voxel loops (the sweep, the neighbour
///          functions); the stages are declared here and defined and instantiated in the
///          folder's `.cpp` files.
#pragma once
#include <algorithm>
#include <array>
#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <hexmold/levelset/detail/eikonal_inline.h>
#include <hexmold/levelset/level_set_redistance.h>
#include <hexmold/levelset/redistance_tiles.h>
#include <hexmold/platform/tavrel/math.h>
#include <hexmold/substrate/cancel.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/parallel_ranges.h>
#include <hexmold/substrate/tile_data.h>
#include <hexmold/substrate/traits.h>
#include <hexmold/substrate/tree_index.h>
#include <type_traits>
#include <vector>

namespace VolumeGL::TileTree3D::LevelSet::detail {

using namespace TVL::TileTree3D;
using Tavrel::Math::double3;

/// Float epsilon, the tolerance of every "equals" on values in the solves.
inline constexpr float kEpsilon = 1.1920929e-7f;
/// Smallest normal float: the floor of a surface distance, so that it keeps its side.
inline constexpr float kTinyDistance = 1.1754944e-38f;

/// Voxels of a tile of the tree: 64 or 125.
template <typename Traits>
inline constexpr int kVoxelsPerTile = Traits::kTileWidth* Traits::kTileWidth* Traits::kTileWidth;

/// The tile-neighbour direction across the face of @p axis (0, 1 or 2) on @p side (-1 or +1).
constexpr int faceDirection(int axis, int side)
{
    return neighborDirection(axis == 0 ? side : 0, axis == 1 ? side : 0, axis == 2 ? side : 0);
}

/// Constants of one depth: spacing, the squared spacings of the inlined eikonal update, and the
/// convergence tolerance (all world units).
struct DepthNumbers {
    float h;
    float h2;
    float h3;
    float tol;
};

template <typename Traits> DepthNumbers depthNumbers(float voxelSize, int depth, float tolerance)
{
    float const h = float(Container<Traits>::voxelDataWidth(depth)) * voxelSize;
    return {h, CoreGL::detail::eikonalTwoHSquared(h), CoreGL::detail::eikonalThreeHSquared(h),
            h * tolerance};
}

/// The substrate's cancellable loops under the names the redistancing code uses.
template <typename Body>
void parallelRanges(std::int64_t count, Body const& body, std::size_t grain = 1)
{
    TVL::Parallel::cancellableRanges(count, body, grain);
}
template <typename Body>
float parallelMaximum(std::int64_t count, Body const& body, std::size_t grain = 1)
{
    return TVL::Parallel::cancellableMaximum(count, body, grain);
}

/// The neighbour function of an unmasked sweep: the neighbour's value as it is.
struct PlainNeighbour {
    float operator()(float neighbour, std::size_t, float) const { return neighbour; }
};

/// The neighbour function of a masked sweep: an excluded neighbour takes the voxel's own value,
/// so that it has no effect on the update. @p types is the value-type block with halo, indexed
/// like the distance block.
struct MaskedNeighbour {
    unsigned char const* types;
    float operator()(float neighbour, std::size_t index, float own) const
    {
        return types[index] == kValueTypeExcluded ? own : neighbour;
    }
};

/// One eikonal update of value @p v from the three chosen neighbours, solved on the positive side.
/// @details The update of the eikonal solve is never below the smallest neighbour plus h / sqrt(3)
///          (three equal neighbours), and it only ever lowers |v|. So when the smallest neighbour
///          plus 0.57 h already reaches |v| the result is |v| with v's side, and the solve is left
///          out. The margin to h / sqrt(3) covers the rounding of the solve as long as the values
///          are below 2^16 spacings, beyond which the solve always runs.
inline float eikonalUpdate(DepthNumbers const& n, float a, float b, float c, float v)
{
    bool const inside = v < 0.0f;
    if (inside)
        a = -a, b = -b, c = -c;
    float const bound = std::fabs(v);
    float const s0 = std::min(a, std::min(b, c));
    if (s0 + CoreGL::detail::kEikonalRejectMargin * n.h >= bound &&
        s0 < CoreGL::detail::kEikonalRejectLimit * n.h)
        return inside ? -bound : bound;
    float const r = CoreGL::detail::solveEikonalInline(n.h, n.h2, n.h3, a, b, c, v);
    return inside ? -r : r;
}

/// Sweep modes of `sweepTile`.
enum SweepMode : int {
    kSweepEightDirections = 0, ///< eight directions, each covering the tile once
    kSweepRedBlack = 1,        ///< red-black relaxation of single voxels
};

/// @brief The band check of the tile sweep: whether the block @p u (with a one-element halo)
///        lies beyond the bands, so that its sweep is left out.
/// @details The scan compares the index where it stops with the voxel count of a tile
///          (@p voxelsPerTile), not with the block size: a quirk that decides which tiles are
///          skipped, and that is kept. The edge and corner elements of the halo are overwritten;
///          the sweeps read faces only.
template <int W>
bool beyondBands(float interiorBand, float exteriorBand, TileData<float, W, 1, 0>& u,
                 int voxelsPerTile)
{
    float const* const data = u.data();
    std::size_t const size = u.size();
    if (std::fabs(exteriorBand - FLT_MAX) > kEpsilon) {
        u.setHaloEdges(FLT_MAX);
        std::size_t n = 0;
        while (n < size && !(data[n] < exteriorBand))
            ++n;
        if (n == std::size_t(voxelsPerTile))
            return true;
    }
    if (std::fabs(interiorBand - FLT_MAX) > kEpsilon) {
        u.setHaloEdges(-FLT_MAX);
        std::size_t n = 0;
        while (n < size && !(data[n] > -interiorBand))
            ++n;
        if (n == std::size_t(voxelsPerTile))
            return true;
    }
    return false;
}

/// @brief Sweeps one tile block held with a one-element halo.
/// @tparam W  elements across the block (4, 5, or 8 for the coalesced block)
/// @param interiorBand, exteriorBand  band of the tile test (world units)
/// @param numbers      the depth's constants
/// @param types        value types of the interior, W^3, k outer; only type 2 changes
/// @param u            (W+2)^3 values with halo; the interior is updated in place. The edge and
///                     corner elements of the halo are overwritten by the band check
/// @param mode         `SweepMode`
/// @param bandCheck    test first whether the tile lies beyond the bands
/// @param voxelsPerTile the voxel count of a tile of the tree (64 or 125): the band check skips
///                     the tile when its scan stops at exactly that index
/// @param nb           the neighbour function
/// @return the largest change of a voxel
template <int W, typename Neighbour>
float sweepTile(float interiorBand, float exteriorBand, DepthNumbers const& numbers,
                unsigned char const* types, TileData<float, W, 1, 0>& u, SweepMode mode,
                bool bandCheck, int voxelsPerTile, Neighbour const& nb)
{
    constexpr int E = W + 2;
    constexpr std::ptrdiff_t sy = E;
    constexpr std::ptrdiff_t sz = std::ptrdiff_t(E) * E;
    float* const data = u.data();
    if (bandCheck && beyondBands(interiorBand, exteriorBand, u, voxelsPerTile))
        return 0.0f;
    auto at = [](int i, int j, int k) {
        return std::ptrdiff_t(i + 1) + sy * (j + 1) + sz * (k + 1);
    };
    float tracked = 0.0f;
    if (mode == kSweepEightDirections) {
        // Directions of travel (k, j, i); the upwind neighbour lies behind on each axis.
        static constexpr int kDirections[8][3] = {{1, 1, 1},   {-1, -1, -1}, {-1, 1, 1},
                                                  {1, -1, -1}, {-1, -1, 1},  {1, 1, -1},
                                                  {1, -1, 1},  {-1, 1, -1}};
        for (auto const& dir : kDirections) {
            int const dk = dir[0], dj = dir[1], di = dir[2];
            std::ptrdiff_t const ni = -di, nj = -dj * sy, nk = -dk * sz;
            for (int kk = 0; kk < W; ++kk) {
                int const k = dk > 0 ? kk : W - 1 - kk;
                for (int jj = 0; jj < W; ++jj) {
                    int const j = dj > 0 ? jj : W - 1 - jj;
                    unsigned char const* typeRow =
                        types + std::size_t(W) * (j + std::size_t(W) * k);
                    for (int ii = 0; ii < W; ++ii) {
                        int const i = di > 0 ? ii : W - 1 - ii;
                        if (typeRow[i] != kValueTypeUnknown)
                            continue;
                        std::ptrdiff_t const c = at(i, j, k);
                        float const v = data[c];
                        float const a = nb(data[c + ni], std::size_t(c + ni), v);
                        float const b = nb(data[c + nj], std::size_t(c + nj), v);
                        float const e = nb(data[c + nk], std::size_t(c + nk), v);
                        float const r = eikonalUpdate(numbers, a, b, e, v);
                        tracked = std::max(tracked, std::fabs(v - r));
                        data[c] = r;
                    }
                }
            }
        }
        return tracked;
    }
    // Red-black relaxation: at most 7 iterations, ended by the fourth quiet one.
    int quiet = 0;
    for (int n = 0; n < 7 && quiet < 4; ++n) {
        float change = 0.0f;
        for (int k = 0; k < W; ++k)
            for (int j = 0; j < W; ++j) {
                unsigned char const* typeRow = types + std::size_t(W) * (j + std::size_t(W) * k);
                for (int i = (j + k + n) % 2; i < W; i += 2) {
                    if (typeRow[i] != kValueTypeUnknown)
                        continue;
                    std::ptrdiff_t const c = at(i, j, k);
                    float const v = data[c];
                    auto pick = [&](std::ptrdiff_t stride) {
                        float const lo = nb(data[c - stride], std::size_t(c - stride), v);
                        float const hi = nb(data[c + stride], std::size_t(c + stride), v);
                        return v < 0.0f ? std::max(lo, hi) : std::min(lo, hi);
                    };
                    float const r = eikonalUpdate(numbers, pick(1), pick(sy), pick(sz), v);
                    change = std::max(change, std::fabs(v - r));
                    data[c] = r;
                }
            }
        tracked = std::max(tracked, change);
        if (change < numbers.tol)
            ++quiet;
    }
    return tracked;
}

/// Whether the interior value types hold a voxel of type 2.
template <std::size_t N> bool hasUnknown(unsigned char const* types)
{
    for (std::size_t n = 0; n < N; ++n)
        if (types[n] == kValueTypeUnknown)
            return true;
    return false;
}

/// @brief Signed distance from tile-space point @p p0 (finest voxels) to the zero set of the
///        field @p sample, by at most @p maxSteps steps of the field's value along its
///        normalised gradient.
/// @param sample    position -> value (world units)
/// @param gradient  (position, value there) -> gradient (any positive scale)
/// @param v         the value at @p p0; @p s its side (-1 inside, +1 outside)
/// @param g0        the gradient at @p p0
/// @param t         convergence threshold on |value|
/// @return the signed distance (world units), or s * FLT_MAX when no step reduced |value|, so
///         that any other candidate of the caller wins.
template <typename Sample, typename Gradient>
float stepToZeroCrossing(Sample& sample, Gradient& gradient, double3 const& p0, float v, float s,
                         double3 g0, float voxelSize, float t, int maxSteps)
{
    float best = std::fabs(v);
    if (t > best)
        return 0.0f;
    double3 p = p0;
    double3 bestPosition = p0;
    bool improved = false;
    float f = v;
    float const inverseVoxelSize = 1.0f / voxelSize;
    for (int n = 1; n <= maxSteps; ++n) {
        double3 const g = n == 1 ? g0 : gradient(p, f);
        double norm = std::sqrt(g.x * g.x + g.y * g.y + g.z * g.z);
        if (!(norm <= double(FLT_MAX)))
            norm = double(FLT_MAX);
        if (!(norm > double(kEpsilon)))
            break;
        double const a = double(-f * inverseVoxelSize) / norm;
        p = double3{p.x + a * g.x, p.y + a * g.y, p.z + a * g.z};
        f = sample(p);
        if (std::fabs(f) < best) {
            best = std::fabs(f);
            bestPosition = p;
            improved = true;
        }
        if (t > best)
            break;
    }
    if (!improved)
        return s * FLT_MAX;
    double3 const d{bestPosition.x - p0.x, bestPosition.y - p0.y, bestPosition.z - p0.z};
    float const length = float(std::sqrt(d.x * d.x + d.y * d.y + d.z * d.z));
    return std::max(length, kTinyDistance) * (voxelSize * s);
}

/// Forward-difference gradient of @p sample at @p p, where the value @p f is known: half a
/// finest voxel along each axis, three samples.
template <typename Sample> double3 sampledGradient(Sample& sample, double3 const& p, float f)
{
    constexpr double d = 0.5;
    double const base = double(f);
    return {double(sample(double3{p.x + d, p.y, p.z})) - base,
            double(sample(double3{p.x, p.y + d, p.z})) - base,
            double(sample(double3{p.x, p.y, p.z + d})) - base};
}

/// @brief The surface distance of a voxel next to the zero crossing: the Newton estimate from
///        the sampled field, beaten by any shorter linear estimate towards a face neighbour of
///        the other sign, clamped to the voxel's side.
/// @param v           the voxel's value; a value within 0.001 h of zero is returned unchanged
/// @param neighbours  the six face neighbours (+x, -x, +y, -y, +z, -z)
/// @param h           the voxel's spacing (world units)
/// @param p0          the voxel's sample position in tile space
template <typename Sample>
float surfaceDistance(Sample& sample, float v, float const (&neighbours)[6], float h,
                      double3 const& p0, float voxelSize)
{
    float const t = h * 0.001f;
    if (std::fabs(v) <= t)
        return v;
    float const s = 0.0f > v ? -1.0f : 1.0f;
    auto gradient = [&](double3 const& p, float f) { return sampledGradient(sample, p, f); };
    double3 const g = gradient(p0, sample(p0));
    float r = stepToZeroCrossing(sample, gradient, p0, v, s, g, voxelSize, t, 10);
    bool const inside = 0.0f > v;
    for (float n : neighbours) {
        if ((0.0f > n) == inside)
            continue;
        float const d = v * s / (v - n) * h;
        if (std::fabs(r) > std::fabs(d))
            r = d;
    }
    return v >= 0.0f ? std::max(r, kTinyDistance) : std::min(r, -kTinyDistance);
}

/// The tile-space position of voxel (i, j, k) of @p tile (finest voxels, corners at integers)
/// in the solves: its corner, where the finest voxel at the corner has its sample. Every depth
/// uses the same convention, so that a covered voxel coincides with the child voxel at the low
/// corner of its region and the coarse lattice of a hanging voxel is exact (vertex-centred
/// multilevel transfers).
template <typename TileT> double3 samplePosition(TileT const& tile, int i, int j, int k)
{
    std::int64_t const w = tile.voxelDataWidth();
    return {double(tile.ti() + i * w), double(tile.tj() + j * w), double(tile.tk() + k * w)};
}

/// @brief Makes the face rim of a halo block safe for the solves: a face filled from a coarser
///        tile becomes an upper bound of the distance at the rim elements' own places, and a face
///        beyond the domain or in a depth below @p minDepth repeats the tile's own face.
/// @details Across a resolution jump the rim holds the value of the coarse voxel that covers each
///          rim element, which sits up to a coarse voxel's diagonal away from it. A sweep can only
///          lower magnitudes, so a rim value that is too small would spread; the coarse value
///          moved away from zero by the distance between the two places cannot be (the distance
///          is 1-Lipschitz), and where the fine side knows better the sweep takes its own value.
/// @param u  the block, its face rim filled by the rim rule
template <typename Traits, typename Accessor>
void boundCoarseRim(Tile<Traits> const& tile, Accessor& accessor, float voxelSize,
                    TileData<float, Traits::kTileWidth, 1, 0>& u, int minDepth = 0,
                    bool edgesToo = false)
{
    constexpr int W = Traits::kTileWidth;
    std::int64_t const w = tile.voxelDataWidth();
    std::int64_t const corner[3] = {tile.ti(), tile.tj(), tile.tk()};
    // With @p edgesToo, edges and corners of the rim beyond the domain (or in untreated depths)
    // repeat the nearest voxel of the tile, like the faces below; the sweeps read faces only.
    for (int dz = -1; dz <= 1 && edgesToo; ++dz)
        for (int dy = -1; dy <= 1; ++dy)
            for (int dx = -1; dx <= 1; ++dx) {
                if ((dx != 0) + (dy != 0) + (dz != 0) < 2)
                    continue;
                Tile<Traits> const& n =
                    accessor.tileNeighbor(tile, TVL::TileTree3D::neighborDirection(dx, dy, dz));
                if (n.valid() && n.depth() >= minDepth)
                    continue;
                auto range = [](int d, int& lo, int& hi) {
                    lo = d < 0 ? -1 : d > 0 ? W : 0;
                    hi = d < 0 ? -1 : d > 0 ? W : W - 1;
                };
                int x0, x1, y0, y1, z0, z1;
                range(dx, x0, x1);
                range(dy, y0, y1);
                range(dz, z0, z1);
                for (int z = z0; z <= z1; ++z)
                    for (int y = y0; y <= y1; ++y)
                        for (int x = x0; x <= x1; ++x)
                            u(x, y, z) = u(std::clamp(x, 0, W - 1), std::clamp(y, 0, W - 1),
                                           std::clamp(z, 0, W - 1));
            }
    for (int axis = 0; axis < 3; ++axis)
        for (int side = -1; side <= 1; side += 2) {
            Tile<Traits> const& n = accessor.tileNeighbor(tile, faceDirection(axis, side));
            int const layer = side < 0 ? -1 : W;
            if (!n.valid() || n.depth() < minDepth) {
                // Beyond the domain, or in depths the solve does not treat, nothing is known: the
                // rim repeats the tile's own face, so it neither brings a value nor fakes a
                // crossing with the default's sign.
                int const inner = side < 0 ? 0 : W - 1;
                for (int b = 0; b < W; ++b)
                    for (int a = 0; a < W; ++a) {
                        int at[3], from[3];
                        at[axis] = layer, from[axis] = inner;
                        at[(axis + 1) % 3] = from[(axis + 1) % 3] = a;
                        at[(axis + 2) % 3] = from[(axis + 2) % 3] = b;
                        u(at[0], at[1], at[2]) = u(from[0], from[1], from[2]);
                    }
                continue;
            }
            if (n.depth() >= tile.depth())
                continue;
            std::int64_t const nw = n.voxelDataWidth();
            std::int64_t const nc[3] = {n.ti(), n.tj(), n.tk()};
            for (int b = 0; b < W; ++b)
                for (int a = 0; a < W; ++a) {
                    int idx[3];
                    idx[axis] = layer;
                    idx[(axis + 1) % 3] = a;
                    idx[(axis + 2) % 3] = b;
                    double d2 = 0.0;
                    for (int c = 0; c < 3; ++c) {
                        std::int64_t const p = corner[c] + std::int64_t(idx[c]) * w;
                        std::int64_t const q = p - (p - nc[c]) % nw;
                        d2 += double(p - q) * double(p - q);
                    }
                    float& v = u(idx[0], idx[1], idx[2]);
                    float const grow = float(std::sqrt(d2)) * voxelSize;
                    if (!(std::fabs(v) > grow)) {
                        // The surface may pass between the two places: not even the side is
                        // known, so the rim element repeats the voxel inside it.
                        int inner[3] = {idx[0], idx[1], idx[2]};
                        inner[axis] = side < 0 ? 0 : W - 1;
                        v = u(inner[0], inner[1], inner[2]);
                        continue;
                    }
                    v = 0.0f > v ? v - grow : v + grow;
                }
        }
}

/// @brief The trilinear mix, at the finest-voxel point @p p, of the lattice of spacing @p pw
///        (tile-lattice aligned) around it; an axis on which @p p lies on the lattice does not
///        mix, and its upper point is not read.
/// @param value  lattice point (x, y, z) -> its value, NaN where it has none
/// @return the mix, or NaN when a point it weights has no value
template <typename Traits, typename Value>
double latticeMix(std::int64_t const (&p)[3], std::int64_t pw, Value const& value)
{
    std::int64_t base[3];
    double fraction[3];
    for (int axis = 0; axis < 3; ++axis) {
        std::int64_t const r = (p[axis] + Traits::kCentreOffset) % pw;
        base[axis] = p[axis] - r;
        fraction[axis] = double(r) / double(pw);
    }
    double sum = 0.0;
    for (int corner = 0; corner < 8; ++corner) {
        double weight = 1.0;
        std::int64_t q[3];
        bool skip = false;
        for (int axis = 0; axis < 3; ++axis) {
            int const upper = (corner >> axis) & 1;
            if (upper && fraction[axis] == 0.0) {
                skip = true;
                break;
            }
            weight *= upper ? fraction[axis] : 1.0 - fraction[axis];
            q[axis] = base[axis] + (upper ? pw : 0);
        }
        if (skip)
            continue;
        double const v = value(q[0], q[1], q[2]);
        if (std::isnan(v))
            return v;
        sum += weight * v;
    }
    return sum;
}

/// Voxel (i, j, k) of a W^3 block, k outer.
template <int W> constexpr std::size_t voxelIndex(int i, int j, int k)
{
    return std::size_t(i) + std::size_t(W) * (std::size_t(j) + std::size_t(W) * std::size_t(k));
}

/// @brief Which tiles of one depth a colour pass may leave out, because sweeping them again
///        would change nothing.
/// @details A tile sweep is a function of the tile's values and of its face rim, which comes
///          from the same-depth tiles beside it (tiles of other depths do not change while a
///          depth is swept). When a sweep changed no value of a tile, the tile is a fixed point
///          of the sweep for that rim; until a face neighbour changes, sweeping it again gives
///          exactly the same values and a change of exactly 0. Leaving it out therefore changes
///          neither the result nor the reported change: it only saves the work. Valid for one
///          series of passes with fixed arguments; `reset` before each series.
struct TileActivity {
    std::vector<std::array<std::int64_t, 6>> faces; ///< same-depth face neighbours, -1 for none
    std::vector<std::int32_t> quietSince; ///< pass of the last sweep without change, or -1
    std::vector<std::int32_t> changedAt;  ///< pass of the last change, or -1
    std::vector<unsigned char> flag;      ///< a per-tile result of the last sweep
    std::int32_t pass = 0;                ///< the current pass
    int depth = -1;
    std::int64_t tiles = -1;

    /// Prepares the tiles of @p depth (the face table only when the tree changed depth or size).
    template <typename Traits> void reset(Container<Traits> const& container, int depth_)
    {
        std::int64_t const n = container.tileCount(depth_);
        if (depth_ != depth || n != tiles) {
            depth = depth_;
            tiles = n;
            faces.assign(std::size_t(n), {});
            parallelRanges(n, [&](std::int64_t begin, std::int64_t end) {
                auto accessor = container.tileAccessor();
                static constexpr int kFaceDirections[6] = {4, 22, 10, 16, 12, 14};
                for (std::int64_t t = begin; t < end; ++t) {
                    Tile<Traits> const& tile = container.tile(t, depth_);
                    for (int f = 0; f < 6; ++f) {
                        Tile<Traits> const& nb = accessor.tileNeighbor(tile, kFaceDirections[f]);
                        faces[std::size_t(t)][f] =
                            nb.valid() && nb.depth() == depth_ ? nb.index() : -1;
                    }
                }
            });
        }
        quietSince.assign(std::size_t(n), -1);
        changedAt.assign(std::size_t(n), -1);
        flag.assign(std::size_t(n), 0);
        pass = 0;
    }
    /// Whether tile @p t is a fixed point of the sweep for its current rim.
    bool skippable(std::int64_t t) const
    {
        std::int32_t const q = quietSince[std::size_t(t)];
        if (q < 0)
            return false;
        for (std::int64_t n : faces[std::size_t(t)])
            if (n >= 0 && changedAt[std::size_t(n)] > q)
                return false;
        return true;
    }
    /// Records the sweep of tile @p t in the current pass.
    void record(std::int64_t t, bool changed)
    {
        if (changed) {
            changedAt[std::size_t(t)] = pass;
            quietSince[std::size_t(t)] = -1;
        } else {
            quietSince[std::size_t(t)] = pass;
        }
    }
};

/// @brief The sweep's block of a tile whose six face neighbours are tiles of its own depth: its
///        voxels and the neighbours' face layers, read straight from their blocks.
/// @details The same values as the rim rule gives (a same-depth neighbour gives the voxels at its
///          local position, and no rim needs bounding), without looking the neighbours up.
///          Edges and corners of the rim are left as they are: the sweeps read faces only.
/// @param tile   the tile's index at @p depth
/// @param faces  the tile's same-depth face neighbours (-x, +x, -y, +y, -z, +z), as
///               `TileActivity::faces` holds them
/// @return false, with @p u untouched, when a face has no same-depth tile or a block is missing
template <typename Traits>
bool fillFromSameDepthFaces(VoxelChannel<Traits, float> const& distance, std::int64_t tile,
                            std::array<std::int64_t, 6> const& faces, int depth,
                            TileData<float, Traits::kTileWidth, 1, 0>& u);

/// `redistanceTiles` with the skipping of fixed-point tiles; @p activity (may be null) belongs
/// to the depth swept, or to depth - 1 for the coalesced blocks, and is advanced by one pass.
template <typename Traits>
float redistanceTilesTracked(RedBlackType colour, VoxelChannel<Traits, float>& io_distance,
                             VoxelChannel<Traits, float> const* mask,
                             Container<Traits> const& container,
                             VoxelChannel<Traits, unsigned char> const* valueType, int depth,
                             float interiorBand, float exteriorBand, bool useBandAtTiles,
                             bool haloByExtrapolation, bool performCoalescedRedistance,
                             TileActivity* activity);

/// Whether `redistanceTiles` takes the coalesced form for these arguments.
template <typename Traits>
bool coalescedForm(VoxelChannel<Traits, float> const* mask, int depth, float interiorBand,
                   float exteriorBand, bool useBandAtTiles, bool haloByExtrapolation,
                   bool performCoalescedRedistance)
{
    auto inUse = [](float band) { return std::fabs(band - FLT_MAX) > kEpsilon; };
    return std::is_same_v<Traits, TVL::TileTree3D::Traits24> && performCoalescedRedistance &&
           useBandAtTiles && !haloByExtrapolation && !mask && !inUse(interiorBand) &&
           !inUse(exteriorBand) && depth > 0;
}

// ---- stages shared by the sources of the folder ----------------------------------------------

/// Every voxel with DOF flag 2 of the depths max(a, lowest DOF depth) to
/// min(highest DOF depth, b) - 1 takes the value of the child voxel at the low corner of the
/// region it covers; finer depths first, so that values travel up several depths in one call.
/// Timer name + ".restrict".
template <typename Traits>
void restrictToParents(Container<Traits> const& container, VoxelChannel<Traits, short> const& dof,
                       VoxelChannel<Traits, float>& io_distance, int a, int b,
                       Quillon::String const& name);

/// Every hanging voxel (DOF flag 4 without 32) of a low face of a tile of depths
/// max(a, lowest DOF depth) to min(highest DOF depth, b) takes the linear, bilinear or trilinear
/// mix of the coarser lattice around it; coarser depths first. Where a point of that lattice
/// still holds the background (unreached, as around the coarse tiles of a tree that is not
/// graded) the voxel keeps its value. With @p io_types, a voxel the sweeps of its own depth
/// solve (value type 2) keeps the value they reached, and only an unreached one (at the
/// background) takes the interpolation; excluded voxels are left alone. Timer name +
/// ".interpolate_dirichlet2".
template <typename Traits>
void interpolateHanging(Container<Traits> const& container, VoxelChannel<Traits, short> const& dof,
                        VoxelChannel<Traits, float>& io_distance, int a, int b,
                        Quillon::String const& name,
                        VoxelChannel<Traits, unsigned char>* io_types = nullptr);

/// The DOF-driven V-cycle (timer name + ".sweep_adaptive"); arguments as `levelSetRedistance`.
template <typename Traits>
void sweepAdaptive(Container<Traits> const& container, VoxelTopology<Traits> const& topology,
                   VoxelChannel<Traits, short> const& dof, bool redistanceInterior,
                   bool redistanceExterior, bool overwriteSurface, int minDepth, int maxDepth,
                   float tolerance, float interiorBand, float exteriorBand, int pre, int post,
                   bool haloByExtrapolation, Quillon::String const& name,
                   VoxelChannel<Traits, float>& io_distance,
                   VoxelChannel<Traits, float> const* mask,
                   VoxelChannel<Traits, unsigned char>* io_valueType);

/// The classical recursion from @p depth to @p minDepth (timer ".redistance_recursively" is the
/// caller's). @p offset is the topology's sample offset within a voxel (fractions of a voxel).
template <typename Traits>
void redistanceRecursively(VoxelChannel<Traits, float>& io_distance,
                           VoxelChannel<Traits, float> const* mask,
                           Container<Traits> const& container,
                           VoxelChannel<Traits, unsigned char> const* valueType, float tolerance,
                           int depth, int minDepth, int maxDepth, float interiorBand,
                           float exteriorBand, int pre, int post,
                           Tavrel::Math::float3 const& offset, bool haloByExtrapolation,
                           bool performCoalescedRedistance, VoxelChannel<Traits, short> const* dof,
                           Quillon::String const& name);

} // namespace VolumeGL::TileTree3D::LevelSet::detail
