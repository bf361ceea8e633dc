/// @file  levelset/level_set_redistance.cpp
/// @brief The redistancing driver: the choice of solve, the preparation of the classical
///        recursion (zero crossing, components, reset of the unknowns) and re-initialization.
#include <hexmold/levelset/level_set_redistance.h>

#include <atomic>
#include <cmath>
#include <hexmold/levelset/detail/redistance_impl.h>
#include <hexmold/levelset/dof_classification.h>
#include <hexmold/logging/logger.h>
#include <hexmold/sampling/linear_sampler.h>
#include <hexmold/substrate/channel_temporary.h>
#include <hexmold/substrate/halo.h>
#include <hexmold/substrate/type_lists.h>
#include <hexmold/substrate/union_find.h>
#include <limits>
#include <memory>
#include <vector>

namespace VolumeGL::TileTree3D::LevelSet {

namespace {

using namespace TVL::TileTree3D;
using detail::kEpsilon;
using detail::kTinyDistance;
using Tavrel::Math::double3;

template <typename Traits> using FloatChannel = VoxelChannel<Traits, float>;
template <typename Traits> using TypeChannel = VoxelChannel<Traits, unsigned char>;
template <typename Traits>
using Sampler = VoxelSamplerLinear<Traits, float, Traits::kTileWidth, 2, double3>;

/// A scratch channel bound to @p topology over depths [minDepth, maxDepth], every element
/// @p value, drawn from the channel pool when it is enabled.
template <typename Traits, typename T>
std::unique_ptr<VoxelChannel<Traits, T>> makeTemporary(VoxelTopology<Traits> const& topology,
                                                       T value, int minDepth, int maxDepth)
{
    auto channel = std::make_unique<VoxelChannel<Traits, T>>(Quillon::String(), &value,
                                                             kDataElementInitializerDefaultValue,
                                                             true, false, minDepth, maxDepth);
    channel->update(topology);
    return channel;
}

/// The value, at the deepest depth it exists (down to @p maxDepth), of the voxel that holds
/// tile-space point @p p; @p fallback where no tile or block is.
template <typename Traits, typename T>
T valueAt(typename Container<Traits>::ConstTileAccessor& accessor,
          VoxelChannel<Traits, T> const& channel, std::int64_t x, std::int64_t y, std::int64_t z,
          int maxDepth, T fallback, Tile<Traits> const** out = nullptr)
{
    constexpr std::size_t N =
        std::size_t(Traits::kTileWidth) * Traits::kTileWidth * Traits::kTileWidth;
    Tile<Traits> const& t = accessor.tile(x, y, z, maxDepth);
    if (out)
        *out = &t;
    if (!t.valid())
        return fallback;
    auto const block = channel.tileData(t.treeIndex());
    if (block.size() != N)
        return fallback;
    std::int64_t const w = t.voxelDataWidth();
    return block(int((x - t.ti()) / w), int((y - t.tj()) / w), int((z - t.tk()) / w));
}

/// Whether voxel (i, j, k) of @p tile is solved at its own depth in the recursion: a leaf voxel,
/// or any voxel of the finest depth treated.
template <typename Traits>
bool countsAsLeaf(Tile<Traits> const& tile, int i, int j, int k, int maxDepth)
{
    return tile.depth() == maxDepth || tile.isLeaf(i, j, k);
}

/// The six same-depth face neighbours of one tile and their blocks (empty where there is none),
/// looked up once per tile instead of once per voxel on the tile's faces.
template <typename Traits> struct FaceNeighbourBlocks {
    ConstTileData<float, Traits::kTileWidth, 0, 0> block[6];
    Tile<Traits> const* tile[6] = {};

    FaceNeighbourBlocks(Tile<Traits> const& t, FloatChannel<Traits> const& distance,
                        typename Container<Traits>::ConstTileAccessor& accessor)
    {
        for (int f = 0; f < 6; ++f) {
            int const axis = f / 2, side = f % 2 == 0 ? -1 : 1;
            Tile<Traits> const& beside = accessor.tileNeighbor(t, 13 + side * (axis == 0   ? 9
                                                                               : axis == 1 ? 3
                                                                                           : 1));
            if (!beside.valid() || beside.depth() != t.depth())
                continue;
            tile[f] = &beside;
            block[f] = distance.tileData(beside.treeIndex());
        }
    }
    /// All six neighbours exist at the tile's depth with blocks of @p n voxels.
    bool complete(std::size_t n) const
    {
        for (int f = 0; f < 6; ++f)
            if (!tile[f] || block[f].size() != n)
                return false;
        return true;
    }
};

/// The face neighbour of voxel (i, j, k) of @p tile on side @p side (-1 or +1) of @p axis, read
/// across tile borders and resolution jumps: within the tile from a leaf voxel directly,
/// otherwise from the deepest voxel that touches the shared face in its middle. NaN where no
/// neighbour of at most one depth coarser exists.
template <typename Traits>
float faceNeighbour(Tile<Traits> const& tile,
                    ConstTileData<float, Traits::kTileWidth, 0, 0> const& block,
                    FloatChannel<Traits> const& distance,
                    typename Container<Traits>::ConstTileAccessor& accessor, int i, int j, int k,
                    int axis, int side, int maxDepth,
                    FaceNeighbourBlocks<Traits> const* faces = nullptr)
{
    constexpr int W = Traits::kTileWidth;
    int n[3] = {i, j, k};
    n[axis] += side;
    bool const inside = n[0] >= 0 && n[0] < W && n[1] >= 0 && n[1] < W && n[2] >= 0 && n[2] < W;
    if (inside && countsAsLeaf(tile, n[0], n[1], n[2], maxDepth))
        return block(n[0], n[1], n[2]);
    if (!inside && faces) {
        int const f = 2 * axis + (side < 0 ? 0 : 1);
        if (Tile<Traits> const* beside = faces->tile[f]) {
            n[axis] = side < 0 ? W - 1 : 0;
            if (countsAsLeaf(*beside, n[0], n[1], n[2], maxDepth) &&
                faces->block[f].size() == block.size())
                return faces->block[f](n[0], n[1], n[2]);
        }
    } else if (!inside) {
        // The same-depth tile beside, from the neighbour table, when it holds a leaf voxel there.
        int const direction = 13 + side * (axis == 0 ? 9 : axis == 1 ? 3 : 1);
        Tile<Traits> const& beside = accessor.tileNeighbor(tile, direction);
        if (beside.valid() && beside.depth() == tile.depth()) {
            n[axis] = side < 0 ? W - 1 : 0;
            if (countsAsLeaf(beside, n[0], n[1], n[2], maxDepth)) {
                auto const other = distance.tileData(beside.treeIndex());
                if (other.size() == block.size())
                    return other(n[0], n[1], n[2]);
            }
        }
    }
    std::int64_t const w = tile.voxelDataWidth();
    std::int64_t p[3] = {tile.ti() + i * w + w / 2, tile.tj() + j * w + w / 2,
                         tile.tk() + k * w + w / 2};
    std::int64_t const c = (axis == 0   ? tile.ti() + i * w
                            : axis == 1 ? tile.tj() + j * w
                                        : tile.tk() + k * w);
    p[axis] = side < 0 ? c - 1 : c + w;
    Tile<Traits> const* found = nullptr;
    float const value = valueAt<Traits, float>(accessor, distance, p[0], p[1], p[2], maxDepth,
                                               distance.defaultValue(), &found);
    // A voxel more than one depth coarser (a tree that is not graded there) sits too far away
    // for its sign to say anything about a crossing next to this voxel.
    if (!found->valid() || found->depth() < tile.depth() - 1)
        return std::numeric_limits<float>::quiet_NaN();
    return value;
}

/// The classical path: zero crossing, components, reset, recursion, coarse copies.
template <typename Traits>
void redistanceClassical(Container<Traits> const& container, VoxelTopology<Traits> const& topology,
                         FloatChannel<Traits>& distance, bool redistanceInterior,
                         bool redistanceExterior, bool overwriteSurface, int minDepth, int maxDepth,
                         FloatChannel<Traits> const* mask, TypeChannel<Traits>* callerTypes,
                         float tolerance, float interiorBand, float exteriorBand, int pre, int post,
                         bool haloByExtrapolation, bool performCoalescedRedistance,
                         VoxelChannel<Traits, short> const* dof, Quillon::String const& name)
{
    constexpr int W = Traits::kTileWidth;
    constexpr int S = Traits::kVoxelsPerSlot;
    constexpr std::size_t N = std::size_t(W) * W * W;
    float const voxelSize = container.voxelSize();

    // The frozen input: every zero-crossing value is computed from it while the channel changes.
    std::unique_ptr<Sampler<Traits>> sampler;
    if (overwriteSurface) {
        auto const timer = CoreGL::Logger::timer(name + ".create_halo_channel", nullptr);
        sampler = std::make_unique<Sampler<Traits>>(container, topology, distance);
    }
    bool const hasValueTypes = callerTypes != nullptr;
    bool const needZeroCrossingValues = overwriteSurface && !hasValueTypes;
    if (!needZeroCrossingValues && !redistanceInterior && !redistanceExterior)
        return;

    float const background = std::fabs(distance.defaultValue());
    float const negativeBackground = -background;
    auto reset = [&](float v) { return 0.0f >= v ? negativeBackground : background; };

    std::unique_ptr<TypeChannel<Traits>> ownTypes;
    if (!hasValueTypes) {
        auto const timer = CoreGL::Logger::timer(name + ".create_value_type_channel", nullptr);
        ownTypes = makeTemporary<Traits, unsigned char>(topology, (unsigned char)kValueTypeUnknown,
                                                        0, Traits::kMaxDepth);
    }
    TypeChannel<Traits>& types = hasValueTypes ? *callerTypes : *ownTypes;

    std::unique_ptr<FloatChannel<Traits>> zeroCrossing;
    if (needZeroCrossingValues) {
        auto const timer = CoreGL::Logger::timer(name + ".create_zero_crossing_values", nullptr);
        zeroCrossing = makeTemporary<Traits, float>(topology, background, 0, Traits::kMaxDepth);
    }

    {
        auto const timer = CoreGL::Logger::timer(name + ".initialize_zero_crossing", nullptr);
        for (int depth = maxDepth; depth >= minDepth; --depth) {
            float const h = float(Container<Traits>::voxelDataWidth(depth)) * voxelSize;
            detail::parallelRanges(container.tileCount(depth), [&](std::int64_t begin,
                                                                   std::int64_t end) {
                auto accessor = container.tileAccessor();
                std::unique_ptr<Sampler<Traits>> local;
                if (sampler)
                    local = std::make_unique<Sampler<Traits>>(*sampler);
                auto sample = [&](double3 const& p) {
                    return local->valueAtTileSpace(p, maxDepth);
                };
                auto gradient = [&](double3 const& p, float f) {
                    return detail::sampledGradient(sample, p, f);
                };
                for (std::int64_t t = begin; t < end; ++t) {
                    Tile<Traits> const& tile = container.tile(t, depth);
                    auto const values = static_cast<FloatChannel<Traits> const&>(distance).tileData(
                        tile.treeIndex());
                    auto typeBlock = types.tileData(tile.treeIndex());
                    if (values.size() != N || typeBlock.size() != N)
                        continue;
                    auto const maskBlock =
                        mask ? mask->tileData(tile.treeIndex()) : ConstTileData<float, W, 0, 0>();
                    FaceNeighbourBlocks<Traits> const faces(tile, distance, accessor);
                    if (!local && !mask && !hasValueTypes && depth == maxDepth &&
                        faces.complete(N)) {
                        // Only the crossing test runs, and every face neighbour is a leaf voxel
                        // of this tile or of a same-depth tile beside it.
                        auto const at = [&](int i, int j, int k) -> float {
                            if (i < 0)
                                return faces.block[0](W - 1, j, k);
                            if (i >= W)
                                return faces.block[1](0, j, k);
                            if (j < 0)
                                return faces.block[2](i, W - 1, k);
                            if (j >= W)
                                return faces.block[3](i, 0, k);
                            if (k < 0)
                                return faces.block[4](i, j, W - 1);
                            if (k >= W)
                                return faces.block[5](i, j, 0);
                            return values(i, j, k);
                        };
                        for (int k = 0; k < W; ++k)
                            for (int j = 0; j < W; ++j)
                                for (int i = 0; i < W; ++i) {
                                    if (typeBlock(i, j, k) != kValueTypeUnknown)
                                        continue;
                                    float const v = values(i, j, k);
                                    if (v <= 0.0f ? !redistanceInterior : !redistanceExterior)
                                        continue;
                                    bool const inside = 0.0f > v;
                                    float const n[6] = {at(i - 1, j, k), at(i + 1, j, k),
                                                        at(i, j - 1, k), at(i, j + 1, k),
                                                        at(i, j, k - 1), at(i, j, k + 1)};
                                    bool crossing = false;
                                    for (float x : n)
                                        crossing |= !std::isnan(x) && (0.0f > x) != inside;
                                    if (crossing)
                                        typeBlock(i, j, k) = kValueTypeKnown;
                                }
                        continue;
                    }
                    auto zcBlock = zeroCrossing ? zeroCrossing->tileData(tile.treeIndex())
                                                : TileData<float, W, 0, 0>();
                    auto out = zeroCrossing ? zcBlock : distance.tileData(tile.treeIndex());
                    // 2 x 2 x 2 blocks of the tile's voxels.
                    for (int bk = 0; bk < W; bk += 2)
                        for (int bj = 0; bj < W; bj += 2)
                            for (int bi = 0; bi < W; bi += 2)
                                for (int k = bk; k < std::min(bk + 2, W); ++k)
                                    for (int j = bj; j < std::min(bj + 2, W); ++j)
                                        for (int i = bi; i < std::min(bi + 2, W); ++i) {
                                            bool const leaf = countsAsLeaf(tile, i, j, k, maxDepth);
                                            if (maskBlock.size() == N &&
                                                maskBlock(i, j, k) >= 0.0f) {
                                                if (leaf)
                                                    typeBlock(i, j, k) = kValueTypeExcluded;
                                                continue;
                                            }
                                            if (typeBlock(i, j, k) != kValueTypeUnknown ||
                                                hasValueTypes)
                                                continue;
                                            if (!leaf && !dof)
                                                continue;
                                            float const v = values(i, j, k);
                                            if (v <= 0.0f ? !redistanceInterior
                                                          : !redistanceExterior)
                                                continue;
                                            bool const inside = 0.0f > v;
                                            float axisDistance[3] = {2.0f * h, 2.0f * h, 2.0f * h};
                                            bool crossing = false;
                                            for (int axis = 0; axis < 3; ++axis)
                                                for (int side = -1; side <= 1; side += 2) {
                                                    float const n = faceNeighbour(
                                                        tile, values, distance, accessor, i, j, k,
                                                        axis, side, maxDepth, &faces);
                                                    if (std::isnan(n) || (0.0f > n) == inside)
                                                        continue;
                                                    crossing = true;
                                                    float const d = std::fabs(v / (v - n)) * h;
                                                    axisDistance[axis] =
                                                        std::min(axisDistance[axis], d);
                                                }
                                            if (!crossing)
                                                continue;
                                            typeBlock(i, j, k) = kValueTypeKnown;
                                            if (!local)
                                                continue;
                                            // Distance to the plane through the three axis
                                            // crossings.
                                            float inverse = 0.0f;
                                            for (float d : axisDistance)
                                                if (d < 2.0f * h)
                                                    inverse +=
                                                        1.0f / std::max(d * d, kTinyDistance);
                                            float x = inverse > 0.0f ? 1.0f / std::sqrt(inverse)
                                                                     : std::fabs(v);
                                            double3 const p0 =
                                                detail::samplePosition(tile, i, j, k);
                                            float const s = inside ? -1.0f : 1.0f;
                                            float const stepped = detail::stepToZeroCrossing(
                                                sample, gradient, p0, v, s,
                                                gradient(p0, sample(p0)), voxelSize, 0.001f * h, 4);
                                            if (std::fabs(stepped) < x)
                                                x = std::fabs(stepped);
                                            out(i, j, k) = s * std::max(x, kTinyDistance);
                                        }
                }
            });
        }
        if (dof && zeroCrossing)
            detail::interpolateHanging(container, *dof, *zeroCrossing, std::max(1, minDepth),
                                       maxDepth, name);
    }

    if (mask) {
        // Unknown voxels that no path of non-excluded voxels joins to a known one are excluded:
        // no sweep would ever bring them a value.
        auto const timer = CoreGL::Logger::timer(name + ".initialize_mask", nullptr);
        long long const zero = 0;
        VoxelChannel<Traits, long long> ids(Quillon::String("levelset_redistance/leafId"), &zero,
                                            kDataElementInitializerDefaultValue, true, false,
                                            minDepth, maxDepth);
        ids.update(topology);
        std::atomic<std::int64_t> counter{1};
        auto counted = [&](Tile<Traits> const& tile,
                           ConstTileData<unsigned char, W, 0, 0> const& tb, int i, int j, int k) {
            return tb(i, j, k) == kValueTypeUnknown && countsAsLeaf(tile, i, j, k, maxDepth);
        };
        for (int depth = minDepth; depth <= maxDepth; ++depth)
            detail::parallelRanges(container.tileCount(depth), [&](std::int64_t begin,
                                                                   std::int64_t end) {
                for (std::int64_t t = begin; t < end; ++t) {
                    Tile<Traits> const& tile = container.tile(t, depth);
                    auto const tb =
                        static_cast<TypeChannel<Traits> const&>(types).tileData(tile.treeIndex());
                    auto idb = ids.tileData(tile.treeIndex());
                    if (tb.size() != N || idb.size() != N)
                        continue;
                    for (int k = 0; k < W; ++k)
                        for (int j = 0; j < W; ++j)
                            for (int i = 0; i < W; ++i)
                                if (counted(tile, tb, i, j, k))
                                    idb(i, j, k) = counter.fetch_add(1);
                }
            });
        UnionFind sets(std::int64_t(counter.load()));
        for (int depth = minDepth; depth <= maxDepth; ++depth)
            detail::parallelRanges(container.tileCount(depth), [&](std::int64_t begin,
                                                                   std::int64_t end) {
                auto accessor = container.tileAccessor();
                for (std::int64_t t = begin; t < end; ++t) {
                    Tile<Traits> const& tile = container.tile(t, depth);
                    auto const tb =
                        static_cast<TypeChannel<Traits> const&>(types).tileData(tile.treeIndex());
                    auto const idb =
                        static_cast<VoxelChannel<Traits, long long> const&>(ids).tileData(
                            tile.treeIndex());
                    if (tb.size() != N || idb.size() != N)
                        continue;
                    std::int64_t const w = tile.voxelDataWidth();
                    for (int k = 0; k < W; ++k)
                        for (int j = 0; j < W; ++j)
                            for (int i = 0; i < W; ++i) {
                                if (!counted(tile, tb, i, j, k))
                                    continue;
                                std::int64_t const c[3] = {tile.ti() + i * w, tile.tj() + j * w,
                                                           tile.tk() + k * w};
                                for (int axis = 0; axis < 3; ++axis)
                                    for (int side = -1; side <= 1; side += 2) {
                                        std::int64_t p[3] = {c[0], c[1], c[2]};
                                        p[axis] = side < 0 ? c[axis] - 1 : c[axis] + w;
                                        Tile<Traits> const& n =
                                            accessor.tile(p[0], p[1], p[2], depth);
                                        if (!n.valid() || n.depth() < minDepth)
                                            continue;
                                        int3 const q =
                                            n.childDataIJK(int3{int(p[0]), int(p[1]), int(p[2])});
                                        if (!countsAsLeaf(n, q.x, q.y, q.z, maxDepth))
                                            continue;
                                        auto const nt =
                                            static_cast<TypeChannel<Traits> const&>(types).tileData(
                                                n.treeIndex());
                                        if (nt.size() != N ||
                                            nt(q.x, q.y, q.z) == kValueTypeExcluded)
                                            continue;
                                        auto const nid =
                                            static_cast<VoxelChannel<Traits, long long> const&>(ids)
                                                .tileData(n.treeIndex());
                                        if (nid.size() != N)
                                            continue;
                                        sets.unite(idb(i, j, k), nid(q.x, q.y, q.z));
                                    }
                            }
                }
            });
        std::int64_t const knownRoot = sets.find(0);
        for (int depth = maxDepth; depth >= minDepth; --depth)
            detail::parallelRanges(
                container.tileCount(depth), [&](std::int64_t begin, std::int64_t end) {
                    for (std::int64_t t = begin; t < end; ++t) {
                        Tile<Traits> const& tile = container.tile(t, depth);
                        auto tb = types.tileData(tile.treeIndex());
                        auto const idb =
                            static_cast<VoxelChannel<Traits, long long> const&>(ids).tileData(
                                tile.treeIndex());
                        auto values = distance.tileData(tile.treeIndex());
                        if (tb.size() != N || idb.size() != N || values.size() != N)
                            continue;
                        bool allExcluded = true;
                        for (int k = 0; k < W; ++k)
                            for (int j = 0; j < W; ++j)
                                for (int i = 0; i < W; ++i) {
                                    if (tb(i, j, k) == kValueTypeUnknown &&
                                        countsAsLeaf(tile, i, j, k, maxDepth) &&
                                        sets.find(idb(i, j, k)) != knownRoot) {
                                        tb(i, j, k) = kValueTypeExcluded;
                                        values(i, j, k) = reset(values(i, j, k));
                                    }
                                    allExcluded &= tb(i, j, k) == kValueTypeExcluded;
                                }
                        if (!allExcluded || tile.parent() < 0 || depth - 1 < 0)
                            continue;
                        // The parent's voxels over this tile: each is written by this tile alone.
                        Tile<Traits> const& parent = container.tile(tile.parent(), depth - 1);
                        auto pt = types.tileData(parent.treeIndex());
                        if (pt.size() != N)
                            continue;
                        int3 const slot = parent.childIJK(tile);
                        for (int k = 0; k < S; ++k)
                            for (int j = 0; j < S; ++j)
                                for (int i = 0; i < S; ++i)
                                    pt(slot.x * S + i, slot.y * S + j, slot.z * S + k) =
                                        kValueTypeExcluded;
                    }
                });
    }

    // Reset of the unknowns to the background of their side; zero-crossing values move in.
    for (int depth = 0; depth <= maxDepth; ++depth) {
        auto const timer = CoreGL::Logger::timer(name + ".initialize_unknown", nullptr);
        detail::parallelRanges(
            container.tileCount(depth), [&](std::int64_t begin, std::int64_t end) {
                for (std::int64_t t = begin; t < end; ++t) {
                    TreeIndex const ti{t, depth};
                    auto values = distance.tileData(ti);
                    auto const tb = static_cast<TypeChannel<Traits> const&>(types).tileData(ti);
                    if (values.size() != N || tb.size() != N)
                        continue;
                    auto const zc =
                        zeroCrossing
                            ? static_cast<FloatChannel<Traits> const&>(*zeroCrossing).tileData(ti)
                            : ConstTileData<float, W, 0, 0>();
                    for (std::size_t n = 0; n < N; ++n) {
                        if (tb[n] == kValueTypeUnknown)
                            values[n] = reset(values[n]);
                        else if (zc.size() == N && std::fabs(zc[n] - background) > kEpsilon)
                            values[n] = zc[n];
                    }
                }
            });
    }

    {
        auto const timer = CoreGL::Logger::timer(name + ".redistance_recursively", nullptr);
        detail::redistanceRecursively<Traits>(
            distance, mask, container, &types, tolerance, maxDepth, minDepth, maxDepth,
            interiorBand, exteriorBand, pre, post, topology.offset(), haloByExtrapolation,
            performCoalescedRedistance, dof, name);
    }

    if (dof) {
        auto const timer = CoreGL::Logger::timer(name + ".set_non_dofs", nullptr);
        if (CoreGL::Logger::verboseLevel() > 1)
            CoreGL::Logger::debugFileStream() << "setNonDOFValues.begin\n";
        detail::restrictToParents(container, *dof, distance, 0, maxDepth, name);
        detail::interpolateHanging(container, *dof, distance, 1, maxDepth, name);
        if (CoreGL::Logger::verboseLevel() > 1)
            CoreGL::Logger::debugFileStream() << "setNonDOFValues.end\n";
    } else {
        auto const timer = CoreGL::Logger::timer(name + ".set_coarse_non_leaf", nullptr);
        setNonLeafValueToChildValue<Traits, float, W, 0>(distance, container, topology.offsetType(),
                                                         0, maxDepth - 1);
    }
}

} // namespace

template <typename Traits>
void levelSetReInitialize(Container<Traits> const& container, VoxelTopology<Traits> const& topology,
                          VoxelChannel<Traits, short> const* dof, int minDepth, int maxDepth,
                          float interiorBand, float exteriorBand, int passes,
                          Quillon::String const& name, FloatChannel<Traits>& io_distance)
{
    constexpr int W = Traits::kTileWidth;
    constexpr std::size_t N = std::size_t(W) * W * W;
    auto const timer = CoreGL::Logger::timer(name + ".reinitialize.total", nullptr);
    if (CoreGL::Logger::verboseLevel() > 1)
        CoreGL::Logger::debugFileStream() << "levelSetReInitialize.begin\n"
                                          << "in_maxNumReInitializationPasses = " << passes << '\n';
    auto temporary = channelTemporary(io_distance, topology, true, false, io_distance.minDepth(),
                                      io_distance.depth());
    // The step is the finest voxel size at every depth, as the scheme has it.
    float const voxelSize = container.voxelSize();
    float const dt = voxelSize;
    float const background = io_distance.defaultValue();
    bool const bandActive = background > interiorBand || background > exteriorBand;
    for (int pass = 0; pass < passes; ++pass) {
        FloatChannel<Traits>& input = pass % 2 == 0 ? io_distance : *temporary;
        FloatChannel<Traits>& output = pass % 2 == 0 ? *temporary : io_distance;
        // Children first, so that a voxel copying its child reads this pass's value.
        for (int depth = maxDepth; depth >= minDepth; --depth) {
            detail::parallelRanges(container.tileCount(depth), [&](std::int64_t begin,
                                                                   std::int64_t end) {
                auto accessor = container.tileAccessor();
                TileData<float, W, 1, 0> halo(TileData<float, W, 1, 0>::kVoxelCount, 0.0f);
                for (std::int64_t t = begin; t < end; ++t) {
                    Tile<Traits> const& tile = container.tile(t, depth);
                    auto const flags =
                        dof ? dof->tileData(tile.treeIndex()) : ConstTileData<short, W, 0, 0>();
                    if (flags.size() != N)
                        continue;
                    auto const in =
                        static_cast<FloatChannel<Traits> const&>(input).tileData(tile.treeIndex());
                    auto out = output.tileData(tile.treeIndex());
                    if (in.size() != N || out.size() != N)
                        continue;
                    float const w = float(tile.voxelDataWidth());
                    float const spacing = w * voxelSize;
                    float const s = spacing * spacing;
                    bool haveHalo = false;
                    for (int k = 0; k < W; ++k)
                        for (int j = 0; j < W; ++j)
                            for (int i = 0; i < W; ++i) {
                                short const f = flags(i, j, k);
                                if (!(f & kDOFSolved)) {
                                    if (f & kDOFFromChild) {
                                        constexpr int S = Traits::kVoxelsPerSlot;
                                        std::int64_t const child =
                                            tile.childIndex(i / S, j / S, k / S);
                                        if (child < 0)
                                            continue;
                                        auto const cv =
                                            static_cast<FloatChannel<Traits> const&>(output)
                                                .tileData(child, depth + 1);
                                        if (cv.size() != N)
                                            continue;
                                        int const c = int(((i % S) * tile.voxelDataWidth()) /
                                                          tile.childVoxelDataWidth());
                                        int const cj = int(((j % S) * tile.voxelDataWidth()) /
                                                           tile.childVoxelDataWidth());
                                        int const ck = int(((k % S) * tile.voxelDataWidth()) /
                                                           tile.childVoxelDataWidth());
                                        out(i, j, k) = cv(c, cj, ck);
                                    }
                                    continue;
                                }
                                float const v = in(i, j, k);
                                if (bandActive &&
                                    (v < 0.0f ? !(interiorBand > -v) : !(exteriorBand > v))) {
                                    out(i, j, k) = v;
                                    continue;
                                }
                                if (!haveHalo) {
                                    // A tile with nothing in the band never reads its neighbours.
                                    setHaloTile<Traits, float, 0, 1, 0>(
                                        tile.treeIndex(), input, kHaloModeGeneral,
                                        kHaloTypeFacesAndEdges, accessor, halo, background, 1.0f,
                                        kVoxelOffsetCenter);
                                    haveHalo = true;
                                }
                                float g = 0.0f;
                                int const c[3] = {i, j, k};
                                for (int axis = 0; axis < 3; ++axis) {
                                    int lo[3] = {c[0], c[1], c[2]}, hi[3] = {c[0], c[1], c[2]};
                                    --lo[axis];
                                    ++hi[axis];
                                    float const am = v - halo(lo[0], lo[1], lo[2]);
                                    float const ap = halo(hi[0], hi[1], hi[2]) - v;
                                    float term;
                                    if (v > 0.0f) {
                                        float const x = std::min(ap, 0.0f), y = std::max(am, 0.0f);
                                        term = std::max(x * x, y * y);
                                    } else {
                                        float const x = std::max(ap, 0.0f), y = std::min(am, 0.0f);
                                        term = std::max(x * x, y * y);
                                    }
                                    g += term;
                                }
                                g = std::sqrt(g) / (w * voxelSize);
                                out(i, j, k) = v - (v / (std::sqrt(g * g * s + v * v) + kEpsilon)) *
                                                       dt * (g - 1.0f);
                            }
                }
            });
        }
        if (dof)
            detail::interpolateHanging(container, *dof, output, std::max(1, minDepth), maxDepth,
                                       name);
    }
    if (passes % 2 == 1) {
        for (int depth = minDepth; depth <= maxDepth; ++depth)
            detail::parallelRanges(
                container.tileCount(depth), [&](std::int64_t begin, std::int64_t end) {
                    for (std::int64_t t = begin; t < end; ++t) {
                        auto const from =
                            static_cast<FloatChannel<Traits> const&>(*temporary).tileData(t, depth);
                        auto to = io_distance.tileData(t, depth);
                        if (from.size() == to.size())
                            std::copy(from.begin(), from.end(), to.begin());
                    }
                });
    }
    if (CoreGL::Logger::verboseLevel() > 1)
        CoreGL::Logger::debugFileStream() << "levelSetReInitialize.end\n";
}

template <typename Traits>
void levelSetRedistance(Container<Traits> const& container, VoxelTopology<Traits> const& topology,
                        FloatChannel<Traits>& io_distance, bool redistanceInterior,
                        bool redistanceExterior, bool overwriteSurface, int minDepth, int maxDepth,
                        FloatChannel<Traits> const* mask, TypeChannel<Traits>* io_valueType,
                        float tolerance, float interiorBand, float exteriorBand,
                        int maxNumPreSmoothingPasses, int maxNumPostSmoothingPasses,
                        bool haloByExtrapolation, bool performCoalescedRedistance,
                        VoxelChannel<Traits, short> const* dof, Quillon::String const& name,
                        RedistancingScheme scheme)
{
    auto const timer = CoreGL::Logger::timer(name + ".total", nullptr);
    if (CoreGL::Logger::verboseLevel() > 2)
        CoreGL::Logger::debugFileStream()
            << (dof ? "DOF channel found." : "DOF channel NOT found.") << '\n';
    minDepth = std::max(minDepth, 0);
    maxDepth = std::min(maxDepth, Traits::kMaxDepth);
    if (minDepth > maxDepth)
        return;
    if (scheme == kRedistanceReInitialize) {
        levelSetReInitialize(container, topology, dof, minDepth, maxDepth, interiorBand,
                             exteriorBand, maxNumPreSmoothingPasses + maxNumPostSmoothingPasses,
                             name, io_distance);
        return;
    }
    if (scheme == kRedistanceSweeping && dof) {
        detail::sweepAdaptive(container, topology, *dof, redistanceInterior, redistanceExterior,
                              overwriteSurface, minDepth, maxDepth, tolerance, interiorBand,
                              exteriorBand, maxNumPreSmoothingPasses, maxNumPostSmoothingPasses,
                              haloByExtrapolation, name, io_distance, mask, io_valueType);
        return;
    }
    // Any other scheme sweeps as the classical recursion does, with no DOF channel.
    redistanceClassical(container, topology, io_distance, redistanceInterior, redistanceExterior,
                        overwriteSurface, minDepth, maxDepth, mask, io_valueType, tolerance,
                        interiorBand, exteriorBand, maxNumPreSmoothingPasses,
                        maxNumPostSmoothingPasses, haloByExtrapolation, performCoalescedRedistance,
                        scheme == kRedistanceSweeping ? nullptr : dof, name);
}

template <typename Traits>
void setNonDOFValues(int minDepth, int maxDepth, Container<Traits> const& container,
                     VoxelChannel<Traits, short> const& dof,
                     VoxelChannel<Traits, float>& io_distance, int haloMode)
{
    (void)haloMode;
    Quillon::String const name("Volume::LevelSet::setNonDOFValues");
    detail::restrictToParents(container, dof, io_distance, minDepth, maxDepth, name);
    detail::interpolateHanging(container, dof, io_distance, std::max(1, minDepth), maxDepth, name);
}

#define HEXMOLD_INSTANTIATE_REDISTANCE(TR)                                                         \
    template HEXMOLD_API decltype(levelSetRedistance<TR>) levelSetRedistance<TR>;                  \
    template HEXMOLD_API decltype(levelSetReInitialize<TR>) levelSetReInitialize<TR>;
HEXMOLD_FOR_EACH_TRAITS(HEXMOLD_INSTANTIATE_REDISTANCE)
template HEXMOLD_API decltype(setNonDOFValues<Traits24>) setNonDOFValues<Traits24>;
template HEXMOLD_API decltype(setNonDOFValues<Traits55>) setNonDOFValues<Traits55>;
#undef HEXMOLD_INSTANTIATE_REDISTANCE

} // namespace VolumeGL::TileTree3D::LevelSet
