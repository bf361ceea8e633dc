/// @file  substrate/detail/halo_impl.h
/// @brief Bodies of the halo operations: the rim walk on raw blocks, and the element mean of
///        non-leaf voxels. Included only by the halo shard files.
#pragma once
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <hexmold/platform/tavrel/math.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/halo.h>
#include <hexmold/substrate/visitor.h>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

namespace TVL::TileTree3D::detail {

/// The scalar of an element type and how many of them it holds.
template <typename T, typename = void> struct ElementScalar {
    using Type = T;
    static constexpr int kCount = 1;
};
template <typename T> struct ElementScalar<T, std::void_t<typename T::ValueType>> {
    using Type = typename T::ValueType;
    static constexpr int kCount = static_cast<int>(sizeof(T) / sizeof(typename T::ValueType));
};

/// Which parts of the rim a halo type asks for, beyond the six face layers that are always
/// filled: bit 4 adds the edges (what a stencil reaching in the coordinate planes needs), bit 8
/// adds the eight corners. Bits 1 and 2 are markers of the caller and change nothing.
constexpr bool haloWantsEdges(int type)
{
    return (type & 12) != 0;
}
constexpr bool haloWantsCorners(int type)
{
    return (type & 8) != 0;
}
/// Whether a halo type asks for an interpolated rim at resolution jumps (bit 16 or 32).
constexpr bool haloWantsTrilinear(int type)
{
    return (type & (kHaloTypeTrilinearJumps | kHaloTypeCubicJumps)) != 0;
}
/// Whether the interpolated rim is tricubic where the coarse voxels allow (bit 32).
constexpr bool haloWantsCubic(int type)
{
    return (type & kHaloTypeCubicJumps) != 0;
}

/// Element types that the trilinear rim blends: those of floating-point scalars. Integer, and
/// integer-vector, channels keep the covering coarse voxel, as a blend would have to round.
template <typename T>
inline constexpr bool kHaloBlendable = std::is_floating_point_v<typename ElementScalar<T>::Type>;

/// a (1 - t) + b t, component by component. The form is exact at t = 0 and t = 1 and, for data
/// that are linear in position, exact to rounding in between.
template <typename T, typename S> inline T blendElement(T const& a, T const& b, S t)
{
    if constexpr (std::is_arithmetic_v<T>) {
        return a * (S(1) - t) + b * t;
    } else {
        constexpr int N = ElementScalar<T>::kCount;
        S x[N], y[N];
        std::memcpy(x, &a, sizeof(T));
        std::memcpy(y, &b, sizeof(T));
        for (int n = 0; n < N; ++n)
            x[n] = x[n] * (S(1) - t) + y[n] * t;
        T v;
        std::memcpy(&v, x, sizeof(T));
        return v;
    }
}

/// The trilinear blend of the 2 x 2 x 2 values @p v (x fastest) with fractions @p fx, @p fy,
/// @p fz, axis by axis (x, then y, then z); an axis that does not move (@p moves false) takes its
/// lower values alone, so that only the values it reads need to exist.
template <typename T, typename S>
inline T blendCorners(T const (&v)[8], bool const (&moves)[3], S fx, S fy, S fz)
{
    T r[4]{};
    for (int q = 0; q < 4; ++q) {
        if (((q & 1) && !moves[1]) || ((q >> 1) && !moves[2]))
            continue;
        r[q] = moves[0] ? blendElement(v[2 * q], v[2 * q + 1], fx) : v[2 * q];
    }
    T s0 = moves[1] ? blendElement(r[0], r[1], fy) : r[0];
    if (moves[2]) {
        T const s1 = moves[1] ? blendElement(r[2], r[3], fy) : r[2];
        s0 = blendElement(s0, s1, fz);
    }
    return s0;
}

/// The trilinear blend (`blendCorners`) of the 2 x 2 x 2 voxels from (@p x, @p y, @p z) of the
/// box @p box (strides 1, B, B * B; @p have tells which elements exist) into @p out; axes that do
/// not move (@p m) read their lower voxel alone. False, with @p out untouched, where a voxel it
/// reads is missing.
template <int B, typename T, typename S>
inline bool blendBoxCorners(T const* box, bool const* have, int x, int y, int z, bool const (&m)[3],
                            S fx, S fy, S fz, T& out)
{
    T v[8]{};
    for (int e = 0; e < 8; ++e) {
        int const ex = e & 1, ey = (e >> 1) & 1, ez = e >> 2;
        if ((ex && !m[0]) || (ey && !m[1]) || (ez && !m[2]))
            continue;
        int const n = (x + ex) + B * ((y + ey) + B * (z + ez));
        if (!have[n])
            return false;
        v[e] = box[n];
    }
    out = blendCorners(v, m, fx, fy, fz);
    return true;
}

/// floor(a / b) for b > 0.
constexpr std::int64_t haloFloorDiv(std::int64_t a, std::int64_t b)
{
    std::int64_t const q = a / b;
    return (a % b != 0 && a < 0) ? q - 1 : q;
}

/// The coarse voxels [first, first + count) on one axis that a higher-order rim element reads,
/// and their Lagrange weights.
template <typename S> struct AxisStencil {
    int first = 0;
    int count = 1;
    S w[4] = {S(1), S(0), S(0), S(0)};
};

/// The cubic Lagrange stencil of a rim element at @p num / @p den coarse voxels from the centre
/// of coarse voxel 0 (den > 0): the four voxels q - 1 .. q + 2 around the bracketing pair (q,
/// q + 1), or voxel q alone where the element sits on its centre. The weights are evaluated in
/// double and rounded once; they sum to 1 and reproduce cubics.
template <typename S> inline AxisStencil<S> cubicStencil(std::int64_t num, std::int64_t den)
{
    std::int64_t const q = haloFloorDiv(num, den);
    std::int64_t const rem = num - q * den;
    AxisStencil<S> s;
    s.first = static_cast<int>(q);
    if (rem == 0)
        return s;
    double const t = double(rem) / double(den);
    s.first = static_cast<int>(q) - 1;
    s.count = 4;
    s.w[0] = static_cast<S>(-t * (t - 1.0) * (t - 2.0) / 6.0);
    s.w[1] = static_cast<S>((t + 1.0) * (t - 1.0) * (t - 2.0) / 2.0);
    s.w[2] = static_cast<S>(-(t + 1.0) * t * (t - 2.0) / 2.0);
    s.w[3] = static_cast<S>((t + 1.0) * t * (t - 1.0) / 6.0);
    return s;
}

/// @p acc (= if @p first) or (+=) @p w * @p v, component by component.
template <typename T, typename S> inline void accumulateElement(T& acc, T const& v, S w, bool first)
{
    if constexpr (std::is_arithmetic_v<T>) {
        acc = first ? v * w : acc + v * w;
    } else {
        constexpr int N = ElementScalar<T>::kCount;
        S a[N], x[N];
        std::memcpy(a, &acc, sizeof(T));
        std::memcpy(x, &v, sizeof(T));
        for (int n = 0; n < N; ++n)
            a[n] = first ? x[n] * w : a[n] + x[n] * w;
        std::memcpy(&acc, a, sizeof(T));
    }
}

/// The tensor-product blend of the box @p box (strides 1, B, B * B; @p have tells which elements
/// exist) with the stencils @p sx, @p sy, @p sz given relative to the box, axis by axis (x, then
/// y, then z) in a fixed order. False where an element it reads is missing.
template <int B, typename T, typename S>
inline bool blendStencils(T const* box, bool const* have, AxisStencil<S> const& sx,
                          AxisStencil<S> const& sy, AxisStencil<S> const& sz, T& out)
{
    T rows[16]; // after x: one value per (y, z) of the stencil
    for (int z = 0; z < sz.count; ++z)
        for (int y = 0; y < sy.count; ++y) {
            int const row = sx.first + B * ((sy.first + y) + B * (sz.first + z));
            T acc{};
            for (int x = 0; x < sx.count; ++x) {
                if (!have[row + x])
                    return false;
                accumulateElement(acc, box[row + x], sx.w[x], x == 0);
            }
            rows[y + 4 * z] = acc;
        }
    T cols[4];
    for (int z = 0; z < sz.count; ++z) {
        T acc{};
        for (int y = 0; y < sy.count; ++y)
            accumulateElement(acc, rows[y + 4 * z], sy.w[y], y == 0);
        cols[z] = acc;
    }
    T acc{};
    for (int z = 0; z < sz.count; ++z)
        accumulateElement(acc, cols[z], sz.w[z], z == 0);
    out = acc;
    return true;
}

/// The voxels of a coarse tile and of the one-voxel layer around it, at the coarse tile's depth,
/// as the trilinear rim reads them: index (x, y, z) with each coordinate in [-1, W]. The layer is
/// read from the coarse tile's neighbours, found on first use: a same-depth neighbour gives its
/// voxel (a non-leaf voxel's coarse copy of its children included); a coarser one gives its own
/// interpolation at the voxel's centre, by the same rule one depth up (tricubic where asked, for
/// as many depths as asked, and possible; else trilinear); where nothing exists, or a tile has no
/// data, the element is missing. The cubic stencil reads one more voxel each way, within [-2, W +
/// 1].
template <typename Traits, typename T, int W, int Hin, typename GetBlock>
class CoarseNeighbourhood {
public:
    using S = typename ElementScalar<T>::Type;

    CoarseNeighbourhood(Container<Traits> const& c, Tile<Traits> const& coarse, T const* data,
                        GetBlock const& get, typename Container<Traits>::ConstTileAccessor& acc,
                        bool tables, int cubicDepths = 0)
        : mContainer(c), mCoarse(coarse), mGet(get), mAccessor(acc), mTables(tables),
          mCubicDepths(cubicDepths), mCubic(cubicDepths > 0),
          mWidth(Container<Traits>::voxelDataWidth(coarse.depth())), mCorner(coarse.tijk())
    {
        for (auto& e : mEntries)
            e.known = false;
        mEntries[kNeighborSelf].known = true;
        mEntries[kNeighborSelf].data = data;
    }

    /// The element at index (x, y, z) around the coarse tile into @p out; false where missing.
    bool value(int x, int y, int z, T& out)
    {
        constexpr int Ein = W + 2 * Hin;
        int const sx = x < 0 ? -1 : (x >= W ? 1 : 0), sy = y < 0 ? -1 : (y >= W ? 1 : 0),
                  sz = z < 0 ? -1 : (z >= W ? 1 : 0);
        Entry& e = entry(neighborDirection(sx, sy, sz));
        if (!e.data)
            return false;
        if (!e.coarser) {
            int const l0 = x - sx * W, l1 = y - sy * W, l2 = z - sz * W;
            out = e.data[(l0 + Hin) + Ein * ((l1 + Hin) + Ein * (l2 + Hin))];
            return true;
        }
        return coarserValue(*e.coarser, x, y, z, out);
    }

    /// Fills @p values (and @p have, whether each exists) with the elements of the box of indices
    /// [base, base + extent) around the coarse tile, laid out with strides 1, C, C * C. Works
    /// neighbour by neighbour, so that the elements of one tile are copied without per-element
    /// lookups. Indices may reach one tile width beyond the coarse tile on each side.
    template <int C>
    void fillBox(int const (&base)[3], int const (&extent)[3], T* values, bool* have)
    {
        constexpr int Ein = W + 2 * Hin;
        for (int sz = -1; sz <= 1; ++sz)
            for (int sy = -1; sy <= 1; ++sy)
                for (int sx = -1; sx <= 1; ++sx) {
                    int const s[3] = {sx, sy, sz};
                    int lo[3], hi[3];
                    bool empty = false;
                    for (int a = 0; a < 3; ++a) {
                        lo[a] = std::max(base[a], s[a] * W);
                        hi[a] = std::min(base[a] + extent[a], s[a] * W + W);
                        empty |= lo[a] >= hi[a];
                    }
                    if (empty)
                        continue;
                    Entry& e = entry(neighborDirection(sx, sy, sz));
                    if (e.data && e.coarser) {
                        // A coarser tile: its interpolations, all of this part at once.
                        e.coarser->interpolateBox(
                            mCorner, mWidth, lo, hi, [&](int x, int y, int z, T const& v, bool ok) {
                                int const n =
                                    (x - base[0]) + C * ((y - base[1]) + C * (z - base[2]));
                                have[n] = ok;
                                if (ok)
                                    values[n] = v;
                            });
                        continue;
                    }
                    for (int z = lo[2]; z < hi[2]; ++z)
                        for (int y = lo[1]; y < hi[1]; ++y) {
                            int const row = (y - base[1]) * C + (z - base[2]) * C * C - base[0];
                            if (!e.data) {
                                for (int x = lo[0]; x < hi[0]; ++x)
                                    have[row + x] = false;
                            } else {
                                T const* src =
                                    e.data + (Hin - sx * W) +
                                    Ein * ((y - sy * W + Hin) + Ein * (z - sz * W + Hin));
                                for (int x = lo[0]; x < hi[0]; ++x) {
                                    values[row + x] = src[x];
                                    have[row + x] = true;
                                }
                            }
                        }
                }
    }

    /// What `interpolate` gives at the centres of the voxels [lo, hi) (at most W per axis) of a
    /// finer frame with corner @p fc and voxel width @p fw (finest voxels), all inside this tile,
    /// computed together: the voxels their stencils read are fetched once as a box (`fillBox`,
    /// which does the same for coarser tiles around), then each point is blended from it with
    /// the same operations as `interpolate`, so with the same bits. @p put(x, y, z, value,
    /// exists) takes each result.
    template <typename Put>
    void interpolateBox(int3 const& fc, std::int64_t fw, int const (&lo)[3], int const (&hi)[3],
                        Put const& put)
    {
        // The points span at most W finer voxels, so at most W / r + 1 voxels here; the cubic
        // stencil adds one below and two above.
        constexpr int B = W + 6;
        AxisStencil<S> st[3][W];
        int c0[3][W];
        S frac[3][W];
        bool moves[3][W];
        int base[3], extent[3];
        bool fits = true;
        for (int a = 0; a < 3; ++a) {
            int mn = 0, mx = 0;
            for (int l = lo[a]; l < hi[a]; ++l) {
                int const i = l - lo[a];
                std::int64_t const num =
                    2 * (std::int64_t(fc[a]) + l * fw) + fw - 2 * std::int64_t(mCorner[a]) - mWidth;
                std::int64_t const den = 2 * mWidth;
                std::int64_t const q = haloFloorDiv(num, den);
                std::int64_t const rem = num - q * den;
                c0[a][i] = static_cast<int>(q);
                frac[a][i] = static_cast<S>(double(rem) / double(den));
                moves[a][i] = rem != 0;
                int lowest = int(q), highest = int(q) + int(rem != 0);
                if (mCubic) {
                    st[a][i] = cubicStencil<S>(num, den);
                    lowest = std::min(lowest, st[a][i].first);
                    highest = std::max(highest, st[a][i].first + st[a][i].count - 1);
                }
                mn = l == lo[a] ? lowest : std::min(mn, lowest);
                mx = l == lo[a] ? highest : std::max(mx, highest);
            }
            base[a] = mn;
            extent[a] = mx - mn + 1;
            fits &= extent[a] <= B;
        }
        if (!fits) {
            for (int z = lo[2]; z < hi[2]; ++z)
                for (int y = lo[1]; y < hi[1]; ++y)
                    for (int x = lo[0]; x < hi[0]; ++x) {
                        int const l[3] = {x, y, z};
                        std::int64_t p2[3];
                        for (int a = 0; a < 3; ++a)
                            p2[a] = 2 * (std::int64_t(fc[a]) + l[a] * fw) + fw;
                        T v{};
                        bool const ok = interpolate(p2, v);
                        put(x, y, z, v, ok);
                    }
            return;
        }
        auto box = std::make_unique_for_overwrite<T[]>(std::size_t(B) * B * B);
        auto have = std::make_unique_for_overwrite<bool[]>(std::size_t(B) * B * B);
        fillBox<B>(base, extent, box.get(), have.get());
        for (int z = lo[2]; z < hi[2]; ++z)
            for (int y = lo[1]; y < hi[1]; ++y)
                for (int x = lo[0]; x < hi[0]; ++x) {
                    int const i = x - lo[0], j = y - lo[1], k = z - lo[2];
                    T v{};
                    if (mCubic) {
                        AxisStencil<S> sx = st[0][i], sy = st[1][j], sz = st[2][k];
                        sx.first -= base[0];
                        sy.first -= base[1];
                        sz.first -= base[2];
                        if (blendStencils<B>(box.get(), have.get(), sx, sy, sz, v)) {
                            put(x, y, z, v, true);
                            continue;
                        }
                    }
                    bool const m[3] = {moves[0][i], moves[1][j], moves[2][k]};
                    bool const ok = blendBoxCorners<B>(box.get(), have.get(), c0[0][i] - base[0],
                                                       c0[1][j] - base[1], c0[2][k] - base[2], m,
                                                       frac[0][i], frac[1][j], frac[2][k], v);
                    put(x, y, z, v, ok);
                }
    }

    /// The trilinear interpolation of the voxels around the coarse tile at @p p2 (a position in
    /// half finest voxels, inside the coarse tile), into @p out; false where a voxel it needs is
    /// missing. An axis on which the position sits on a voxel centre reads that voxel alone.
    bool interpolate(std::int64_t const (&p2)[3], T& out)
    {
        if (mCubic && interpolateCubic(p2, out))
            return true;
        int c0[3];
        S frac[3];
        bool moves[3];
        for (int a = 0; a < 3; ++a) {
            std::int64_t const num = p2[a] - 2 * std::int64_t(mCorner[a]) - mWidth;
            std::int64_t const den = 2 * mWidth;
            std::int64_t const q = haloFloorDiv(num, den);
            std::int64_t const rem = num - q * den;
            c0[a] = static_cast<int>(q);
            frac[a] = static_cast<S>(double(rem) / double(den));
            moves[a] = rem != 0;
        }
        return blend(c0, frac, moves, out);
    }

    /// The tricubic interpolation (`cubicStencil`) at @p p2 as `interpolate` takes it; false
    /// where one of the 4 x 4 x 4 voxels is missing.
    bool interpolateCubic(std::int64_t const (&p2)[3], T& out)
    {
        AxisStencil<S> st[3];
        for (int a = 0; a < 3; ++a)
            st[a] = cubicStencil<S>(p2[a] - 2 * std::int64_t(mCorner[a]) - mWidth, 2 * mWidth);
        T v[64];
        bool have[64];
        for (int z = 0; z < st[2].count; ++z)
            for (int y = 0; y < st[1].count; ++y)
                for (int x = 0; x < st[0].count; ++x) {
                    int const n = x + 4 * (y + 4 * z);
                    have[n] = value(st[0].first + x, st[1].first + y, st[2].first + z, v[n]);
                    if (!have[n])
                        return false;
                }
        for (auto& a : st)
            a.first = 0;
        return blendStencils<4>(v, have, st[0], st[1], st[2], out);
    }

    /// The blend of the 2 x 2 x 2 voxels from @p c0 with fractions @p frac, axis by axis (x, then
    /// y, then z); axes that do not move read only their lower voxel.
    bool blend(int const (&c0)[3], S const (&frac)[3], bool const (&moves)[3], T& out)
    {
        T v[8]{};
        for (int e = 0; e < 8; ++e) {
            int const ex = e & 1, ey = (e >> 1) & 1, ez = e >> 2;
            if ((ex && !moves[0]) || (ey && !moves[1]) || (ez && !moves[2]))
                continue;
            if (!value(c0[0] + ex, c0[1] + ey, c0[2] + ez, v[e]))
                return false;
        }
        out = blendCorners(v, moves, frac[0], frac[1], frac[2]);
        return true;
    }

private:
    struct Entry {
        bool known = false;
        T const* data = nullptr;
        std::unique_ptr<CoarseNeighbourhood> coarser; ///< set where the tile there is coarser
    };
    /// Interpolated voxels of the layer around the tile, indices [-2, W + 1] per axis, each
    /// computed once: a stencil one depth up reads the layer of its own tile again, so without
    /// the cache the work would grow as a power of the stencil size with the depths of a jump.
    static constexpr int kLayer = W + 4;
    struct LayerCache {
        T values[kLayer * kLayer * kLayer];
        signed char state[kLayer * kLayer * kLayer] = {}; ///< 0 not yet, 1 exists, -1 missing
    };

    /// The interpolation by the coarser tile @p coarser at the centre of voxel (x, y, z) of this
    /// tile's frame (in half finest voxels), from the layer cache where the voxel lies in it.
    bool coarserValue(CoarseNeighbourhood& coarser, int x, int y, int z, T& out)
    {
        std::int64_t const p2[3] = {2 * (std::int64_t(mCorner[0]) + x * mWidth) + mWidth,
                                    2 * (std::int64_t(mCorner[1]) + y * mWidth) + mWidth,
                                    2 * (std::int64_t(mCorner[2]) + z * mWidth) + mWidth};
        if (x < -2 || y < -2 || z < -2 || x >= W + 2 || y >= W + 2 || z >= W + 2)
            return coarser.interpolate(p2, out);
        if (!mLayer)
            mLayer = std::make_unique<LayerCache>();
        int const n = (x + 2) + kLayer * ((y + 2) + kLayer * (z + 2));
        signed char& state = mLayer->state[n];
        if (state == 0)
            state = coarser.interpolate(p2, mLayer->values[n]) ? 1 : -1;
        if (state < 0)
            return false;
        out = mLayer->values[n];
        return true;
    }
    Entry& entry(int dir)
    {
        Entry& e = mEntries[dir];
        if (e.known)
            return e;
        e.known = true;
        Tile<Traits> const& n = mTables ? mContainer.compressedHaloNeighbor(mCoarse, dir)
                                        : mAccessor.tileNeighbor(mCoarse, dir);
        if (!n.valid())
            return e;
        e.data = mGet(n.index(), n.depth());
        if (e.data && n.depth() != mCoarse.depth())
            e.coarser = std::make_unique<CoarseNeighbourhood>(mContainer, n, e.data, mGet,
                                                              mAccessor, mTables, mCubicDepths - 1);
        return e;
    }

    Container<Traits> const& mContainer;
    Tile<Traits> const& mCoarse;
    GetBlock const& mGet;
    typename Container<Traits>::ConstTileAccessor& mAccessor;
    bool mTables;
    /// How many depths, this tile's own first, interpolate tricubically where they can; beyond
    /// them the rule is trilinear. Stencils four voxels wide straddle tiles, so a tricubic
    /// chain down many depths of a jump would visit a number of tiles that grows as a power of
    /// the depths; two depths serve every graded jump (the rim's coarse tile and one coarser).
    int mCubicDepths;
    bool mCubic;
    std::int64_t mWidth; ///< voxel width of the coarse tile, finest voxels
    int3 mCorner;
    Entry mEntries[27];
    std::unique_ptr<LayerCache> mLayer;
};

/// The cubic rim of the box [lo, hi) of @p out (edge W + 2*Hout), whose elements all lie in the
/// coarser tile @p coarse (`around` reads its voxels and the layers around it): each element is
/// the tricubic Lagrange interpolation of the 4 x 4 x 4 coarse voxels around its centre
/// (`cubicStencil`). Where one of them is missing the element takes the trilinear blend of its
/// 2 x 2 x 2 bracketing voxels (@p c0, @p frac, @p moves), and where one of those is missing too,
/// the covering coarse voxel @p ci. False, with nothing written, when the region's voxels do not
/// fit the box; the caller then fills it by the trilinear rule.
template <typename Traits, typename T, int W, int Hin, int Hout, typename Around, typename S>
inline bool fillCubicRegion(Around& around, Tile<Traits> const& coarse, int3 const& corner,
                            std::int64_t w, int const (&lo)[3], int const (&hi)[3],
                            int const (&c0)[3][W + 2 * Hout], S const (&frac)[3][W + 2 * Hout],
                            bool const (&moves)[3][W + 2 * Hout], int const (&ci)[3][W + 2 * Hout],
                            T const* src, T* out)
{
    constexpr int Ein = W + 2 * Hin;
    constexpr int Eout = W + 2 * Hout;
    // A region spans at most W elements per axis, between at most W + 1 coarse centres; the
    // cubic stencil adds one voxel below and two above.
    constexpr int B = W + 4;
    std::int64_t const wn = Container<Traits>::voxelDataWidth(coarse.depth());
    int3 const nc = coarse.tijk();
    AxisStencil<S> st[3][W + 2 * Hout];
    int base[3], extent[3];
    for (int a = 0; a < 3; ++a) {
        int mn = 0, mx = 0;
        for (int l = lo[a]; l < hi[a]; ++l) {
            std::int64_t const num =
                2 * (std::int64_t(corner[a]) - std::int64_t(nc[a])) + (2 * l + 1) * w - wn;
            AxisStencil<S> const& x = st[a][l + Hout] = cubicStencil<S>(num, 2 * wn);
            mn = l == lo[a] ? x.first : std::min(mn, x.first);
            mx = l == lo[a] ? x.first + x.count - 1 : std::max(mx, x.first + x.count - 1);
        }
        base[a] = mn;
        extent[a] = mx - mn + 1;
        if (extent[a] > B)
            return false;
    }
    T box[B * B * B];
    bool have[B * B * B];
    around.template fillBox<B>(base, extent, box, have);
    for (int k = lo[2]; k < hi[2]; ++k)
        for (int j = lo[1]; j < hi[1]; ++j)
            for (int i = lo[0]; i < hi[0]; ++i) {
                T& o = out[(i + Hout) + Eout * ((j + Hout) + Eout * (k + Hout))];
                AxisStencil<S> sx = st[0][i + Hout], sy = st[1][j + Hout], sz = st[2][k + Hout];
                sx.first -= base[0];
                sy.first -= base[1];
                sz.first -= base[2];
                if (blendStencils<B>(box, have, sx, sy, sz, o))
                    continue;
                // The trilinear blend of the bracketing voxels, from the same box.
                bool const m[3] = {moves[0][i + Hout], moves[1][j + Hout], moves[2][k + Hout]};
                if (!blendBoxCorners<B>(box, have, c0[0][i + Hout] - base[0],
                                        c0[1][j + Hout] - base[1], c0[2][k + Hout] - base[2], m,
                                        frac[0][i + Hout], frac[1][j + Hout], frac[2][k + Hout], o))
                    o = src[(ci[0][i + Hout] + Hin) +
                            Ein * ((ci[1][j + Hout] + Hin) + Ein * (ci[2][k + Hout] + Hin))];
            }
    return true;
}

/// Fills the rim elements of the box [lo, hi) of @p out (edge W + 2*Hout), which all lie in the
/// coarser tile @p coarse, with the trilinear interpolation of the coarse voxels at each rim
/// element's centre (`CoarseNeighbourhood`). Where a bracketing voxel is missing (at the edge of
/// the tree, or a tile without data) the element keeps the covering coarse voxel @p ci, as the
/// rim does without interpolation.
///
/// For data that are linear in position the rim is then exact to rounding, so central differences
/// across a jump keep their second order in the first derivatives. With @p cubic the region is
/// filled by `fillCubicRegion` instead, where its voxels fit that function's box.
template <typename Traits, typename T, int W, int Hin, int Hout, typename GetBlock>
inline void
fillTrilinearRegion(Container<Traits> const& c, Tile<Traits> const& coarse, T const* src,
                    GetBlock const& get, typename Container<Traits>::ConstTileAccessor& acc,
                    bool tables, int3 const& corner, std::int64_t w, int const (&lo)[3],
                    int const (&hi)[3], int const (&ci)[3][W + 2 * Hout], T* out, bool cubic)
{
    using S = typename ElementScalar<T>::Type;
    constexpr int Ein = W + 2 * Hin;
    constexpr int Eout = W + 2 * Hout;
    std::int64_t const wn = Container<Traits>::voxelDataWidth(coarse.depth());
    int3 const nc = coarse.tijk();
    // Per axis and rim index: the lower bracketing coarse voxel and the fraction towards the
    // upper one. In half finest voxels all centres are integers, so the fraction is the exact
    // quotient rem / (2 wn), rounded once.
    int c0[3][W + 2 * Hout];
    S frac[3][W + 2 * Hout];
    bool moves[3][W + 2 * Hout];
    for (int a = 0; a < 3; ++a)
        for (int l = lo[a]; l < hi[a]; ++l) {
            std::int64_t const num =
                2 * (std::int64_t(corner[a]) - std::int64_t(nc[a])) + (2 * l + 1) * w - wn;
            std::int64_t const den = 2 * wn;
            std::int64_t const q = haloFloorDiv(num, den);
            std::int64_t const rem = num - q * den;
            c0[a][l + Hout] = static_cast<int>(q);
            frac[a][l + Hout] = static_cast<S>(double(rem) / double(den));
            moves[a][l + Hout] = rem != 0;
        }
    // The coarse voxels the region reads, fetched once each: a box of at most W + 1 per axis (a
    // region spans at most W rim elements on an axis, which fall between at most W + 1 coarse
    // centres).
    constexpr int B = W + 1;
    int base[3], extent[3];
    for (int a = 0; a < 3; ++a) {
        int mn = c0[a][lo[a] + Hout], mx = mn;
        for (int l = lo[a]; l < hi[a]; ++l) {
            mn = std::min(mn, c0[a][l + Hout]);
            mx = std::max(mx, c0[a][l + Hout] + (moves[a][l + Hout] ? 1 : 0));
        }
        base[a] = mn;
        extent[a] = mx - mn + 1;
    }
    CoarseNeighbourhood<Traits, T, W, Hin, GetBlock> around(c, coarse, src, get, acc, tables,
                                                            cubic ? 2 : 0);
    if (cubic && fillCubicRegion<Traits, T, W, Hin, Hout>(around, coarse, corner, w, lo, hi, c0,
                                                          frac, moves, ci, src, out))
        return;
    if (extent[0] > B || extent[1] > B || extent[2] > B) {
        // Not expected for rims of width up to W; kept correct anyway, element by element.
        for (int k = lo[2]; k < hi[2]; ++k)
            for (int j = lo[1]; j < hi[1]; ++j)
                for (int i = lo[0]; i < hi[0]; ++i) {
                    int const x[3] = {c0[0][i + Hout], c0[1][j + Hout], c0[2][k + Hout]};
                    S const f[3] = {frac[0][i + Hout], frac[1][j + Hout], frac[2][k + Hout]};
                    bool const m[3] = {moves[0][i + Hout], moves[1][j + Hout], moves[2][k + Hout]};
                    T& o = out[(i + Hout) + Eout * ((j + Hout) + Eout * (k + Hout))];
                    if (!around.blend(x, f, m, o))
                        o = src[(ci[0][i + Hout] + Hin) +
                                Ein * ((ci[1][j + Hout] + Hin) + Ein * (ci[2][k + Hout] + Hin))];
                }
        return;
    }
    T box[B * B * B];
    bool have[B * B * B];
    around.template fillBox<B>(base, extent, box, have);
    for (int k = lo[2]; k < hi[2]; ++k)
        for (int j = lo[1]; j < hi[1]; ++j)
            for (int i = lo[0]; i < hi[0]; ++i) {
                bool const m[3] = {moves[0][i + Hout], moves[1][j + Hout], moves[2][k + Hout]};
                T& o = out[(i + Hout) + Eout * ((j + Hout) + Eout * (k + Hout))];
                // The blend of `CoarseNeighbourhood::blend`, from the box.
                if (!blendBoxCorners<B>(box, have, c0[0][i + Hout] - base[0],
                                        c0[1][j + Hout] - base[1], c0[2][k + Hout] - base[2], m,
                                        frac[0][i + Hout], frac[1][j + Hout], frac[2][k + Hout], o))
                    o = src[(ci[0][i + Hout] + Hin) +
                            Ein * ((ci[1][j + Hout] + Hin) + Ein * (ci[2][k + Hout] + Hin))];
            }
}

/// The coarse voxels around a tile's place one depth up, fetched once per tile for the trilinear
/// rim: every rim element whose tile there is one depth coarser (the graded case) is blended
/// from this window. The window is taken in the parent's frame: voxels of the parent (its
/// non-leaf copies of the finer data), of its same-depth neighbours, and interpolations of
/// coarser ones (`CoarseNeighbourhood`). These are the voxels the element-wise rule reads from
/// the coarse tile's side, so both give the same values.
template <typename Traits, typename T, int W, int Hin, int Hout> struct JumpWindow {
    using S = typename ElementScalar<T>::Type;
    static constexpr int kRange = W + 2 * Hout;
    /// Coarse voxels per axis: those bracketing kRange fine centres, and the cubic stencil's one
    /// more below and two more above.
    static constexpr int C = (kRange + Traits::kRatio - 1) / Traits::kRatio + 4;

    bool cubic = false; ///< blend with `cubicStencil` where all 4 x 4 x 4 voxels exist
    bool built = false;
    bool usable = false;
    int c0[3][kRange]; ///< lower bracketing voxel, relative to the window
    S frac[3][kRange];
    bool moves[3][kRange];
    AxisStencil<S> st[3][kRange]; ///< cubic stencils, relative to the window (when cubic)
    T values[C * C * C];
    bool have[C * C * C];

    /// The cubic rim of the box [lo, hi) of @p out from the window, as `fillCubicRegion` does
    /// from a region's own box: tricubic where the window holds the 4 x 4 x 4 voxels, else
    /// trilinear, else the covering voxel @p ci of @p src.
    void fillCubic(int const (&lo)[3], int const (&hi)[3], int const (&ci)[3][kRange], T const* src,
                   T* out) const
    {
        constexpr int Ein = W + 2 * Hin;
        for (int k = lo[2]; k < hi[2]; ++k)
            for (int j = lo[1]; j < hi[1]; ++j)
                for (int i = lo[0]; i < hi[0]; ++i) {
                    T& o = out[(i + Hout) + kRange * ((j + Hout) + kRange * (k + Hout))];
                    if (blendStencils<C>(values, have, st[0][i + Hout], st[1][j + Hout],
                                         st[2][k + Hout], o))
                        continue;
                    bool const m[3] = {moves[0][i + Hout], moves[1][j + Hout], moves[2][k + Hout]};
                    if (!blendBoxCorners<C>(values, have, c0[0][i + Hout], c0[1][j + Hout],
                                            c0[2][k + Hout], m, frac[0][i + Hout],
                                            frac[1][j + Hout], frac[2][k + Hout], o))
                        o = src[(ci[0][i + Hout] + Hin) +
                                Ein * ((ci[1][j + Hout] + Hin) + Ein * (ci[2][k + Hout] + Hin))];
                }
    }

    /// Builds the window for @p tile once; false when the tile has no parent or the parent no data.
    template <typename GetBlock>
    bool ensure(Container<Traits> const& c, Tile<Traits> const& tile, GetBlock const& get,
                typename Container<Traits>::ConstTileAccessor& acc, bool tables)
    {
        if (built)
            return usable;
        built = true;
        TreeIndex const pi = tile.parentTreeIndex();
        if (pi.depth < 0)
            return false;
        Tile<Traits> const& parent = c.tile(pi);
        T const* pdata = get(parent.index(), parent.depth());
        if (!pdata)
            return false;
        std::int64_t const w = Container<Traits>::voxelDataWidth(tile.depth());
        std::int64_t const wp = Container<Traits>::voxelDataWidth(parent.depth());
        int3 const corner = tile.tijk(), pc = parent.tijk();
        int base[3], extent[3];
        for (int a = 0; a < 3; ++a) {
            int mn = 0, mx = 0;
            for (int l = -Hout; l < W + Hout; ++l) {
                // As in `fillTrilinearRegion`: centres in half finest voxels.
                std::int64_t const num =
                    2 * (std::int64_t(corner[a]) - std::int64_t(pc[a])) + (2 * l + 1) * w - wp;
                std::int64_t const den = 2 * wp;
                std::int64_t const q = haloFloorDiv(num, den);
                std::int64_t const rem = num - q * den;
                c0[a][l + Hout] = static_cast<int>(q);
                frac[a][l + Hout] = static_cast<S>(double(rem) / double(den));
                moves[a][l + Hout] = rem != 0;
                int lowest = int(q), highest = int(q) + int(rem != 0);
                if (cubic) {
                    AxisStencil<S> const& x = st[a][l + Hout] = cubicStencil<S>(num, den);
                    lowest = std::min(lowest, x.first);
                    highest = std::max(highest, x.first + x.count - 1);
                }
                mn = l == -Hout ? lowest : std::min(mn, lowest);
                mx = l == -Hout ? highest : std::max(mx, highest);
            }
            if (mx - mn + 1 > C)
                return false;
            base[a] = mn;
            extent[a] = mx - mn + 1;
            for (int l = 0; l < kRange; ++l) {
                c0[a][l] -= mn;
                st[a][l].first -= mn;
            }
        }
        CoarseNeighbourhood<Traits, T, W, Hin, GetBlock> around(c, parent, pdata, get, acc, tables,
                                                                cubic ? 2 : 0);
        around.template fillBox<C>(base, extent, values, have);
        return usable = true;
    }
};

/// Fills the region of the rim of @p out (edge W + 2*Hout) that lies in direction @p Dir of
/// @p tile, from the tile found there. The region's bounds are constants here, so that its copy
/// loops unroll: a rim of W = 4 or 5 holds only a few elements per row, and loops with bounds
/// known only at run time would cost more than the copies.
template <int Dir, typename Traits, typename T, int W, int Hin, int Hout, typename GetBlock>
inline void fillHaloRegion(Container<Traits> const& c, Tile<Traits> const& tile,
                           GetBlock const& get, typename Container<Traits>::ConstTileAccessor& acc,
                           bool tables, bool wanted, JumpWindow<Traits, T, W, Hin, Hout>* window,
                           T* out, T const& def)
{
    constexpr int Ein = W + 2 * Hin;
    constexpr int Eout = W + 2 * Hout;
    constexpr int dx = neighborDx(Dir), dy = neighborDy(Dir), dz = neighborDz(Dir);
    constexpr int lo0 = dx < 0 ? -Hout : (dx == 0 ? 0 : W),
                  hi0 = dx < 0 ? 0 : (dx == 0 ? W : W + Hout);
    constexpr int lo1 = dy < 0 ? -Hout : (dy == 0 ? 0 : W),
                  hi1 = dy < 0 ? 0 : (dy == 0 ? W : W + Hout);
    constexpr int lo2 = dz < 0 ? -Hout : (dz == 0 ? 0 : W),
                  hi2 = dz < 0 ? 0 : (dz == 0 ? W : W + Hout);
    constexpr int n0 = hi0 - lo0;
    auto outAt = [](int i, int j, int k) {
        return (i + Hout) + Eout * ((j + Hout) + Eout * (k + Hout));
    };
    auto inAt = [](int i, int j, int k) { return (i + Hin) + Ein * ((j + Hin) + Ein * (k + Hin)); };

    Tile<Traits> const* nb = nullptr;
    if (wanted) {
        Tile<Traits> const& found =
            tables ? c.compressedHaloNeighbor(tile, Dir) : acc.tileNeighbor(tile, Dir);
        nb = found.valid() ? &found : nullptr;
    }
    T const* src = nb ? get(nb->index(), nb->depth()) : nullptr;
    if (!src) {
        for (int k = lo2; k < hi2; ++k)
            for (int j = lo1; j < hi1; ++j) {
                T* o = out + outAt(lo0, j, k);
                for (int i = 0; i < n0; ++i)
                    o[i] = def;
            }
        return;
    }
    if (nb->depth() == tile.depth()) {
        constexpr int sx = dx * W, sy = dy * W, sz = dz * W;
        for (int k = lo2; k < hi2; ++k)
            for (int j = lo1; j < hi1; ++j) {
                T const* s = src + inAt(lo0 - sx, j - sy, k - sz);
                T* o = out + outAt(lo0, j, k);
                for (int i = 0; i < n0; ++i)
                    o[i] = s[i];
            }
        return;
    }
    // A coarser tile: the coarse voxel covering each rim voxel, axis by axis.
    std::int64_t const w = Container<Traits>::voxelDataWidth(tile.depth());
    std::int64_t const wn = Container<Traits>::voxelDataWidth(nb->depth());
    int3 const corner = tile.tijk();
    int3 const nc = nb->tijk();
    constexpr int lo[3] = {lo0, lo1, lo2}, hi[3] = {hi0, hi1, hi2};
    int ci[3][W + 2 * Hout];
    for (int a = 0; a < 3; ++a)
        for (int l = lo[a]; l < hi[a]; ++l)
            ci[a][l + Hout] =
                static_cast<int>((std::int64_t(corner[a]) + l * w - std::int64_t(nc[a])) / wn);
    if constexpr (kHaloBlendable<T>) {
        if (window) {
            using Window = JumpWindow<Traits, T, W, Hin, Hout>;
            if (nb->depth() + 1 == tile.depth() && window->ensure(c, tile, get, acc, tables)) {
                if (window->cubic) {
                    window->fillCubic(lo, hi, ci, src, out);
                    return;
                }
                // One depth coarser: blend from the tile's window.
                constexpr int C = Window::C;
                for (int k = lo2; k < hi2; ++k)
                    for (int j = lo1; j < hi1; ++j)
                        for (int i = lo0; i < hi0; ++i) {
                            bool const m[3] = {window->moves[0][i + Hout],
                                               window->moves[1][j + Hout],
                                               window->moves[2][k + Hout]};
                            T& o = out[outAt(i, j, k)];
                            if (!blendBoxCorners<C>(
                                    window->values, window->have, window->c0[0][i + Hout],
                                    window->c0[1][j + Hout], window->c0[2][k + Hout], m,
                                    window->frac[0][i + Hout], window->frac[1][j + Hout],
                                    window->frac[2][k + Hout], o))
                                o = src[inAt(ci[0][i + Hout], ci[1][j + Hout], ci[2][k + Hout])];
                        }
                return;
            }
            fillTrilinearRegion<Traits, T, W, Hin, Hout>(
                c, *nb, src, get, acc, tables, corner, w, lo, hi, ci, out,
                window->cubic && nb->depth() + 1 == tile.depth());
            return;
        }
    }
    for (int k = lo2; k < hi2; ++k)
        for (int j = lo1; j < hi1; ++j)
            for (int i = lo0; i < hi0; ++i)
                out[outAt(i, j, k)] = src[inAt(ci[0][i + Hout], ci[1][j + Hout], ci[2][k + Hout])];
}

/// Fills the rim walk's block @p out (edge W + 2*Hout) for @p tile: the interior from the tile's
/// own block, and each rim region from the tile found in that direction. @p get(index, depth)
/// gives the data of a tile's block laid out with halo Hin (null where the channel has none).
///
/// The rule per region: the same-depth neighbour gives the voxels at its local position; a
/// coarser tile (the closest existing one holding the place) gives, for each rim voxel, the
/// coarse voxel that covers it; where nothing exists, or the channel has no block, the region
/// holds @p def. Parts of the rim that the type does not ask for also hold @p def. Every
/// same-depth voxel is read as it stands, leaf or not: non-leaf voxels carry the coarse copy of
/// their children's data when the caller has set it.
///
/// The neighbour is looked up in the container's compressed halo table when it exists, else
/// through @p acc (which uses the neighbour table when that exists); all three give the same
/// tile, so the result does not depend on which tables were built.
template <typename Traits, typename T, int W, int Hin, int Hout, typename GetBlock>
void fillHaloBlock(Container<Traits> const& c, Tile<Traits> const& tile, GetBlock const& get,
                   typename Container<Traits>::ConstTileAccessor& acc, int type, T* out,
                   T const& def)
{
    constexpr int Ein = W + 2 * Hin;
    constexpr int Eout = W + 2 * Hout;
    auto outAt = [](int i, int j, int k) {
        return (i + Hout) + Eout * ((j + Hout) + Eout * (k + Hout));
    };
    auto inAt = [](int i, int j, int k) { return (i + Hin) + Ein * ((j + Hin) + Ein * (k + Hin)); };

    // Interior.
    if (T const* own = get(tile.index(), tile.depth())) {
        for (int k = 0; k < W; ++k)
            for (int j = 0; j < W; ++j) {
                T const* src = own + inAt(0, j, k);
                T* dst = out + outAt(0, j, k);
                for (int i = 0; i < W; ++i)
                    dst[i] = src[i];
            }
    } else {
        for (int k = 0; k < W; ++k)
            for (int j = 0; j < W; ++j)
                for (int i = 0; i < W; ++i)
                    out[outAt(i, j, k)] = def;
    }

    bool const tables = c.hasCompressedTileHalos();
    bool const edges = haloWantsEdges(type);
    bool const corners = haloWantsCorners(type);
    // The trilinear rim's window, built on the first region that needs it.
    std::optional<JumpWindow<Traits, T, W, Hin, Hout>> window;
    if constexpr (kHaloBlendable<T>)
        if (haloWantsTrilinear(type)) {
            window.emplace();
            window->cubic = haloWantsCubic(type);
        }
    // The 26 directions, each with its own bounds; faces always, edges and corners as asked.
    [&]<int... Dir>(std::integer_sequence<int, Dir...>)
    {
        auto one = [&]<int D>(std::integral_constant<int, D>) {
            if constexpr (D != kNeighborSelf) {
                constexpr int touched =
                    (neighborDx(D) != 0) + (neighborDy(D) != 0) + (neighborDz(D) != 0);
                bool const wanted =
                    touched == 1 || (touched == 2 && edges) || (touched == 3 && corners);
                fillHaloRegion<D, Traits, T, W, Hin, Hout>(c, tile, get, acc, tables, wanted,
                                                           window ? &*window : nullptr, out, def);
            }
        };
        (one(std::integral_constant<int, Dir>{}), ...);
    }
    (std::make_integer_sequence<int, 27>{});
}

// ---- element arithmetic for means -------------------------------------------------------------

/// Running sum of elements, component by component: doubles for floating-point scalars, 128-bit
/// integers for integral ones (no overflow for up to 2^64 values of any width).
template <typename T> class ElementSum {
    using S = typename ElementScalar<T>::Type;
    static constexpr int N = ElementScalar<T>::kCount;
    using Acc = std::conditional_t<std::is_floating_point_v<S>, double, __int128>;

public:
    void add(T const& v)
    {
        S s[N];
        std::memcpy(s, &v, sizeof(T));
        for (int n = 0; n < N; ++n)
            mSum[n] += static_cast<Acc>(s[n]);
    }
    /// The mean of @p count added elements; integers are rounded to nearest, halves away from 0.
    T mean(std::int64_t count) const
    {
        S s[N];
        for (int n = 0; n < N; ++n) {
            if constexpr (std::is_floating_point_v<S>) {
                s[n] = static_cast<S>(mSum[n] / double(count));
            } else {
                Acc const half = count / 2;
                s[n] = static_cast<S>(mSum[n] >= 0 ? (mSum[n] + half) / count
                                                   : (mSum[n] - half) / count);
            }
        }
        T v;
        std::memcpy(&v, s, sizeof(T));
        return v;
    }

private:
    Acc mSum[N] = {};
};

/// The data of a channel's block for the rim walk: null outside the channel's range or when the
/// block does not have the size of a voxel block of the channel's form.
template <typename ChannelT> struct BlockData {
    ChannelT const* channel;
    typename ChannelT::ValueType const* operator()(std::int64_t index, int depth) const
    {
        auto const* b = channel->block(index, depth);
        return b && b->size() == ChannelT::kBlockSize ? b->data() : nullptr;
    }
};

} // namespace TVL::TileTree3D::detail

namespace TVL::TileTree3D {

template <typename Traits, typename T, int Hin, int Hout, int F1, int F2>
void setHaloTile(TreeIndex const& tile,
                 Channel<Traits, T, Traits::kTileWidth, Hin, F1> const& channel, HaloMode,
                 HaloType type, typename Container<Traits>::ConstTileAccessor& accessor,
                 TileData<T, Traits::kTileWidth, Hout, F1>& out, T defaultValue, float,
                 VoxelOffsetType)
{
    using ChannelT = Channel<Traits, T, Traits::kTileWidth, Hin, F1>;
    Container<Traits> const& c = accessor.container();
    if (!c.contains(tile) || out.size() != TileData<T, Traits::kTileWidth, Hout, F1>::kVoxelCount)
        return;
    detail::fillHaloBlock<Traits, T, Traits::kTileWidth, Hin, Hout>(
        c, c.tile(tile), detail::BlockData<ChannelT>{&channel}, accessor, type, out.data(),
        defaultValue);
}

template <typename Traits, typename T, int A, int B, int C, int D>
void computeHalo(Channel<Traits, T, Traits::kTileWidth, 0, 0> const& source,
                 Container<Traits> const& container,
                 Channel<Traits, T, Traits::kTileWidth + 1, 0, 0>& out, int minDepth, int maxDepth)
{
    using ChannelT = Channel<Traits, T, Traits::kTileWidth, 0, 0>;
    constexpr int W = Traits::kTileWidth;
    constexpr int E = W + 2;
    T const def = source.defaultValue();
    auto fill = [&container, &source, &out, def, acc = container.tileAccessor(),
                 scratch =
                     std::vector<T>(std::size_t(E) * E * E)](Tile<Traits> const& tile) mutable {
        auto* b = out.block(tile.index(), tile.depth());
        if (!b || b->size() != std::size_t(W + 1) * (W + 1) * (W + 1))
            return;
        detail::fillHaloBlock<Traits, T, W, 0, 1>(container, tile,
                                                  detail::BlockData<ChannelT>{&source}, acc,
                                                  kHaloTypeAll, scratch.data(), def);
        T* o = b->data();
        for (int k = 0; k <= W; ++k)
            for (int j = 0; j <= W; ++j)
                for (int i = 0; i <= W; ++i)
                    o[i + (W + 1) * (j + (W + 1) * k)] =
                        scratch[(i + 1) + E * ((j + 1) + E * (k + 1))];
    };
    auto none = [](auto const&...) {};
    container.traverse(none, none, fill, none, NoVoxelVisit{}, kTraversalUnordered, kNoTile,
                       minDepth, maxDepth, 1, true, 0, Traits::kRatio, false,
                       Traits::kMaxDepth - 3);
}

template <typename Traits, typename T, int W, int H>
void setNonLeafValueToChildValue(Channel<Traits, T, W, H, 0>& channel,
                                 Container<Traits> const& container, VoxelOffsetType, int minDepth,
                                 int maxDepth)
{
    static_assert(W == Traits::kTileWidth, "voxel channels only");
    constexpr int E = W + 2 * H;
    constexpr int R = Traits::kVoxelsPerSlot; // parent voxels across one child slot
    // Child voxels under one parent voxel, per axis: 2 for ratio 2 (a child covers 2 x 2 x 2
    // parent voxels), 5 for ratio 5 (a child covers one parent voxel).
    constexpr int K = Traits::kRatio;
    constexpr std::size_t kBlock = std::size_t(E) * E * E;
    auto at = [](int i, int j, int k) {
        return std::size_t((i + H) + E * ((j + H) + E * (k + H)));
    };
    auto fill = [&](Tile<Traits> const& tile) {
        if (tile.isLeaf())
            return;
        auto* parent = channel.block(tile.index(), tile.depth());
        if (!parent || parent->size() != kBlock)
            return;
        for (int s = 0; s < Traits::kChildCount; ++s) {
            std::int64_t const ch = tile.childIndex(s);
            if (ch < 0)
                continue;
            auto const* child = channel.block(ch, tile.depth() + 1);
            if (!child || child->size() != kBlock)
                continue;
            int3 const slot = Tile<Traits>::slotCoordinates(s);
            // Parent voxels (slot * R + p) are covered by the child's voxels (p * K + q).
            for (int pk = 0; pk < R; ++pk)
                for (int pj = 0; pj < R; ++pj)
                    for (int pi = 0; pi < R; ++pi) {
                        detail::ElementSum<T> sum;
                        for (int qk = 0; qk < K; ++qk)
                            for (int qj = 0; qj < K; ++qj)
                                for (int qi = 0; qi < K; ++qi)
                                    sum.add((*child)[at(pi * K + qi, pj * K + qj, pk * K + qk)]);
                        (*parent)[at(slot.x * R + pi, slot.y * R + pj, slot.z * R + pk)] =
                            sum.mean(K * K * K);
                    }
        }
    };
    auto none = [](auto const&...) {};
    // Children first, so that each depth reads finished values from the depth below.
    container.traverse(none, none, fill, none, NoVoxelVisit{}, kTraversalChildrenFirst, kNoTile,
                       minDepth, maxDepth, 1, true, 0, Traits::kRatio, false,
                       Traits::kMaxDepth - 3);
}

} // namespace TVL::TileTree3D

/// Explicit instances of the halo operations for tree TR and element type T, written once for
/// the instantiation shards halo_t24_a/b.cpp and halo_t55_a/b.cpp.
#define HEXMOLD_HALO_TILE_INSTANCES(TR, T)                                                         \
    template decltype(setHaloTile<TR, T, 0, 1, 0, 0>) setHaloTile<TR, T, 0, 1, 0, 0>;              \
    template decltype(setHaloTile<TR, T, 0, 2, 0, 0>) setHaloTile<TR, T, 0, 2, 0, 0>;              \
    template decltype(setHaloTile<TR, T, 1, 1, 0, 0>) setHaloTile<TR, T, 1, 1, 0, 0>;              \
    template decltype(setHaloTile<TR, T, 0, 1, 0, 1>) setHaloTile<TR, T, 0, 1, 0, 1>;              \
    template decltype(setHaloTile<TR, T, 0, 2, 0, 1>) setHaloTile<TR, T, 0, 2, 0, 1>;              \
    template decltype(setHaloTile<TR, T, 1, 1, 0, 1>) setHaloTile<TR, T, 1, 1, 0, 1>;              \
    template decltype(setNonLeafValueToChildValue<TR, T, TR::kTileWidth, 0>)                       \
        setNonLeafValueToChildValue<TR, T, TR::kTileWidth, 0>;
#define HEXMOLD_COMPUTE_HALO_INSTANCES(TR, T)                                                      \
    template decltype(computeHalo<TR, T, 0, 0, 1, 0>) computeHalo<TR, T, 0, 0, 1, 0>;
