/// @file  analysis/detail/channel_coarsen_impl.h
/// @brief Bodies of channel coarsening: the interpolation test of a child tile, the passes that
///        collect tiles to remove, the band stage and the removal that the channels follow.
///        Included by the shards, which instantiate one tree type each.
#pragma once
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <hexmold/analysis/channel_coarsen.h>
#include <hexmold/analysis/detail/channel_coarsen_typed.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/platform/tavrel/math.h>
#include <hexmold/substrate/cancel.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/channel_update.h>
#include <hexmold/substrate/commands.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/halo.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/substrate/type_lists.h>
#include <hexmold/substrate/visitor.h>
#include <initializer_list>
#include <iostream>
#include <memory>
#include <span>
#include <type_traits>
#include <utility>
#include <vector>

namespace VolumeGL::TileTree3D::detail {

using namespace TVL::TileTree3D;
using CoreGL::Logger;

/// Grain of the reductions over tiles: a tile's work is light.
inline constexpr std::uint64_t kReduceGrain = 50;

/// Per-depth byte per tile: the candidates of the test, the flags of the band.
using TileBytes = std::vector<std::vector<std::uint8_t>>;

/// Where each child sample lies among the parent's samples, per axis: for slot coordinate s and
/// child sample n (index s * W + n) the parent cell (its lower sample) and the fraction in it.
/// With sample offset o (0 for corners, 0.5 for centres) the child sample sits, in parent
/// sample coordinates, at u = s * vps + (n + o) / R - o, which lies within half a parent voxel
/// of the parent's outermost samples: the cell ranges over [-1, W - 1], the rim included.
template <typename Traits> struct SampleMap {
    static constexpr int W = Traits::kTileWidth;
    static constexpr int S = Traits::kSlotsPerAxis;
    int cell[3][S * W];
    double fraction[3][S * W];

    explicit SampleMap(VoxelOffsetType offset)
    {
        for (int a = 0; a < 3; ++a) {
            double const o = (int(offset) >> a) & 1 ? 0.5 : 0.0;
            for (int s = 0; s < S; ++s)
                for (int n = 0; n < W; ++n) {
                    double const u =
                        double(s * Traits::kVoxelsPerSlot) + (n + o) / Traits::kRatio - o;
                    int const c = std::clamp(int(std::floor(u)), -1, W - 1);
                    cell[a][s * W + n] = c;
                    fraction[a][s * W + n] = u - c;
                }
        }
    }
};

/// The interpolation test of one child tile against its parent, for one element type. Holds the
/// parent's samples with a rim of one sample, as doubles, loaded once per parent tile; a worker's
/// own copy.
///
/// The rim comes from the neighbours of the parent's depth (the halo rule: exact samples). Where
/// a neighbour is coarser, or missing, the rim is the linear extension of the parent's own
/// samples, axis by axis: a weighted mix of coarse samples that, unlike the covering coarse
/// voxel's value, reproduces linear fields, so that the test does not keep children for a
/// resolution jump next to their parent.
template <typename Traits, typename T> class ChildTest {
public:
    static constexpr int W = Traits::kTileWidth;
    static constexpr int E = W + 2;
    static constexpr int N = Tavrel::Math::ComponentCount<T>::value;
    static constexpr std::size_t kBlock = std::size_t(W) * W * W;
    static constexpr std::size_t kRimBlock = std::size_t(E) * E * E;

    ChildTest(SampleMap<Traits> const& map, double toleranceSquared)
        : mMap(&map), mToleranceSquared(toleranceSquared), mParent(kRimBlock * N),
          mHalo(kRimBlock, T{})
    {
    }
    ChildTest(ChildTest const& other)
        : mMap(other.mMap), mToleranceSquared(other.mToleranceSquared), mParent(kRimBlock * N),
          mHalo(kRimBlock, T{})
    {
    }

    void loadParent(Tile<Traits> const& tile, VoxelChannel<Traits, T> const& channel,
                    VoxelOffsetType offset, typename Container<Traits>::ConstTileAccessor& accessor)
    {
        setHaloTile<Traits, T, 0, 1, 0>(tile.treeIndex(), channel, kHaloModeGeneral, kHaloTypeAll,
                                        accessor, mHalo, channel.defaultValue(), 1.0f, offset);
        // Which rim parts read a neighbour of the same depth.
        bool exact[27];
        for (int dir = 0; dir < 27; ++dir) {
            Tile<Traits> const& n = accessor.tileNeighbor(tile, dir);
            exact[dir] = n.valid() && n.depth() == tile.depth();
        }
        for (int z = -1; z <= W; ++z)
            for (int y = -1; y <= W; ++y)
                for (int x = -1; x <= W; ++x) {
                    int const sx = x < 0 ? -1 : x >= W, sy = y < 0 ? -1 : y >= W,
                              sz = z < 0 ? -1 : z >= W;
                    int const dir = neighborDirection(sx, sy, sz);
                    if (dir != 13 && !exact[dir])
                        continue;
                    T const& v = mHalo(x, y, z);
                    for (int n = 0; n < N; ++n)
                        mParent[at(x, y, z) + n] = Tavrel::Math::componentAsDouble(v, n);
                }
        // The linear extension where no same-depth sample is: x first, then y, then z, each
        // pass reading what the earlier ones filled.
        auto extend = [&](int x, int y, int z, int axis) {
            int p[3] = {x, y, z};
            int const c = p[axis];
            int q0[3] = {x, y, z}, q1[3] = {x, y, z};
            q0[axis] = c < 0 ? 0 : W - 1;
            q1[axis] = c < 0 ? 1 : W - 2;
            for (int n = 0; n < N; ++n)
                mParent[at(x, y, z) + n] = 2.0 * mParent[at(q0[0], q0[1], q0[2]) + n] -
                                           mParent[at(q1[0], q1[1], q1[2]) + n];
        };
        for (int axis = 0; axis < 3; ++axis)
            for (int z = -1; z <= W; ++z)
                for (int y = -1; y <= W; ++y)
                    for (int x = -1; x <= W; ++x) {
                        int const p[3] = {x, y, z};
                        if (p[axis] >= 0 && p[axis] < W)
                            continue;
                        // Only the axes up to this one may leave the tile.
                        bool later = false;
                        for (int b = axis + 1; b < 3; ++b)
                            later = later || p[b] < 0 || p[b] >= W;
                        if (later)
                            continue;
                        int const sx = x < 0 ? -1 : x >= W, sy = y < 0 ? -1 : y >= W,
                                  sz = z < 0 ? -1 : z >= W;
                        if (exact[neighborDirection(sx, sy, sz)])
                            continue;
                        extend(x, y, z, axis);
                    }
    }

    /// Whether the parent loaded last reproduces the child in @p slot within the tolerance. With
    /// @p errorOut every sample is measured and the square root of its error written there;
    /// without it the test stops at the first sample over the tolerance.
    bool passes(int3 const& slot, T const* child, float* errorOut) const
    {
        bool pass = true;
        for (int k = 0; k < W; ++k) {
            int const cz = mMap->cell[2][slot.z * W + k];
            double const fz = mMap->fraction[2][slot.z * W + k];
            for (int j = 0; j < W; ++j) {
                int const cy = mMap->cell[1][slot.y * W + j];
                double const fy = mMap->fraction[1][slot.y * W + j];
                for (int i = 0; i < W; ++i) {
                    int const cx = mMap->cell[0][slot.x * W + i];
                    double const fx = mMap->fraction[0][slot.x * W + i];
                    std::size_t const v =
                        std::size_t(i) + W * (std::size_t(j) + W * std::size_t(k));
                    double const e = error(cx, cy, cz, fx, fy, fz, child[v]);
                    // Not "e > tolerance": a NaN error fails.
                    if (!(e <= mToleranceSquared)) {
                        pass = false;
                        if (!errorOut)
                            return false;
                    }
                    if (errorOut)
                        errorOut[v] = static_cast<float>(std::sqrt(e));
                }
            }
        }
        return pass;
    }

private:
    static double lerp(double a, double b, double f)
    {
        return a + f * (b - a);
    } // exact when a == b
    static std::size_t at(int x, int y, int z)
    {
        return (std::size_t(x + 1) + E * (std::size_t(y + 1) + E * std::size_t(z + 1))) * N;
    }

    /// Squared difference, over the components, of the trilinear interpolation in cell
    /// (cx, cy, cz) at fractions (fx, fy, fz) and the value @p c.
    double error(int cx, int cy, int cz, double fx, double fy, double fz, T const& c) const
    {
        std::size_t const p000 = at(cx, cy, cz), p100 = at(cx + 1, cy, cz),
                          p010 = at(cx, cy + 1, cz), p110 = at(cx + 1, cy + 1, cz),
                          p001 = at(cx, cy, cz + 1), p101 = at(cx + 1, cy, cz + 1),
                          p011 = at(cx, cy + 1, cz + 1), p111 = at(cx + 1, cy + 1, cz + 1);
        double sum = 0.0;
        for (int n = 0; n < N; ++n) {
            double const* p = mParent.data() + n;
            double const y0 = lerp(lerp(p[p000], p[p100], fx), lerp(p[p010], p[p110], fx), fy);
            double const y1 = lerp(lerp(p[p001], p[p101], fx), lerp(p[p011], p[p111], fx), fy);
            double const d = lerp(y0, y1, fz) - Tavrel::Math::componentAsDouble(c, n);
            sum += d * d;
        }
        return sum;
    }

    SampleMap<Traits> const* mMap;
    double mToleranceSquared;
    std::vector<double> mParent;
    TileData<T, Traits::kTileWidth, 1, 0> mHalo;
};

/// What the test pass needs besides the channel.
template <typename Traits> struct TestPass {
    VoxelOffsetType offset = kVoxelOffsetCenter;
    double toleranceSquared = -1.0; ///< negative: no child passes
    float minDetailSize = 0.0f;     ///< world; children with smaller voxels go untested
    float voxelSize = 1.0f;         ///< world size of a voxel of the deepest depth
    int minParentDepth = 0, maxParentDepth = -1;
    TraversalMode mode = kTraversalCoarsen;
    TileBytes* candidates = nullptr; ///< null: a passing child goes whatever its children do
    VoxelChannel<Traits, float>* error = nullptr;
};

template <typename Traits>
void joinLists(TileIndexLists<Traits>& left, TileIndexLists<Traits> const& right)
{
    for (int d = 0; d < Traits::kDepthCount; ++d)
        left[d].insert(left[d].end(), right[d].begin(), right[d].end());
}

/// The children that their parents reproduce, by depth, sorted. With candidates the pass must be
/// bottom-up: a tile that keeps a child is no candidate when its own parent is visited.
template <typename Traits, typename T>
TileIndexLists<Traits> collectReproducedChildren(Container<Traits> const& container,
                                                 VoxelChannel<Traits, T> const& channel,
                                                 TestPass<Traits> const& pass)
{
    using Lists = TileIndexLists<Traits>;
    constexpr std::size_t kBlock = std::size_t(Traits::kTileSize);
    Lists lists;
    if (pass.minParentDepth > pass.maxParentDepth)
        return lists;
    SampleMap<Traits> const map(pass.offset);
    auto perTile = [&container, &channel, &pass,
                    test = ChildTest<Traits, T>(map, pass.toleranceSquared)](
                       Tile<Traits> const& tile, Lists& out) mutable {
        if (TVL::bodyCancelled())
            return;
        if (tile.isLeaf())
            return;
        int const d = tile.depth();
        auto const parent = channel.tileData(tile.index(), d);
        bool loaded = false;
        double const childSize = double(Tile<Traits>::voxelDataWidth(d + 1)) * pass.voxelSize;
        for (int s = 0; s < Traits::kChildCount; ++s) {
            std::int64_t const c = tile.childIndex(s);
            if (c < 0)
                continue;
            // Finer than asked for: goes without a test.
            if (pass.minDetailSize > childSize) {
                out[d + 1].push_back(c);
                continue;
            }
            bool const candidate = !pass.candidates || (*pass.candidates)[d + 1][c];
            bool reproduced = false;
            auto const child = channel.tileData(c, d + 1);
            float* error = nullptr;
            if (pass.error) {
                auto e = pass.error->tileData(c, d + 1);
                if (e.size() == kBlock)
                    error = e.data();
            }
            if (parent.size() == kBlock && child.size() == kBlock && (candidate || error)) {
                if (!loaded) {
                    auto accessor = container.tileAccessor();
                    test.loadParent(tile, channel, pass.offset, accessor);
                }
                loaded = true;
                reproduced = test.passes(Tile<Traits>::slotCoordinates(s), child.data(), error);
            }
            if (reproduced && candidate)
                out[d + 1].push_back(c);
            else if (pass.candidates)
                (*pass.candidates)[d][tile.index()] = 0; // the child stays, and so must this tile
        }
    };
    auto const none = [](auto&&...) {};
    container.reduce(none, none, perTile, none, NoVoxelVisit{}, &joinLists<Traits>, lists,
                     pass.mode, kNoTile, pass.minParentDepth, pass.maxParentDepth, kReduceGrain, 0,
                     Traits::kRatio);
    TVL::throwIfJobCancelled();
    for (auto& list : lists)
        std::sort(list.begin(), list.end());
    return lists;
}

/// Removes the listed tiles with their descendants; the topology, the extracted channels and
/// every channel of @p object bound to the topology follow. @return tiles removed.
template <typename Traits>
std::int64_t removeAndFollow(Container<Traits>& container, VoxelTopology<Traits>& topology,
                             std::initializer_list<ChannelBase*> extracted, TVL::Object& object,
                             TileIndexLists<Traits> const& lists)
{
    bool any = false;
    for (auto const& list : lists)
        any = any || !list.empty();
    if (!any)
        return 0;
    TileMoveLists<Traits> moved;
    std::int64_t const removed = container.removeTiles(lists, moved, true);
    topology.update(container);
    std::span<TileMoveList const> const movedSpan(moved.data(), moved.size());
    for (ChannelBase* c : extracted)
        if (c)
            c->updateTilesRemoved(movedSpan, topology);
    updateTilesRemoved(movedSpan, topology, object);
    return removed;
}

/// Flags the tiles of depths [lo, hi] that have a voxel whose magnitude lies below the limit:
/// @p bandWidth, times the tile's voxel width in finest voxels when @p inVoxels.
template <typename Traits, typename T>
void flagBand(Container<Traits> const& container, VoxelChannel<Traits, T> const& channel, int lo,
              int hi, float bandWidth, bool inVoxels, TileBytes& flags)
{
    constexpr int N = Tavrel::Math::ComponentCount<T>::value;
    constexpr std::size_t kBlock = std::size_t(Traits::kTileSize);
    auto flag = [&](Tile<Traits> const& tile) {
        if (TVL::bodyCancelled())
            return;
        auto const data = channel.tileData(tile.index(), tile.depth());
        if (data.size() != kBlock)
            return;
        double const limit = double(bandWidth) * (inVoxels ? double(tile.voxelDataWidth()) : 1.0);
        double const limitSquared = limit * limit;
        for (std::size_t v = 0; v < kBlock; ++v) {
            double m = 0.0;
            for (int n = 0; n < N; ++n) {
                double const c = Tavrel::Math::componentAsDouble(data[v], n);
                m += c * c;
            }
            if (m < limitSquared) {
                flags[tile.depth()][tile.index()] = 1;
                return;
            }
        }
    };
    auto const none = [](auto const&...) {};
    container.traverse(none, none, flag, none, NoVoxelVisit{}, kTraversalUnordered, kNoTile, lo, hi,
                       1, true, 0, Traits::kRatio, false, Traits::kMaxDepth - 3);
    TVL::throwIfJobCancelled();
}

/// The tiles of depths [lo, hi] with neither a flag nor a flagged child, by depth, sorted.
/// Children first, so that a tile's flag is final when its parent reads it.
template <typename Traits>
TileIndexLists<Traits> unflaggedTiles(Container<Traits> const& container, int lo, int hi,
                                      TileBytes& flags)
{
    using Lists = TileIndexLists<Traits>;
    Lists lists;
    auto perTile = [&flags](Tile<Traits> const& tile, Lists& out) {
        if (TVL::bodyCancelled())
            return;
        int const d = tile.depth();
        std::uint8_t& flag = flags[d][tile.index()];
        if (!flag && d < Traits::kMaxDepth)
            for (int s = 0; s < Traits::kChildCount && !flag; ++s) {
                std::int64_t const c = tile.childIndex(s);
                if (c >= 0 && flags[d + 1][c])
                    flag = 1;
            }
        if (!flag)
            out[d].push_back(tile.index());
    };
    auto const none = [](auto&&...) {};
    container.reduce(none, none, perTile, none, NoVoxelVisit{}, &joinLists<Traits>, lists,
                     kTraversalChildrenFirst, kNoTile, lo, hi, kReduceGrain, 0, Traits::kRatio);
    TVL::throwIfJobCancelled();
    for (auto& list : lists)
        std::sort(list.begin(), list.end());
    return lists;
}

template <typename Traits>
TileBytes tileBytes(Container<Traits> const& container, std::uint8_t value)
{
    TileBytes bytes(Traits::kDepthCount);
    for (int d = 0; d < Traits::kDepthCount; ++d)
        bytes[d].assign(std::size_t(container.tileCount(d)), value);
    return bytes;
}

/// Whether the channel has a block for every tile of the tree in its depth range.
template <typename Traits, typename T>
bool inStep(Container<Traits> const& container, VoxelChannel<Traits, T> const& channel)
{
    for (int d = std::max(0, channel.minDepth()); d <= std::min(channel.depth(), Traits::kMaxDepth);
         ++d)
        if (channel.tileCount(d) != container.tileCount(d))
            return false;
    return true;
}

template <typename Traits, typename T>
bool typedChannelCoarsen(Quillon::String const& name, CoarsenSettings const& settings,
                         TVL::Object& object)
{
    using ChannelT = VoxelChannel<Traits, T>;
    using ErrorChannel = VoxelChannel<Traits, float>;
    constexpr int W = Traits::kTileWidth;
    constexpr int kMaxDepth = Traits::kMaxDepth;
    namespace G = Tavrel::Geometry;
    int const verbose = Logger::verboseLevel();

    bool const isSDF =
        std::is_same_v<T, float> &&
        (name == G::sVoxelSignedDistance || name == G::sVoxelFlameLevelSet || name == "surface");
    if (verbose > 1)
        std::cout << "isSDF = " << (isSDF ? 1 : 0) << '\n';

    // Put back at the end, also while an exception unwinds; the error channel first.
    TVL::ComponentGuard<Container<Traits>> container(object, G::sVoxelTileTree);
    TVL::ComponentGuard<VoxelTopology<Traits>> topology(object, G::sVoxelComp);
    TVL::ComponentGuard<ChannelT> channel(object, name);
    if (!container || !topology || !channel)
        return false;
    if (!inStep(*container, *channel)) {
        if (Logger::errorVerboseLevel() > 0)
            std::cerr << "channelCoarsen: the channel '" << name
                      << "' is out of step with the tile tree; nothing done\n";
        return false;
    }
    topology->update(*container);

    std::unique_ptr<TVL::ComponentGuard<ErrorChannel>> error;
    if (settings.storeError && name != G::sVoxelSamplingError) {
        TVL::TileTree3D::Command::createChannel<float, Traits::kRatio, W, W, 0>(
            G::sVoxelSamplingError, *topology, object, 0.0f, kDataElementInitializerDefaultValue, 0,
            kMaxDepth);
        error = std::make_unique<TVL::ComponentGuard<ErrorChannel>>(object, G::sVoxelSamplingError);
    }
    ErrorChannel* const errorChannel = error && *error ? error->get() : nullptr;

    VoxelOffsetType const offset = topology->offsetType();
    int const lo = std::max(0, channel->minDepth());
    int const hi = std::min(channel->depth(), kMaxDepth);
    if (lo >= hi && settings.bandWidth <= 0.0f)
        return true;

    // The interpolation test, bottom-up over the parents of the channel's depths.
    if (lo < hi) {
        setNonLeafValueToChildValue<Traits, T, W, 0>(*channel, *container, offset, lo, hi - 1);
        TileBytes candidates = tileBytes(*container, 1);
        // Tiles whose children lie below the channel's depths cannot be judged: they stay.
        if (hi < kMaxDepth)
            for (std::int64_t t = 0; t < container->tileCount(hi); ++t)
                if (!container->tile(t, hi).isLeaf())
                    candidates[hi][t] = 0;
        TestPass<Traits> pass;
        pass.offset = offset;
        pass.toleranceSquared = settings.maxRelativeError >= 0.0f
                                    ? double(settings.maxRelativeError) * settings.maxRelativeError
                                    : -1.0;
        pass.minDetailSize = settings.minDetailSize;
        pass.voxelSize = container->voxelSize();
        pass.minParentDepth = lo;
        pass.maxParentDepth = hi - 1;
        pass.mode = kTraversalChildrenFirst;
        pass.candidates = &candidates;
        pass.error = errorChannel;
        TileIndexLists<Traits> const lists =
            collectReproducedChildren(std::as_const(*container), *channel, pass);
        removeAndFollow(*container, *topology, {channel.get(), errorChannel}, object, lists);
    }

    // The band: tiles with no value inside it, and no child that has one, go.
    if (settings.bandWidth > 0.0f && container->tileCount(-1) > 0) {
        if (lo < hi)
            setNonLeafValueToChildValue<Traits, T, W, 0>(*channel, *container, offset, lo, hi - 1);
        if (verbose > 0)
            std::cout << "Num Voxels before coarsening based on narrow band width = "
                      << container->voxelDataCount(-1) << '\n';
        bool const inVoxels = name == G::sVoxelSignedDistance;
        TileBytes flags = tileBytes(*container, 0);
        flagBand(std::as_const(*container), *channel, lo, hi, settings.bandWidth, inVoxels, flags);
        TileIndexLists<Traits> const lists =
            unflaggedTiles(std::as_const(*container), lo, hi, flags);
        if (verbose > 1)
            for (int d = 0; d <= kMaxDepth; ++d)
                std::cout << "Removing " << lists[d].size() << " out of " << container->tileCount(d)
                          << " tiles at depth " << d << '\n';
        removeAndFollow(*container, *topology, {channel.get(), errorChannel}, object, lists);
        if (verbose > 1)
            std::cout << "numVoxels after pruning = " << container->voxelDataCount(-1) << '\n';
    }
    return true;
}

/// Largest side, in finest voxels, of the box of the voxels whose value is not positive; 0 when
/// there are none.
template <typename Traits>
std::int64_t interiorBoxSide(Container<Traits> const& container,
                             VoxelChannel<Traits, float> const& distance)
{
    constexpr int W = Traits::kTileWidth;
    struct Box {
        std::int64_t lo[3] = {0, 0, 0}, hi[3] = {0, 0, 0};
        bool empty = true;
        void add(std::int64_t const* a, std::int64_t const* b)
        {
            for (int n = 0; n < 3; ++n) {
                lo[n] = empty ? a[n] : std::min(lo[n], a[n]);
                hi[n] = empty ? b[n] : std::max(hi[n], b[n]);
            }
            empty = false;
        }
    };
    auto perTile = [&distance](Tile<Traits> const& tile, Box& box) {
        if (TVL::bodyCancelled())
            return;
        auto const data = distance.tileData(tile.index(), tile.depth());
        if (data.size() != std::size_t(Traits::kTileSize))
            return;
        std::int64_t const w = tile.voxelDataWidth();
        for (int k = 0; k < W; ++k)
            for (int j = 0; j < W; ++j)
                for (int i = 0; i < W; ++i) {
                    if (data(i, j, k) > 0.0f)
                        continue;
                    if (!(data(i, j, k) <= 0.0f))
                        continue; // NaN is no interior
                    std::int64_t const a[3] = {tile.ti() + i * w, tile.tj() + j * w,
                                               tile.tk() + k * w};
                    std::int64_t const b[3] = {a[0] + w, a[1] + w, a[2] + w};
                    box.add(a, b);
                }
    };
    auto join = [](Box& left, Box const& right) {
        if (!right.empty)
            left.add(right.lo, right.hi);
    };
    auto const none = [](auto&&...) {};
    Box box;
    container.reduce(none, none, perTile, none, NoVoxelVisit{}, join, box, kTraversalUnordered,
                     kNoTile, std::max(0, distance.minDepth()),
                     std::min(distance.depth(), Traits::kMaxDepth), kReduceGrain, 0,
                     Traits::kRatio);
    TVL::throwIfJobCancelled();
    if (box.empty)
        return 0;
    return std::max({box.hi[0] - box.lo[0], box.hi[1] - box.lo[1], box.hi[2] - box.lo[2]});
}

} // namespace VolumeGL::TileTree3D::detail

namespace VolumeGL::TileTree3D::LevelSet {

template <typename Traits>
std::vector<std::vector<std::int64_t>>
levelSetCoarsen(float voxelSize, float maxRelativeError,
                TVL::TileTree3D::Container<Traits>& container,
                TVL::TileTree3D::VoxelTopology<Traits> const& topology,
                TVL::TileTree3D::VoxelChannel<Traits, float>& distance,
                TVL::TileTree3D::VoxelChannel<Traits, float>* error, float bboxMaxSideLength)
{
    using namespace TVL::TileTree3D;
    using CoreGL::Logger;
    constexpr int kMaxDepth = Traits::kMaxDepth;
    int const verbose = Logger::verboseLevel();
    std::vector<std::vector<std::int64_t>> result(kCoarsenListCount);

    float const h =
        voxelSize > 0.0f ? std::max(voxelSize, container.voxelSize()) : container.voxelSize();
    setNonLeafValueToChildValue<Traits, float, Traits::kTileWidth, 0>(
        distance, container, topology.offsetType(), 0, kMaxDepth);
    if (verbose > 0)
        std::cout << "levelset_coarsen.begin\n"
                  << "in_voxelSize = " << h << '\n'
                  << "in_maxRelativeError = " << maxRelativeError << '\n'
                  << "in_bboxMaxSideLength = " << bboxMaxSideLength << '\n'
                  << "Num Voxels before adaptive coarsening = " << container.voxelDataCount(-1)
                  << '\n';
    if (!(bboxMaxSideLength > 0.0f)) {
        bboxMaxSideLength = float(detail::interiorBoxSide(std::as_const(container), distance)) * h;
        if (verbose > 1)
            std::cout << "SideLength = " << bboxMaxSideLength << '\n';
    }
    double const tolerance = double(maxRelativeError) * h * bboxMaxSideLength;
    // Stored errors only ever grow.
    container.setMaxRelativeRefinementError(
        std::max(container.maxRelativeRefinementError(), maxRelativeError));

    detail::TestPass<Traits> pass;
    pass.offset = topology.offsetType();
    pass.toleranceSquared = tolerance >= 0.0 ? tolerance * tolerance : -1.0;
    pass.voxelSize = h;
    pass.minParentDepth = std::max(0, distance.minDepth());
    pass.maxParentDepth = std::min(distance.depth(), kMaxDepth) - 1;
    pass.mode = kTraversalCoarsen;
    pass.error = error;
    TileIndexLists<Traits> lists =
        detail::collectReproducedChildren(std::as_const(container), distance, pass);
    for (int d = 0; d <= kMaxDepth; ++d)
        result[d] = std::move(lists[d]);
    if (verbose > 0)
        std::cout << "levelset_coarsen.end\n";
    return result;
}

} // namespace VolumeGL::TileTree3D::LevelSet
