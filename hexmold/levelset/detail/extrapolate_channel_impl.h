/// @file  levelset/detail/extrapolate_channel_impl.h
/// @brief The element-type half of channel extrapolation: the per-voxel arithmetic of the fast
///        sweep and of the layer means, behind the interface that the tree-type drivers call
///        once per tile or once per depth.
/// @details The drivers (tile lists, colours, depth loops, halos of the distance, the wavefront's
///          order) depend on the tree type only and are compiled twice, in
///          extrapolate_channel.cpp. Only what reads or writes the value channel is a template
///          over the element type, instantiated in the `_t24` and `_t55` shards.
#pragma once
#include <array>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <hexmold/levelset/extrapolate_channel.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/tavrel/math.h>
#include <hexmold/substrate/halo.h>
#include <hexmold/substrate/tile_data.h>
#include <iostream>
#include <limits>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

namespace VolumeGL::TileTree3D::LevelSet::detail {

using namespace TVL::TileTree3D;

/// A voxel of one depth: its tile and its local index (i + W * (j + W * k)).
struct LayerVoxel {
    std::int64_t tile;
    std::int32_t voxel;
};

/// One step of the wavefront: @p target takes the mean of @p count voxels of the preceding
/// layer, which are `sources[first .. first + count)`.
struct LayerMean {
    LayerVoxel target;
    std::uint32_t first;
    std::uint32_t count;
};

/// One tile of a colour list of the fast sweep.
template <typename Traits> struct SweepTile {
    std::int64_t tile;   ///< index at the depth swept
    std::uint32_t first; ///< first of its unknown voxels in the depth's index array
    std::uint32_t count; ///< unknown voxels
    bool dense;          ///< swept in eight directions; otherwise through its indices
};

/// What the drivers need of the element type. One instance per worker; the calls for one tile
/// come from one thread.
template <typename Traits> class ExtrapolationKernel {
public:
    static constexpr int W = Traits::kTileWidth;
    static constexpr int E = W + 2;
    virtual ~ExtrapolationKernel() = default;
    /// A fresh worker instance over the same channels.
    virtual std::unique_ptr<ExtrapolationKernel> clone() const = 0;
    /// @brief One fast-sweep update of the unknown voxels of tile @p s at @p depth.
    /// @param distance   the tile's distance block with a one-voxel face rim, E^3 floats
    /// @param unknowns   the depth's array of unknown local indices (`s.first` onward)
    /// @param faces      the tiles beside the tile's faces (-x, +x, -y, +y, -z, +z): of its
    ///                   own depth, else the closest coarser one, `kNoTile` beyond the tree
    /// @param changed    set when a voxel's bits changed
    /// @return the largest change of a voxel
    virtual double sweep(SweepTile<Traits> const& s, int depth, float const* distance,
                         std::uint8_t const* unknowns, std::array<TreeIndex, 6> const& faces,
                         bool& changed) = 0;
    /// Applies the means of one depth's wavefront, in order.
    virtual void applyMeans(int depth, std::vector<LayerMean> const& means,
                            std::vector<LayerVoxel> const& sources) = 0;
    /// Every unknown voxel of depth @p depth covered by a child tile takes the value of the
    /// child voxel at the low corner of its region; with @p knownChildrenOnly only where that
    /// child voxel is known.
    virtual void restrictFromChildren(int depth, bool knownChildrenOnly) = 0;
    /// Every unknown hanging voxel of depth @p depth (DOF flag 4 without 32, on the low faces
    /// of a tile with a parent) takes the multilinear mix of the values of depth - 1 (or of the
    /// deepest tile above it) on the coarse lattice around it.
    virtual void interpolateHanging(int depth, VoxelChannel<Traits, short> const& dof) = 0;
};

/// The tree-type drivers, defined in extrapolate_channel.cpp for both tree types.
/// The fast sweep over the depths that all three channels hold.
template <typename Traits>
void extrapolateFSM(Container<Traits> const& container,
                    VoxelChannel<Traits, unsigned char> const& known,
                    VoxelChannel<Traits, float> const& distance, ChannelBase const& value,
                    bool flipInterior, ExtrapolationKernel<Traits>& kernel);
/// The layer scheme over [minDepth, maxDepth] (clamped to the known and value channels).
template <typename Traits>
void extrapolateLayers(Container<Traits> const& container,
                       VoxelChannel<Traits, unsigned char> const& known, ChannelBase const& value,
                       VoxelChannel<Traits, short> const* dof, int minDepth, int maxDepth,
                       ExtrapolationKernel<Traits>& kernel);

// ---- element arithmetic ---------------------------------------------------------------------

/// The scalar components of an element type, for per-component arithmetic.
template <typename T> struct Components {
    using Scalar = T;
    static constexpr int kCount = 1;
};
template <typename S> struct Components<Tavrel::Math::Vec2<S>> {
    using Scalar = S;
    static constexpr int kCount = 2;
};
template <typename S> struct Components<Tavrel::Math::Vec3<S>> {
    using Scalar = S;
    static constexpr int kCount = 3;
};
template <typename S> struct Components<Tavrel::Math::Vec4<S>> {
    using Scalar = S;
    static constexpr int kCount = 4;
};
template <typename S, int R, int C> struct Components<Tavrel::Math::Mat<S, R, C>> {
    using Scalar = S;
    static constexpr int kCount = R * C;
};

template <typename T> inline auto* scalars(T& v)
{
    return reinterpret_cast<typename Components<T>::Scalar*>(&v);
}
template <typename T> inline auto const* scalars(T const& v)
{
    return reinterpret_cast<typename Components<T>::Scalar const*>(&v);
}

/// @p x stored in scalar type S: floating types round, integer types truncate towards zero,
/// values beyond the type's range are held at its ends (and NaN gives 0) so that the
/// conversion is always defined.
template <typename S> inline S storeAs(double x)
{
    if constexpr (std::is_floating_point_v<S>) {
        return static_cast<S>(x);
    } else {
        if (!(x == x))
            return S(0);
        double const t = std::trunc(x);
        if (t <= double(std::numeric_limits<S>::min()))
            return std::numeric_limits<S>::min();
        // The largest 64-bit integers are not doubles: compare against the next power of two.
        if (t >= double(std::numeric_limits<S>::max()))
            return std::numeric_limits<S>::max();
        return static_cast<S>(t);
    }
}

/// sum += w * v by component: in the element type, so that integer sums truncate.
template <typename T> inline void addWeighted(T& sum, float w, T const& v)
{
    using S = typename Components<T>::Scalar;
    S* s = scalars(sum);
    S const* x = scalars(v);
    for (int c = 0; c < Components<T>::kCount; ++c) {
        if constexpr (std::is_floating_point_v<S>)
            s[c] = s[c] + S(w) * x[c];
        else
            s[c] = storeAs<S>(double(s[c]) + double(w) * double(x[c]));
    }
}

/// @p sum / @p divisor by component, the quotient in double, stored in the element type.
template <typename T, typename Sum> inline T divided(Sum const& sum, double divisor)
{
    using S = typename Components<T>::Scalar;
    T r{};
    S* o = scalars(r);
    for (int c = 0; c < Components<T>::kCount; ++c)
        o[c] = storeAs<S>(double(sum[c]) / divisor);
    return r;
}

/// Euclidean norm of the difference by component (absolute difference for scalars).
template <typename T> inline double changeOf(T const& a, T const& b)
{
    using S = typename Components<T>::Scalar;
    S const* x = scalars(a);
    S const* y = scalars(b);
    if constexpr (Components<T>::kCount == 1)
        return std::fabs(double(x[0]) - double(y[0]));
    double s = 0.0;
    for (int c = 0; c < Components<T>::kCount; ++c) {
        double const d = double(x[c]) - double(y[c]);
        s += d * d;
    }
    return std::sqrt(s);
}

/// Per-component accumulator of plain sums: the element's scalar type for floating types, a
/// double for integer ones (six 64-bit or byte values must not wrap before the division).
template <typename T> struct PlainSum {
    using S = typename Components<T>::Scalar;
    using A = std::conditional_t<std::is_floating_point_v<S>, S, double>;
    A v[Components<T>::kCount] = {};
    void add(T const& x)
    {
        S const* p = scalars(x);
        for (int c = 0; c < Components<T>::kCount; ++c)
            v[c] += A(p[c]);
    }
    A operator[](int c) const { return v[c]; }
};

/// The fast-sweep update of the voxel at halo offset @p c: the neighbour with the smaller
/// distance on each axis is upwind, and counts when it lies no farther from the surface than
/// the voxel; weights are the distance differences. With no upwind neighbour at all the voxel
/// takes the mean of its six face neighbours. @return the change.
template <typename T, int E>
inline double updateVoxel(float const* d, T* v, std::ptrdiff_t c, bool flipInterior,
                          float distanceDefault)
{
    constexpr std::ptrdiff_t kStride[3] = {1, E, std::ptrdiff_t(E) * E};
    float const a0 = d[c];
    bool const flip = flipInterior && a0 <= 0.0f;
    T sum{};
    double weight = 0.0;
    for (std::ptrdiff_t s : kStride) {
        float dp = d[c + s], dm = d[c - s], a = a0;
        if (flip) {
            // A neighbour at the background (beyond the band) keeps its sign.
            if (!(dm >= distanceDefault))
                dm = -dm;
            if (!(dp >= distanceDefault))
                dp = -dp;
            a = -a;
        }
        if (dp > dm) {
            if (a >= dm) {
                float const w = a - dm;
                addWeighted(sum, w, v[c - s]);
                weight += w;
            }
        } else if (a >= dp) {
            float const w = a - dp;
            addWeighted(sum, w, v[c + s]);
            weight += w;
        }
    }
    T next;
    if (weight == 0.0) {
        PlainSum<T> all;
        for (std::ptrdiff_t s : kStride) {
            all.add(v[c - s]);
            all.add(v[c + s]);
        }
        next = divided<T>(all, 6.0);
    } else {
        next = divided<T>(scalars(sum), weight);
    }
    double const change = changeOf(next, v[c]);
    v[c] = next;
    return change;
}

/// The element-type half for one value channel.
template <typename Traits, typename T>
class TypedExtrapolationKernel final : public ExtrapolationKernel<Traits> {
    using Base = ExtrapolationKernel<Traits>;
    using Base::E;
    using Base::W;

public:
    TypedExtrapolationKernel(Container<Traits> const& container,
                             VoxelChannel<Traits, unsigned char> const& known,
                             VoxelChannel<Traits, T>& value, bool flipInterior,
                             float distanceDefault)
        : mContainer(&container), mKnown(&known), mValue(&value), mFlipInterior(flipInterior),
          mDistanceDefault(distanceDefault), mAccessor(container.tileAccessor()),
          mHalo(std::size_t(E) * E * E)
    {
    }
    TypedExtrapolationKernel(TypedExtrapolationKernel const& other)
        : Base(), mContainer(other.mContainer), mKnown(other.mKnown), mValue(other.mValue),
          mFlipInterior(other.mFlipInterior), mDistanceDefault(other.mDistanceDefault),
          mAccessor(other.mContainer->tileAccessor()), mHalo(std::size_t(E) * E * E)
    {
    }

    std::unique_ptr<Base> clone() const override
    {
        return std::make_unique<TypedExtrapolationKernel>(*this);
    }

    double sweep(SweepTile<Traits> const& s, int depth, float const* d,
                 std::uint8_t const* unknowns, std::array<TreeIndex, 6> const& faces,
                 bool& changed) override
    {
        TreeIndex const t{s.tile, depth};
        fillInteriorAndFaces(t, faces);
        T* v = mHalo.data();
        auto at = [](int i, int j, int k) {
            return std::ptrdiff_t((i + 1) + E * ((j + 1) + E * (k + 1)));
        };
        double change = 0.0;
        auto update = [&](std::ptrdiff_t c) {
            double const x = updateVoxel<T, E>(d, v, c, mFlipInterior, mDistanceDefault);
            if (x > change)
                change = x;
        };
        std::uint8_t const* const ids = unknowns + s.first;
        if (s.dense) {
            auto const known = mKnown->tileData(t);
            // The eight directions of travel (k, j, i), k outer and i inner.
            static constexpr int kDirections[8][3] = {{1, 1, 1},   {-1, -1, -1}, {-1, 1, 1},
                                                      {1, -1, -1}, {-1, -1, 1},  {1, 1, -1},
                                                      {1, -1, 1},  {-1, 1, -1}};
            for (auto const& dir : kDirections)
                for (int kk = 0; kk < W; ++kk) {
                    int const k = dir[0] > 0 ? kk : W - 1 - kk;
                    for (int jj = 0; jj < W; ++jj) {
                        int const j = dir[1] > 0 ? jj : W - 1 - jj;
                        for (int ii = 0; ii < W; ++ii) {
                            int const i = dir[2] > 0 ? ii : W - 1 - ii;
                            if (known(i, j, k) != 0)
                                continue;
                            update(at(i, j, k));
                        }
                    }
                }
        } else {
            // Few unknowns: each once in stored order and once in reverse.
            for (std::uint32_t n = 0; n < s.count; ++n)
                update(halo(ids[n]));
            for (std::uint32_t n = s.count; n-- > 0;)
                update(halo(ids[n]));
        }
        auto out = mValue->tileData(t);
        changed = false;
        for (std::uint32_t n = 0; n < s.count; ++n) {
            T const& next = v[halo(ids[n])];
            // Bits, not values: a zero that changes sign counts too.
            changed = changed || std::memcmp(&out[ids[n]], &next, sizeof(T)) != 0;
            out[ids[n]] = next;
        }
        return change;
    }

    void applyMeans(int depth, std::vector<LayerMean> const& means,
                    std::vector<LayerVoxel> const& sources) override
    {
        for (LayerMean const& m : means) {
            PlainSum<T> sum;
            for (std::uint32_t n = 0; n < m.count; ++n) {
                LayerVoxel const& s = sources[m.first + n];
                sum.add(mValue->tileData(s.tile, depth)[std::size_t(s.voxel)]);
            }
            mValue->tileData(m.target.tile, depth)[std::size_t(m.target.voxel)] =
                divided<T>(sum, double(m.count));
        }
    }

    void restrictFromChildren(int depth, bool knownChildrenOnly) override
    {
        constexpr int P = Traits::kVoxelsPerSlot;
        std::int64_t const n = mContainer->tileCount(depth);
        for (std::int64_t t = 0; t < n; ++t) {
            Tile<Traits> const& tile = mContainer->tile(t, depth);
            auto known = mKnown->tileData(t, depth);
            auto out = mValue->tileData(t, depth);
            if (known.empty() || out.empty())
                continue;
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i) {
                        if (known(i, j, k) != 0 || tile.isLeaf(i, j, k))
                            continue;
                        TreeIndex const c = tile.childTreeIndex(i / P, j / P, k / P);
                        auto const child = mValue->tileData(c);
                        if (child.empty())
                            continue;
                        // The child voxel at the low corner of the region this voxel covers.
                        int const ci = (i % P) * W / P, cj = (j % P) * W / P, ck = (k % P) * W / P;
                        if (knownChildrenOnly) {
                            auto const childKnown = mKnown->tileData(c);
                            if (childKnown.empty() || childKnown(ci, cj, ck) == 0)
                                continue;
                        }
                        out(i, j, k) = child(ci, cj, ck);
                    }
        }
    }

    void interpolateHanging(int depth, VoxelChannel<Traits, short> const& dof) override
    {
        using S = typename Components<T>::Scalar;
        constexpr int kHanging = 4, kNotInterpolated = 32;
        if (depth < 1)
            return;
        std::int64_t const pw = Container<Traits>::voxelDataWidth(depth - 1);
        std::int64_t const n = mContainer->tileCount(depth);
        for (std::int64_t t = 0; t < n; ++t) {
            Tile<Traits> const& tile = mContainer->tile(t, depth);
            if (tile.parent() < 0)
                continue;
            auto const flags = dof.tileData(t, depth);
            auto const known = mKnown->tileData(t, depth);
            auto out = mValue->tileData(t, depth);
            if (flags.empty() || known.empty() || out.empty())
                continue;
            std::int64_t const w = tile.voxelDataWidth();
            auto visit = [&](int i, int j, int k) {
                short const f = flags(i, j, k);
                if (!(f & kHanging) || (f & kNotInterpolated) || known(i, j, k) != 0)
                    return;
                std::int64_t const p[3] = {tile.ti() + i * w, tile.tj() + j * w, tile.tk() + k * w};
                std::int64_t base[3];
                double fraction[3];
                for (int a = 0; a < 3; ++a) {
                    std::int64_t const r = (p[a] + Traits::kCentreOffset) % pw;
                    base[a] = p[a] - r;
                    fraction[a] = double(r) / double(pw);
                }
                double mix[Components<T>::kCount] = {};
                for (int corner = 0; corner < 8; ++corner) {
                    double weight = 1.0;
                    std::int64_t q[3];
                    bool skip = false;
                    for (int a = 0; a < 3 && !skip; ++a) {
                        int const upper = (corner >> a) & 1;
                        // An axis on the coarse lattice does not mix.
                        skip = upper && fraction[a] == 0.0;
                        weight *= upper ? fraction[a] : 1.0 - fraction[a];
                        q[a] = base[a] + (upper ? pw : 0);
                    }
                    if (skip)
                        continue;
                    Tile<Traits> const& c = mAccessor.tile(q[0], q[1], q[2], depth - 1);
                    if (!c.valid())
                        return;
                    auto const cv = mValue->tileData(c.treeIndex());
                    if (cv.empty())
                        return;
                    std::int64_t const cw = c.voxelDataWidth();
                    S const* x = scalars(cv(int((q[0] - c.ti()) / cw), int((q[1] - c.tj()) / cw),
                                            int((q[2] - c.tk()) / cw)));
                    for (int m = 0; m < Components<T>::kCount; ++m)
                        mix[m] += weight * double(x[m]);
                }
                out(i, j, k) = divided<T>(mix, 1.0);
            };
            for (int j = 0; j < W; ++j)
                for (int i = 0; i < W; ++i)
                    visit(i, j, 0);
            for (int k = 1; k < W; ++k)
                for (int i = 0; i < W; ++i)
                    visit(i, 0, k);
            for (int k = 1; k < W; ++k)
                for (int j = 1; j < W; ++j)
                    visit(0, j, k);
        }
    }

private:
    /// @brief The interior and the face rim of the value halo, by the rim rule of the halos:
    ///        from a face neighbour of the same depth its element as it is, from a coarser one
    ///        the element of the coarse voxel that covers the rim element, beyond the tree (or
    ///        where the channel has no block) the channel's default. The update reads no edge or
    ///        corner of the rim, which are left as they are.
    void fillInteriorAndFaces(TreeIndex const& t, std::array<TreeIndex, 6> const& faces)
    {
        auto const& values = std::as_const(*mValue);
        auto const own = values.tileData(t);
        for (int k = 0; k < W; ++k)
            for (int j = 0; j < W; ++j)
                for (int i = 0; i < W; ++i)
                    mHalo(i, j, k) = own(i, j, k);
        Tile<Traits> const& tile = mContainer->tile(t);
        std::int64_t const corner[3] = {tile.ti(), tile.tj(), tile.tk()};
        std::int64_t const w = tile.voxelDataWidth();
        for (int f = 0; f < 6; ++f) {
            int const axis = f / 2;
            bool const upper = f % 2 == 1;
            int const to = upper ? W : -1;
            TreeIndex const n = faces[std::size_t(f)];
            auto const block = n.valid() ? values.tileData(n) : ConstTileData<T, W, 0, 0>();
            auto at = [&](int a, int b, int(&idx)[3]) {
                idx[axis] = to;
                idx[(axis + 1) % 3] = a;
                idx[(axis + 2) % 3] = b;
            };
            if (block.size() != std::size_t(W) * W * W) {
                for (int b = 0; b < W; ++b)
                    for (int a = 0; a < W; ++a) {
                        int idx[3];
                        at(a, b, idx);
                        mHalo(idx[0], idx[1], idx[2]) = values.defaultValue();
                    }
                continue;
            }
            if (n.depth == t.depth) {
                // The neighbour's layer that touches the tile.
                for (int b = 0; b < W; ++b)
                    for (int a = 0; a < W; ++a) {
                        int idx[3];
                        at(a, b, idx);
                        int src[3] = {idx[0], idx[1], idx[2]};
                        src[axis] = upper ? 0 : W - 1;
                        mHalo(idx[0], idx[1], idx[2]) = block(src[0], src[1], src[2]);
                    }
                continue;
            }
            Tile<Traits> const& nb = mContainer->tile(n);
            std::int64_t const nc[3] = {nb.ti(), nb.tj(), nb.tk()};
            std::int64_t const nw = nb.voxelDataWidth();
            for (int b = 0; b < W; ++b)
                for (int a = 0; a < W; ++a) {
                    int idx[3], src[3];
                    at(a, b, idx);
                    for (int c = 0; c < 3; ++c)
                        src[c] = int((corner[c] + idx[c] * w - nc[c]) / nw);
                    mHalo(idx[0], idx[1], idx[2]) = block(src[0], src[1], src[2]);
                }
        }
    }

    /// Halo offset of local index @p n.
    static std::ptrdiff_t halo(int n)
    {
        int const i = n % W, j = (n / W) % W, k = n / (W * W);
        return std::ptrdiff_t((i + 1) + E * ((j + 1) + E * (k + 1)));
    }

    Container<Traits> const* mContainer;
    VoxelChannel<Traits, unsigned char> const* mKnown;
    VoxelChannel<Traits, T>* mValue;
    bool mFlipInterior;
    float mDistanceDefault;
    typename Container<Traits>::ConstTileAccessor mAccessor;
    TileData<T, W, 1, 0> mHalo;
};

} // namespace VolumeGL::TileTree3D::LevelSet::detail

namespace VolumeGL::TileTree3D::LevelSet {

template <typename Traits, typename T>
void extrapolateChannel(ExtrapolationType type, TVL::TileTree3D::Container<Traits> const& container,
                        TVL::TileTree3D::VoxelTopology<Traits> const& topology,
                        TVL::TileTree3D::VoxelChannel<Traits, unsigned char>& io_known,
                        TVL::TileTree3D::VoxelChannel<Traits, T>& io_value,
                        TVL::TileTree3D::VoxelChannel<Traits, float> const* distance,
                        TVL::TileTree3D::VoxelChannel<Traits, short> const* dof, int minDepth,
                        int maxDepth, bool flipInterior)
{
    bool const verbose = CoreGL::Logger::verboseLevel() > 0;
    switch (type) {
    case kExtrapolateFMM:
        if (verbose)
            std::cout << "extrapolateChannel: kExtrapolateFMM not yet implemented (use "
                         "kExtrapolateFSM)\n";
        return;
    case kExtrapolateFSM:
        if (!distance) {
            if (CoreGL::Logger::errorVerboseLevel() > 0)
                std::cerr << "Error: extrapolateChannel.extrapolateFSM requires "
                             "in_distanceChannel!=nullptr\n";
            return;
        }
        break;
    case kExtrapolateLayers:
        break;
    default:
        if (verbose)
            std::cout << "extrapolateChannel: unknown extrapolation mode = " << int(type) << '\n';
        return;
    }
    auto const start = std::chrono::steady_clock::now();
    detail::TypedExtrapolationKernel<Traits, T> kernel(container, std::as_const(io_known), io_value,
                                                       flipInterior,
                                                       distance ? distance->defaultValue() : 0.0f);
    if (type == kExtrapolateFSM)
        detail::extrapolateFSM(container, std::as_const(io_known), *distance, io_value,
                               flipInterior, kernel);
    else
        detail::extrapolateLayers(container, std::as_const(io_known), io_value, dof, minDepth,
                                  maxDepth, kernel);
    if (verbose)
        std::cout << "Extrapolation time = "
                  << std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count()
                  << " seconds\n";
}

} // namespace VolumeGL::TileTree3D::LevelSet

/// The exported instances of one tree type and element type.
#define HEXMOLD_INSTANTIATE_EXTRAPOLATE_CHANNEL(TR, T)                                             \
    template HEXMOLD_API decltype(VolumeGL::TileTree3D::LevelSet::extrapolateChannel<TR, T>)       \
        VolumeGL::TileTree3D::LevelSet::extrapolateChannel<TR, T>;
