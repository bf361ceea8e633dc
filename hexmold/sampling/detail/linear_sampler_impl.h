/// @file  sampling/detail/linear_sampler_impl.h
/// @brief Bodies of the linear sampler and of its thread-safe wrapper. Included only by the
///        sampler's shards.
#pragma once
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <hexmold/platform/tavrel/math.h>
#include <hexmold/sampling/linear_sampler.h>
#include <hexmold/substrate/halo.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/visitor.h>
#include <memory>
#include <type_traits>
#include <vector>

namespace TVL::TileTree3D::detail {

using Tavrel::Math::double3;

/// The scalar of an element type: what its fractions are converted to before blending.
template <typename T, typename = void> struct SamplerScalar {
    using Type = T;
};
template <typename T> struct SamplerScalar<T, std::void_t<typename T::ValueType>> {
    using Type = typename T::ValueType;
};

/// a (1 - t) + b t, in the arithmetic of the element type. The form keeps two values of opposite
/// sign near the largest float from overflowing, as a + (b - a) t would.
template <typename T, typename F> inline T blendLinear(T const& a, T const& b, F t)
{
    return static_cast<T>(a * static_cast<F>(F(1) - t) + b * t);
}

/// Bit of the neighbour across the high sides @p sides (bit 0: +x, bit 1: +y, bit 2: +z) in a
/// tile's entry of the neighbour table.
constexpr unsigned neighbourBit(unsigned sides)
{
    return 1u << sides;
}

/// The bits a cell needs when it reaches across the high sides @p sides: every neighbour across a
/// non-empty subset of them.
constexpr unsigned neighboursNeeded(unsigned sides)
{
    unsigned m = 0;
    for (unsigned s = 1; s < 8; ++s)
        if ((s & sides) == s)
            m |= neighbourBit(s);
    return m;
}

/// floor(a / b) for b > 0.
inline std::int64_t floorDiv(std::int64_t a, std::int64_t b)
{
    std::int64_t const q = a / b;
    return (a % b != 0 && a < 0) ? q - 1 : q;
}

/// A tile as the cell-centred path reads it: its block in the copy, and which of its seven
/// high-side neighbours exist at its depth (bits of `neighbourBit`). One record, so that a sample
/// touches one small entry instead of the block's bookkeeping and a table beside it.
template <typename T> struct TileView {
    T const* data = nullptr; ///< (W + 1)^3 elements; null where the copy has no block
    unsigned neighbours = 0;
};

/// What the copies of a sampler share: the channel copied with one extra sample per axis, and a
/// view of every tile of it.
template <typename Traits, typename T> struct LinearSamplerShared {
    static constexpr int W = Traits::kTileWidth;
    using Copy = Channel<Traits, T, W + 1, 0, 0>;

    Copy copy;
    std::vector<TileView<T>> views[Traits::kDepthCount];

    /// A tile of the deepest depth as the direct path reads it: its corner, its view, in one
    /// record of half a cache line, so that a sample there costs one probe and its block.
    struct DeepEntry {
        std::int32_t i, j, k;
        std::uint32_t neighbours; ///< bits of `neighbourBit`; kOccupied marks a used slot
        T const* data;            ///< null where the copy has no block
        std::uint64_t spare;      ///< pads to 32 bytes: an entry never straddles two lines
    };
    static constexpr std::uint32_t kOccupied = 1u << 31;
    /// Open-addressing table of the tiles of `deepDepth`, keyed by their corners; empty when the
    /// channel has no tile there.
    std::vector<DeepEntry> deep;
    std::uint64_t deepMask = 0;
    int deepDepth = -1;

    static std::uint64_t deepHash(std::int64_t i, std::int64_t j, std::int64_t k)
    {
        std::uint64_t h = static_cast<std::uint64_t>(i) * 0x9E3779B97F4A7C15ULL ^
                          static_cast<std::uint64_t>(j) * 0xC2B2AE3D27D4EB4FULL ^
                          static_cast<std::uint64_t>(k) * 0x165667B19E3779F9ULL;
        h ^= h >> 29;
        h *= 0xBF58476D1CE4E5B9ULL;
        return h ^ (h >> 32);
    }
    /// The entry of the tile of `deepDepth` with corner (i, j, k), or null when there is none.
    DeepEntry const* findDeep(std::int64_t i, std::int64_t j, std::int64_t k) const
    {
        if (deep.empty())
            return nullptr;
        for (std::uint64_t b = deepHash(i, j, k) & deepMask;; b = (b + 1) & deepMask) {
            DeepEntry const& e = deep[b];
            if (!(e.neighbours & kOccupied))
                return nullptr;
            if (e.i == i && e.j == j && e.k == k)
                return &e;
        }
    }

    LinearSamplerShared(Container<Traits> const& container, VoxelTopology<Traits> const& topology,
                        VoxelChannel<Traits, T> const& channel)
        : copy(Quillon::String(), &channel.defaultValue(), kDataElementInitializerTemporary, false,
               false, channel.minDepth(), channel.depth())
    {
        copy.setTargetName(topology.name());
        // Sized by the tree itself: it is the tree the sampler walks.
        copy.update(container);
        computeHalo<Traits, T, 0, 0, 1, 0>(channel, container, copy, channel.minDepth(),
                                           channel.depth());

        int const lo = std::max(channel.minDepth(), 0);
        int const hi = std::min(channel.depth(), Traits::kMaxDepth);
        for (int d = lo; d <= hi; ++d)
            views[d].resize(static_cast<std::size_t>(container.tileCount(d)));
        auto table = [this, acc = container.tileAccessor()](Tile<Traits> const& tile) mutable {
            TileView<T>& view = views[tile.depth()][static_cast<std::size_t>(tile.index())];
            auto const* block = copy.block(tile.index(), tile.depth());
            view.data = block && block->size() == std::size_t(W + 1) * (W + 1) * (W + 1)
                            ? block->data()
                            : nullptr;
            for (unsigned s = 1; s < 8; ++s) {
                int const dir = neighborDirection(int(s & 1), int((s >> 1) & 1), int((s >> 2) & 1));
                Tile<Traits> const& n = acc.tileNeighbor(tile, dir);
                if (n.valid() && n.depth() == tile.depth())
                    view.neighbours |= neighbourBit(s);
            }
        };
        auto const none = [](auto const&...) {};
        container.traverse(none, none, table, none, NoVoxelVisit{}, kTraversalUnordered, kNoTile,
                           lo, hi, 1, true, 0, Traits::kRatio, false, Traits::kMaxDepth - 3);

        // The direct table of the deepest depth, at most half full.
        if (lo <= hi && container.tileCount(hi) > 0) {
            std::uint64_t const n = static_cast<std::uint64_t>(container.tileCount(hi));
            std::uint64_t capacity = 16;
            while (capacity < 2 * n)
                capacity *= 2;
            deep.assign(capacity, DeepEntry{0, 0, 0, 0, nullptr, 0});
            deepMask = capacity - 1;
            deepDepth = hi;
            for (std::int64_t t = 0; t < container.tileCount(hi); ++t) {
                Tile<Traits> const& tile = container.tile(t, hi);
                TileView<T> const& view = views[hi][static_cast<std::size_t>(t)];
                std::uint64_t b = deepHash(tile.ti(), tile.tj(), tile.tk()) & deepMask;
                while (deep[b].neighbours & kOccupied)
                    b = (b + 1) & deepMask;
                deep[b] = DeepEntry{tile.ti(), tile.tj(), tile.tk(), view.neighbours | kOccupied,
                                    view.data, 0};
            }
        }
    }
};

/// The trilinear blend of the corners @p v (x fastest) with fractions @p frac, axis by axis; an
/// axis without a fraction is not blended. In the integer element instances the fractions,
/// converted to the element type, are 0: the caller returns the first corner before this.
template <typename T>
inline T blendCorners(T const (&v)[8], double const (&frac)[3], bool const (&moves)[3])
{
    using Scalar = typename SamplerScalar<T>::Type;
    Scalar const fx = static_cast<Scalar>(frac[0]), fy = static_cast<Scalar>(frac[1]),
                 fz = static_cast<Scalar>(frac[2]);
    T c[4]{};
    for (int r = 0; r < 4; ++r) {
        if (((r & 1) && !moves[1]) || ((r >> 1) && !moves[2]))
            continue;
        c[r] = moves[0] ? blendLinear(v[2 * r], v[2 * r + 1], fx) : v[2 * r];
    }
    T b[2]{};
    for (int r = 0; r < 2; ++r) {
        if (r && !moves[2])
            continue;
        b[r] = moves[1] ? blendLinear(c[2 * r], c[2 * r + 1], fy) : c[2 * r];
    }
    return moves[2] ? blendLinear(b[0], b[1], fz) : b[0];
}

} // namespace TVL::TileTree3D::detail

namespace TVL::TileTree3D {

// ---- the base ----------------------------------------------------------------------------------

template <typename Traits, typename T, typename Vec>
VoxelSampler<Traits, T, Vec>::VoxelSampler(T const& defaultValue) : mDefault(defaultValue)
{
}

template <typename Traits, typename T, typename Vec>
VoxelSampler<Traits, T, Vec>::~VoxelSampler() = default;

template <typename Traits, typename T, typename Vec>
char const* VoxelSampler<Traits, T, Vec>::name() const
{
    return "kNone";
}

template <typename Traits, typename T, typename Vec>
T VoxelSampler<Traits, T, Vec>::value(Vec const&)
{
    return mDefault;
}

template <typename Traits, typename T, typename Vec>
T VoxelSampler<Traits, T, Vec>::valueAtTileSpace(Vec const&, int)
{
    return mDefault;
}

// ---- the linear sampler ------------------------------------------------------------------------

template <typename Traits, typename T, int N, int S, typename Vec>
VoxelSamplerLinear<Traits, T, N, S, Vec>::VoxelSamplerLinear(Container<Traits> const& container,
                                                             VoxelTopology<Traits> const& topology,
                                                             ChannelType const& channel)
    : VoxelSampler<Traits, T, Vec>(channel.defaultValue()), mContainer(&container),
      mAccessor(container.tileAccessor()), mNeighbourAccessor(container.tileAccessor()),
      mInverseVoxelSize(container.voxelSize() != 0.0f ? 1.0 / double(container.voxelSize()) : 0.0),
      mOffset(Tavrel::Math::convert<double>(topology.offset())), mOffsetType(topology.offsetType()),
      mChannel(&channel), mMinDepth(std::max(channel.minDepth(), 0)),
      mMaxDepth(std::min(channel.depth(), Traits::kMaxDepth))
{
    if (mOffsetType == kVoxelOffsetCenter)
        mShared = std::make_shared<Shared const>(container, topology, channel);
}

template <typename Traits, typename T, int N, int S, typename Vec>
VoxelSamplerLinear<Traits, T, N, S, Vec>::VoxelSamplerLinear(VoxelSamplerLinear const& other) =
    default;

template <typename Traits, typename T, int N, int S, typename Vec>
VoxelSamplerLinear<Traits, T, N, S, Vec>&
VoxelSamplerLinear<Traits, T, N, S, Vec>::operator=(VoxelSamplerLinear const& other) = default;

template <typename Traits, typename T, int N, int S, typename Vec>
VoxelSamplerLinear<Traits, T, N, S, Vec>::~VoxelSamplerLinear() = default;

template <typename Traits, typename T, int N, int S, typename Vec>
char const* VoxelSamplerLinear<Traits, T, N, S, Vec>::name() const
{
    return "kLinear";
}

template <typename Traits, typename T, int N, int S, typename Vec>
bool VoxelSamplerLinear<Traits, T, N, S, Vec>::readsHaloCopy() const
{
    return mShared != nullptr;
}

template <typename Traits, typename T, int N, int S, typename Vec>
T const* VoxelSamplerLinear<Traits, T, N, S, Vec>::blockOf(TileType const& tile) const
{
    if (mShared)
        return mShared->views[tile.depth()][static_cast<std::size_t>(tile.index())].data;
    auto const* b = mChannel->block(tile.index(), tile.depth());
    return b && b->size() == std::size_t(N) * N * N ? b->data() : nullptr;
}

template <typename Traits, typename T, int N, int S, typename Vec>
T VoxelSamplerLinear<Traits, T, N, S, Vec>::value(Vec const& world)
{
    // The topology's transform: the sample of a finest voxel with corner c sits at c.
    Tavrel::Math::double3 const p{double(world.x) * mInverseVoxelSize - mOffset.x,
                                  double(world.y) * mInverseVoxelSize - mOffset.y,
                                  double(world.z) * mInverseVoxelSize - mOffset.z};
    return sampleAt(p, Traits::kMaxDepth, std::min(Traits::kMaxDepth, mMaxDepth));
}

template <typename Traits, typename T, int N, int S, typename Vec>
T VoxelSamplerLinear<Traits, T, N, S, Vec>::valueAtTileSpace(Vec const& tileSpace, int maxDepth)
{
    int const depth = std::clamp(maxDepth, 0, Traits::kMaxDepth);
    return sampleAt(
        Tavrel::Math::double3{double(tileSpace.x), double(tileSpace.y), double(tileSpace.z)}, depth,
        std::min(depth, mMaxDepth));
}

template <typename Traits, typename T, int N, int S, typename Vec>
T VoxelSamplerLinear<Traits, T, N, S, Vec>::sampleAt(Tavrel::Math::double3 const& p, int depth,
                                                     int searchDepth)
{
    // Far outside the tree (or not a number): nothing there. The bound keeps floor() in range.
    constexpr double kBeyond = 4.0e9;
    if (!(std::abs(p.x) < kBeyond && std::abs(p.y) < kBeyond && std::abs(p.z) < kBeyond))
        return this->mDefault;
    if (searchDepth < mMinDepth)
        return this->mDefault;
    if (mShared && searchDepth == mShared->deepDepth) {
        // The direct path: a tile of the deepest depth holds the point and the cell's corners lie
        // in its block. The same arithmetic as `lookup`, without reading the tile's record.
        std::int64_t const f[3] = {std::int64_t(std::floor(p.x)), std::int64_t(std::floor(p.y)),
                                   std::int64_t(std::floor(p.z))};
        std::int64_t const tw = Container<Traits>::tileVoxelWidth(searchDepth);
        std::int64_t corner[3];
        for (int a = 0; a < 3; ++a)
            corner[a] =
                detail::floorDiv(f[a] + Traits::kCentreOffset, tw) * tw - Traits::kCentreOffset;
        if (auto const* e = mShared->findDeep(corner[0], corner[1], corner[2])) {
            if (!e->data)
                return this->mDefault;
            std::int64_t const w = Container<Traits>::voxelDataWidth(searchDepth);
            std::int64_t cell[3];
            for (int a = 0; a < 3; ++a)
                cell[a] = w == 1 ? f[a] - corner[a] : detail::floorDiv(f[a] - corner[a], w);
            constexpr int E = Traits::kTileWidth + 1;
            int const ci = int(cell[0]), cj = int(cell[1]), ck = int(cell[2]);
            T const* const base = e->data + (ci + E * (cj + E * ck));
            if constexpr (std::is_integral_v<typename detail::SamplerScalar<T>::Type>) {
                return *base;
            } else {
                double frac[3];
                bool moves[3];
                for (int a = 0; a < 3; ++a) {
                    frac[a] = (p[a] - double(corner[a] + cell[a] * w)) / double(w);
                    moves[a] = frac[a] > 0.0;
                }
                if (!moves[0] && !moves[1] && !moves[2])
                    return *base;
                constexpr int W = Traits::kTileWidth;
                unsigned const sides = unsigned(moves[0] && ci == W - 1) |
                                       (unsigned(moves[1] && cj == W - 1) << 1) |
                                       (unsigned(moves[2] && ck == W - 1) << 2);
                unsigned const needed = detail::neighboursNeeded(sides);
                if ((e->neighbours & needed) == needed) {
                    T v[8]{};
                    for (int n = 0; n < 8; ++n) {
                        int const ex = n & 1, ey = (n >> 1) & 1, ez = n >> 2;
                        if ((ex && !moves[0]) || (ey && !moves[1]) || (ez && !moves[2]))
                            continue;
                        v[n] = base[ex + E * (ey + E * ez)];
                    }
                    return detail::blendCorners(v, frac, moves);
                }
            }
        }
    }
    TileType const& tile =
        mAccessor.tile(std::int64_t(std::floor(p.x)), std::int64_t(std::floor(p.y)),
                       std::int64_t(std::floor(p.z)), searchDepth);
    return lookup(&tile, p, depth);
}

template <typename Traits, typename T, int N, int S, typename Vec>
T VoxelSamplerLinear<Traits, T, N, S, Vec>::lookup(TileType const* tile,
                                                   Tavrel::Math::double3 const& p, int D)
{
    using Scalar = typename detail::SamplerScalar<T>::Type;
    constexpr int W = N;
    T const& def = this->mDefault;
    // The sentinel is told by its address: its valid flag sits in another cache line than the
    // corner and depth that are read next.
    if (tile == &Container<Traits>::sentinel() || tile->depth() < mMinDepth ||
        tile->depth() > mMaxDepth)
        return def;

    int d = tile->depth();
    std::int64_t w = Container<Traits>::voxelDataWidth(d);
    Tavrel::Math::double3 q = p;
    std::int64_t cell[3];
    if (mOffsetType == kVoxelOffsetCenter || d == D) {
        // The voxel holding the point; a voxel of width w sits at its corner.
        int3 const corner = tile->tijk();
        for (int a = 0; a < 3; ++a) {
            std::int64_t const offset = std::int64_t(std::floor(p[a])) - std::int64_t(corner[a]);
            cell[a] = w == 1 ? offset : detail::floorDiv(offset, w); // finest voxels: no division
        }
    } else {
        // Sample offsets at both resolutions: the depth-d voxel with corner c sits at
        // c + (w - wD) * offset in the depth-D convention of p. The shift is towards low
        // coordinates, so a cell may start in the tile below; continue there, in whatever tile
        // holds that place at this depth, with that tile's widths.
        std::int64_t const wD = Container<Traits>::voxelDataWidth(D);
        for (int step = 0;; ++step) {
            int3 const corner = tile->tijk();
            bool below = false;
            for (int a = 0; a < 3; ++a) {
                q[a] = p[a] + double(wD - w) * mOffset[a];
                cell[a] =
                    detail::floorDiv(std::int64_t(std::floor(q[a])) - std::int64_t(corner[a]), w);
                below |= cell[a] < 0;
            }
            if (!below)
                break;
            std::int64_t const tw = Container<Traits>::tileVoxelWidth(d);
            std::int64_t target[3];
            for (int a = 0; a < 3; ++a)
                target[a] = std::int64_t(corner[a]) - (cell[a] < 0 ? tw : 0);
            tile = &mNeighbourAccessor.tile(target[0], target[1], target[2], d);
            if (tile == &Container<Traits>::sentinel() || tile->depth() < mMinDepth ||
                step > 2 * Traits::kDepthCount)
                return def;
            d = tile->depth();
            w = Container<Traits>::voxelDataWidth(d);
        }
    }

    T const* data;
    unsigned table = 0;
    if (tile == mCachedTile) {
        data = mCachedData;
        table = mCachedMask;
    } else {
        if (mShared) {
            detail::TileView<T> const& view =
                mShared->views[d][static_cast<std::size_t>(tile->index())];
            data = view.data;
            table = view.neighbours;
        } else {
            data = blockOf(*tile);
        }
        mCachedTile = tile;
        mCachedData = data;
        mCachedMask = table;
    }
    if (!data)
        return def;
    int const edge = mShared ? W + 1 : W;
    int const ci = int(cell[0]), cj = int(cell[1]), ck = int(cell[2]);
    T const* const base = data + (ci + edge * (cj + edge * ck));

    if constexpr (std::is_integral_v<Scalar>) {
        // The fractions, converted to an integer element type, are 0: the first corner.
        return *base;
    } else {
        int3 const corner = tile->tijk();
        double frac[3];
        bool moves[3];
        for (int a = 0; a < 3; ++a) {
            frac[a] = (q[a] - double(std::int64_t(corner[a]) + cell[a] * w)) / double(w);
            moves[a] = frac[a] > 0.0;
        }
        if (!moves[0] && !moves[1] && !moves[2])
            return *base; // exactly on a voxel

        // Corners beyond the high sides of the tile.
        unsigned const sides = unsigned(moves[0] && ci == W - 1) |
                               (unsigned(moves[1] && cj == W - 1) << 1) |
                               (unsigned(moves[2] && ck == W - 1) << 2);
        T v[8]{}; // corners on an axis without a fraction stay unread
        if (sides == 0 || (mShared && (table & detail::neighboursNeeded(sides)) ==
                                          detail::neighboursNeeded(sides))) {
            // All eight in this block (the copy's extra layer holds the same-depth neighbours).
            for (int e = 0; e < 8; ++e) {
                int const ex = e & 1, ey = (e >> 1) & 1, ez = e >> 2;
                if ((ex && !moves[0]) || (ey && !moves[1]) || (ez && !moves[2]))
                    continue;
                v[e] = base[ex + edge * (ey + edge * ez)];
            }
        } else {
            for (int e = 0; e < 8; ++e) {
                int const ex = e & 1, ey = (e >> 1) & 1, ez = e >> 2;
                if ((ex && !moves[0]) || (ey && !moves[1]) || (ez && !moves[2]))
                    continue;
                int const idx[3] = {ci + ex, cj + ey, ck + ez};
                unsigned const out = unsigned(idx[0] == W) | (unsigned(idx[1] == W) << 1) |
                                     (unsigned(idx[2] == W) << 2);
                if (out == 0 || (mShared && (table & detail::neighbourBit(out)))) {
                    v[e] = base[ex + edge * (ey + edge * ez)];
                    continue;
                }
                int const dir =
                    neighborDirection(int(out & 1), int((out >> 1) & 1), int((out >> 2) & 1));
                TileType const& neighbour = mNeighbourAccessor.tileNeighbor(*tile, dir);
                if (&neighbour != &Container<Traits>::sentinel() && neighbour.depth() == d) {
                    T const* nd = blockOf(neighbour);
                    v[e] =
                        nd ? nd[(idx[0] % W) + edge * ((idx[1] % W) + edge * (idx[2] % W))] : def;
                } else {
                    // A coarser neighbour (or none): sample it at the corner's exact position.
                    Tavrel::Math::double3 const at{double(std::int64_t(corner[0]) + idx[0] * w),
                                                   double(std::int64_t(corner[1]) + idx[1] * w),
                                                   double(std::int64_t(corner[2]) + idx[2] * w)};
                    v[e] = lookup(&neighbour, at, d);
                }
            }
        }
        return detail::blendCorners(v, frac, moves);
    }
}

// ---- the thread-safe wrapper -------------------------------------------------------------------

template <typename Traits, typename T> struct LinearVolumeSampler<Traits, T>::Workers {
    /// One copy of the exemplar per thread, made on the thread's first use.
    Parallel::enumerable_thread_specific<Exemplar> samplers;
    explicit Workers(Exemplar const& exemplar) : samplers(exemplar) {}
};

template <typename Traits, typename T>
LinearVolumeSampler<Traits, T>::LinearVolumeSampler(Container<Traits> const& container,
                                                    VoxelTopology<Traits> const& topology,
                                                    VoxelChannel<Traits, T> const& channel)
    : mWorkers(std::make_unique<Workers>(Exemplar(container, topology, channel)))
{
}

template <typename Traits, typename T>
LinearVolumeSampler<Traits, T>::~LinearVolumeSampler() = default;

template <typename Traits, typename T>
T LinearVolumeSampler<Traits, T>::sample(Tavrel::Math::float3 const& world) const
{
    return mWorkers->samplers.local().value(world);
}

template <typename Traits, typename T> char const* LinearVolumeSampler<Traits, T>::name() const
{
    return "kLinear";
}

} // namespace TVL::TileTree3D

/// The sampler classes of tree TR and element type T.
#define HEXMOLD_INSTANTIATE_LINEAR_SAMPLER(TR, T)                                                  \
    template class VoxelSampler<TR, T, float3>;                                                    \
    template class VoxelSampler<TR, T, double3>;                                                   \
    template class VoxelSamplerLinear<TR, T, TR::kTileWidth, 2, float3>;                           \
    template class VoxelSamplerLinear<TR, T, TR::kTileWidth, 2, double3>;                          \
    template class LinearVolumeSampler<TR, T>;
