/// @file  levelset/level_set_redistance.cpp
/// @brief The redistancing driver: the choice of solve, the classical path in named stages (zero
///        crossing, exclusion of unreachable voxels, reset of the unknowns, recursion, coarse
///        values) and re-initialization.
#include <hexmold/levelset/level_set_redistance.h>

#include <atomic>
#include <cmath>
#include <hexmold/levelset/detail/classical_redistance_kernels.h>
#include <hexmold/levelset/detail/redistance_impl.h>
#include <hexmold/levelset/dof_classification.h>
#include <hexmold/logging/logger.h>
#include <hexmold/sampling/linear_sampler.h>
#include <hexmold/substrate/channel_temporary.h>
#include <hexmold/substrate/halo.h>
#include <hexmold/substrate/scratch_channel.h>
#include <hexmold/substrate/type_lists.h>
#include <hexmold/substrate/union_find.h>
#include <limits>
#include <memory>
#include <vector>

namespace VolumeGL::TileTree3D::LevelSet {

namespace {

using namespace TVL::TileTree3D;
using detail::countsAsLeaf;
using detail::kEpsilon;
using detail::kTinyDistance;
using Tavrel::Math::double3;

template <typename Traits> using FloatChannel = VoxelChannel<Traits, float>;
template <typename Traits> using TypeChannel = VoxelChannel<Traits, unsigned char>;
template <typename Traits>
using Sampler = VoxelSamplerLinear<Traits, float, Traits::kTileWidth, 2, double3>;

/// @brief The classical path, stage by stage: zero crossing, exclusion of what no sweep reaches,
///        reset of the unknowns, recursion, coarse copies.
/// @details The stages share the call's arguments and the work channels made for it; each stage
///          is one timed member, its per-voxel work in `classical_redistance_kernels.h`.
template <typename Traits> class ClassicalRedistance {
public:
    static constexpr int W = Traits::kTileWidth;
    static constexpr int S = Traits::kVoxelsPerSlot;
    static constexpr std::size_t N = std::size_t(W) * W * W;

    struct Arguments {
        Container<Traits> const& container;
        VoxelTopology<Traits> const& topology;
        FloatChannel<Traits>& distance;
        bool redistanceInterior, redistanceExterior, overwriteSurface;
        int minDepth, maxDepth;
        FloatChannel<Traits> const* mask;
        TypeChannel<Traits>* callerTypes;
        float tolerance, interiorBand, exteriorBand;
        int pre, post;
        bool haloByExtrapolation, performCoalescedRedistance;
        VoxelChannel<Traits, short> const* dof;
        Quillon::String const& name;
    };

    explicit ClassicalRedistance(Arguments const& a)
        : a(a), mVoxelSize(a.container.voxelSize()),
          mBackground(std::fabs(a.distance.defaultValue()))
    {
    }

    void run()
    {
        // The frozen input: every zero-crossing value is computed from it while the channel
        // changes.
        if (a.overwriteSurface) {
            auto const timer = CoreGL::Logger::timer(a.name + ".create_halo_channel", nullptr);
            mSampler = std::make_unique<Sampler<Traits>>(a.container, a.topology, a.distance);
        }
        bool const needZeroCrossingValues = a.overwriteSurface && !hasValueTypes();
        if (!needZeroCrossingValues && !a.redistanceInterior && !a.redistanceExterior)
            return;
        if (!hasValueTypes()) {
            auto const timer =
                CoreGL::Logger::timer(a.name + ".create_value_type_channel", nullptr);
            mOwnTypes =
                scratchChannel<TypeChannel<Traits>>(a.topology, (unsigned char)kValueTypeUnknown, 0,
                                                    Traits::kMaxDepth, {}, ScratchMemory::kPool);
        }
        if (needZeroCrossingValues) {
            auto const timer =
                CoreGL::Logger::timer(a.name + ".create_zero_crossing_values", nullptr);
            mZeroCrossing = scratchChannel<FloatChannel<Traits>>(
                a.topology, mBackground, 0, Traits::kMaxDepth, {}, ScratchMemory::kPool);
        }
        initializeZeroCrossing();
        if (a.mask)
            excludeUnreachable();
        resetUnknowns();
        {
            auto const timer = CoreGL::Logger::timer(a.name + ".redistance_recursively", nullptr);
            detail::redistanceRecursively<Traits>(
                a.distance, a.mask, a.container, &types(), a.tolerance, a.maxDepth, a.minDepth,
                a.maxDepth, a.interiorBand, a.exteriorBand, a.pre, a.post, a.topology.offset(),
                a.haloByExtrapolation, a.performCoalescedRedistance, a.dof, a.name);
        }
        setCoarseValues();
    }

private:
    bool hasValueTypes() const { return a.callerTypes != nullptr; }
    TypeChannel<Traits>& types() const { return hasValueTypes() ? *a.callerTypes : *mOwnTypes; }
    /// The background of @p v's side.
    float reset(float v) const { return 0.0f >= v ? -mBackground : mBackground; }
    bool solvedSide(float v) const
    {
        return v <= 0.0f ? a.redistanceInterior : a.redistanceExterior;
    }

    /// Stage "initialize_zero_crossing": voxels next to a sign change become known; without
    /// value types from the caller, their distance to the surface is estimated into the
    /// zero-crossing channel (or, without one, left as it is).
    void initializeZeroCrossing()
    {
        auto const timer = CoreGL::Logger::timer(a.name + ".initialize_zero_crossing", nullptr);
        for (int depth = a.maxDepth; depth >= a.minDepth; --depth)
            detail::parallelRanges(a.container.tileCount(depth),
                                   [&](std::int64_t begin, std::int64_t end) {
                                       zeroCrossingTiles(depth, begin, end);
                                   });
        if (a.dof && mZeroCrossing)
            detail::interpolateHanging(a.container, *a.dof, *mZeroCrossing, std::max(1, a.minDepth),
                                       a.maxDepth, a.name);
    }

    void zeroCrossingTiles(int depth, std::int64_t begin, std::int64_t end) const
    {
        float const h = float(Container<Traits>::voxelDataWidth(depth)) * mVoxelSize;
        auto accessor = a.container.tileAccessor();
        std::unique_ptr<Sampler<Traits>> local;
        if (mSampler)
            local = std::make_unique<Sampler<Traits>>(*mSampler);
        auto sample = [&](double3 const& p) { return local->valueAtTileSpace(p, a.maxDepth); };
        auto gradient = [&](double3 const& p, float f) {
            return detail::sampledGradient(sample, p, f);
        };
        FloatChannel<Traits> const& distance = a.distance;
        for (std::int64_t t = begin; t < end; ++t) {
            Tile<Traits> const& tile = a.container.tile(t, depth);
            auto const values = distance.tileData(tile.treeIndex());
            auto typeBlock = types().tileData(tile.treeIndex());
            if (values.size() != N || typeBlock.size() != N)
                continue;
            auto const maskBlock =
                a.mask ? a.mask->tileData(tile.treeIndex()) : ConstTileData<float, W, 0, 0>();
            detail::FaceNeighbourBlocks<Traits> const faces(tile, distance, accessor);
            if (!local && !a.mask && !hasValueTypes() && depth == a.maxDepth && faces.complete(N)) {
                // Only the crossing test runs, and every face neighbour is a leaf voxel of this
                // tile or of a same-depth tile beside it.
                for (int k = 0; k < W; ++k)
                    for (int j = 0; j < W; ++j)
                        for (int i = 0; i < W; ++i) {
                            if (typeBlock(i, j, k) != kValueTypeUnknown)
                                continue;
                            float const v = values(i, j, k);
                            if (!solvedSide(v))
                                continue;
                            float const n[6] = {
                                faces.at(values, i - 1, j, k), faces.at(values, i + 1, j, k),
                                faces.at(values, i, j - 1, k), faces.at(values, i, j + 1, k),
                                faces.at(values, i, j, k - 1), faces.at(values, i, j, k + 1)};
                            if (detail::signChangesTowardAny(v, n))
                                typeBlock(i, j, k) = kValueTypeKnown;
                        }
                continue;
            }
            auto zcBlock = mZeroCrossing ? mZeroCrossing->tileData(tile.treeIndex())
                                         : TileData<float, W, 0, 0>();
            auto out = mZeroCrossing ? zcBlock : a.distance.tileData(tile.treeIndex());
            // 2 x 2 x 2 blocks of the tile's voxels.
            for (int bk = 0; bk < W; bk += 2)
                for (int bj = 0; bj < W; bj += 2)
                    for (int bi = 0; bi < W; bi += 2)
                        for (int k = bk; k < std::min(bk + 2, W); ++k)
                            for (int j = bj; j < std::min(bj + 2, W); ++j)
                                for (int i = bi; i < std::min(bi + 2, W); ++i) {
                                    bool const leaf = countsAsLeaf(tile, i, j, k, a.maxDepth);
                                    if (maskBlock.size() == N && maskBlock(i, j, k) >= 0.0f) {
                                        if (leaf)
                                            typeBlock(i, j, k) = kValueTypeExcluded;
                                        continue;
                                    }
                                    if (typeBlock(i, j, k) != kValueTypeUnknown || hasValueTypes())
                                        continue;
                                    if (!leaf && !a.dof)
                                        continue;
                                    float const v = values(i, j, k);
                                    if (!solvedSide(v))
                                        continue;
                                    float n[6];
                                    for (int f = 0; f < 6; ++f)
                                        n[f] = detail::faceNeighbour(
                                            tile, values, distance, accessor, i, j, k, f / 2,
                                            f % 2 == 0 ? -1 : 1, a.maxDepth, &faces);
                                    detail::AxisCrossings const crossings =
                                        detail::axisCrossings(v, h, n);
                                    if (!crossings.any)
                                        continue;
                                    typeBlock(i, j, k) = kValueTypeKnown;
                                    if (!local)
                                        continue;
                                    float x = detail::planeThroughCrossings(crossings, h, v);
                                    double3 const p0 = detail::samplePosition(tile, i, j, k);
                                    float const s = 0.0f > v ? -1.0f : 1.0f;
                                    float const stepped = detail::stepToZeroCrossing(
                                        sample, gradient, p0, v, s, gradient(p0, sample(p0)),
                                        mVoxelSize, 0.001f * h, 4);
                                    if (std::fabs(stepped) < x)
                                        x = std::fabs(stepped);
                                    out(i, j, k) = s * std::max(x, kTinyDistance);
                                }
        }
    }

    /// Stage "initialize_mask": unknown voxels that no path of non-excluded voxels joins to a
    /// known one are excluded, since no sweep would ever bring them a value. Leaf voxels are
    /// numbered, face neighbours united, and every set without the known root excluded.
    void excludeUnreachable()
    {
        auto const timer = CoreGL::Logger::timer(a.name + ".initialize_mask", nullptr);
        auto const ids = scratchChannel<VoxelChannel<Traits, long long>>(
            a.topology, 0, a.minDepth, a.maxDepth, "levelset_redistance/leafId",
            ScratchMemory::kPool);
        std::int64_t const count = numberUnknownLeaves(*ids);
        UnionFind sets(count);
        for (int depth = a.minDepth; depth <= a.maxDepth; ++depth)
            detail::parallelRanges(a.container.tileCount(depth),
                                   [&](std::int64_t begin, std::int64_t end) {
                                       uniteFaceNeighbours(*ids, sets, depth, begin, end);
                                   });
        std::int64_t const knownRoot = sets.find(0);
        for (int depth = a.maxDepth; depth >= a.minDepth; --depth)
            detail::parallelRanges(a.container.tileCount(depth),
                                   [&](std::int64_t begin, std::int64_t end) {
                                       excludeSets(*ids, sets, knownRoot, depth, begin, end);
                                   });
    }

    bool unknownLeaf(Tile<Traits> const& tile, ConstTileData<unsigned char, W, 0, 0> const& tb,
                     int i, int j, int k) const
    {
        return tb(i, j, k) == kValueTypeUnknown && countsAsLeaf(tile, i, j, k, a.maxDepth);
    }

    /// Numbers the unknown leaf voxels from 1 (0 stands for every known voxel); returns the
    /// count of numbers used, 0 included.
    std::int64_t numberUnknownLeaves(VoxelChannel<Traits, long long>& ids) const
    {
        std::atomic<std::int64_t> counter{1};
        TypeChannel<Traits> const& types = this->types();
        for (int depth = a.minDepth; depth <= a.maxDepth; ++depth)
            detail::parallelRanges(a.container.tileCount(depth),
                                   [&](std::int64_t begin, std::int64_t end) {
                                       for (std::int64_t t = begin; t < end; ++t) {
                                           Tile<Traits> const& tile = a.container.tile(t, depth);
                                           auto const tb = types.tileData(tile.treeIndex());
                                           auto idb = ids.tileData(tile.treeIndex());
                                           if (tb.size() != N || idb.size() != N)
                                               continue;
                                           for (int k = 0; k < W; ++k)
                                               for (int j = 0; j < W; ++j)
                                                   for (int i = 0; i < W; ++i)
                                                       if (unknownLeaf(tile, tb, i, j, k))
                                                           idb(i, j, k) = counter.fetch_add(1);
                                       }
                                   });
        return counter.load();
    }

    void uniteFaceNeighbours(VoxelChannel<Traits, long long> const& ids, UnionFind& sets, int depth,
                             std::int64_t begin, std::int64_t end) const
    {
        TypeChannel<Traits> const& types = this->types();
        auto accessor = a.container.tileAccessor();
        for (std::int64_t t = begin; t < end; ++t) {
            Tile<Traits> const& tile = a.container.tile(t, depth);
            auto const tb = types.tileData(tile.treeIndex());
            auto const idb = ids.tileData(tile.treeIndex());
            if (tb.size() != N || idb.size() != N)
                continue;
            std::int64_t const w = tile.voxelDataWidth();
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i) {
                        if (!unknownLeaf(tile, tb, i, j, k))
                            continue;
                        std::int64_t const c[3] = {tile.ti() + i * w, tile.tj() + j * w,
                                                   tile.tk() + k * w};
                        for (int axis = 0; axis < 3; ++axis)
                            for (int side = -1; side <= 1; side += 2) {
                                std::int64_t p[3] = {c[0], c[1], c[2]};
                                p[axis] = side < 0 ? c[axis] - 1 : c[axis] + w;
                                Tile<Traits> const& n = accessor.tile(p[0], p[1], p[2], depth);
                                if (!n.valid() || n.depth() < a.minDepth)
                                    continue;
                                int3 const q =
                                    n.childDataIJK(int3{int(p[0]), int(p[1]), int(p[2])});
                                if (!countsAsLeaf(n, q.x, q.y, q.z, a.maxDepth))
                                    continue;
                                auto const nt = types.tileData(n.treeIndex());
                                if (nt.size() != N || nt(q.x, q.y, q.z) == kValueTypeExcluded)
                                    continue;
                                auto const nid = ids.tileData(n.treeIndex());
                                if (nid.size() != N)
                                    continue;
                                sets.unite(idb(i, j, k), nid(q.x, q.y, q.z));
                            }
                    }
        }
    }

    /// Excludes (and resets) the unknown leaves outside the known root's set; a tile left all
    /// excluded excludes its parent's voxels over it, which only this tile writes.
    void excludeSets(VoxelChannel<Traits, long long> const& ids, UnionFind& sets,
                     std::int64_t knownRoot, int depth, std::int64_t begin, std::int64_t end) const
    {
        TypeChannel<Traits>& types = this->types();
        for (std::int64_t t = begin; t < end; ++t) {
            Tile<Traits> const& tile = a.container.tile(t, depth);
            auto tb = types.tileData(tile.treeIndex());
            auto const idb = ids.tileData(tile.treeIndex());
            auto values = a.distance.tileData(tile.treeIndex());
            if (tb.size() != N || idb.size() != N || values.size() != N)
                continue;
            bool allExcluded = true;
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i) {
                        if (tb(i, j, k) == kValueTypeUnknown &&
                            countsAsLeaf(tile, i, j, k, a.maxDepth) &&
                            sets.find(idb(i, j, k)) != knownRoot) {
                            tb(i, j, k) = kValueTypeExcluded;
                            values(i, j, k) = reset(values(i, j, k));
                        }
                        allExcluded &= tb(i, j, k) == kValueTypeExcluded;
                    }
            if (!allExcluded || tile.parent() < 0 || depth - 1 < 0)
                continue;
            Tile<Traits> const& parent = a.container.tile(tile.parent(), depth - 1);
            auto pt = types.tileData(parent.treeIndex());
            if (pt.size() != N)
                continue;
            int3 const slot = parent.childIJK(tile);
            for (int k = 0; k < S; ++k)
                for (int j = 0; j < S; ++j)
                    for (int i = 0; i < S; ++i)
                        pt(slot.x * S + i, slot.y * S + j, slot.z * S + k) = kValueTypeExcluded;
        }
    }

    /// Stage "initialize_unknown": unknowns go to the background of their side, and the
    /// zero-crossing values move in.
    void resetUnknowns()
    {
        TypeChannel<Traits> const& types = this->types();
        for (int depth = 0; depth <= a.maxDepth; ++depth) {
            auto const timer = CoreGL::Logger::timer(a.name + ".initialize_unknown", nullptr);
            detail::parallelRanges(a.container.tileCount(depth), [&](std::int64_t begin,
                                                                     std::int64_t end) {
                for (std::int64_t t = begin; t < end; ++t) {
                    TreeIndex const ti{t, depth};
                    auto values = a.distance.tileData(ti);
                    auto const tb = types.tileData(ti);
                    if (values.size() != N || tb.size() != N)
                        continue;
                    auto const zc =
                        mZeroCrossing
                            ? static_cast<FloatChannel<Traits> const&>(*mZeroCrossing).tileData(ti)
                            : ConstTileData<float, W, 0, 0>();
                    for (std::size_t n = 0; n < N; ++n) {
                        if (tb[n] == kValueTypeUnknown)
                            values[n] = reset(values[n]);
                        else if (zc.size() == N && std::fabs(zc[n] - mBackground) > kEpsilon)
                            values[n] = zc[n];
                    }
                }
            });
        }
    }

    /// Stage "set_non_dofs" (with a DOF channel) or "set_coarse_non_leaf": the voxels the
    /// recursion did not solve take their values from the solved ones.
    void setCoarseValues()
    {
        if (a.dof) {
            auto const timer = CoreGL::Logger::timer(a.name + ".set_non_dofs", nullptr);
            if (CoreGL::Logger::verboseLevel() > 1)
                CoreGL::Logger::debugFileStream() << "setNonDOFValues.begin\n";
            detail::restrictToParents(a.container, *a.dof, a.distance, 0, a.maxDepth, a.name);
            detail::interpolateHanging(a.container, *a.dof, a.distance, 1, a.maxDepth, a.name);
            if (CoreGL::Logger::verboseLevel() > 1)
                CoreGL::Logger::debugFileStream() << "setNonDOFValues.end\n";
        } else {
            auto const timer = CoreGL::Logger::timer(a.name + ".set_coarse_non_leaf", nullptr);
            setNonLeafValueToChildValue<Traits, float, W, 0>(
                a.distance, a.container, a.topology.offsetType(), 0, a.maxDepth - 1);
        }
    }

    Arguments const a;
    float const mVoxelSize;
    float const mBackground;
    std::unique_ptr<Sampler<Traits>> mSampler;
    Quillon::Ptr<TypeChannel<Traits>> mOwnTypes;
    Quillon::Ptr<FloatChannel<Traits>> mZeroCrossing;
};

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
    ClassicalRedistance<Traits>(
        {container, topology, io_distance, redistanceInterior, redistanceExterior, overwriteSurface,
         minDepth, maxDepth, mask, io_valueType, tolerance, interiorBand, exteriorBand,
         maxNumPreSmoothingPasses, maxNumPostSmoothingPasses, haloByExtrapolation,
         performCoalescedRedistance, scheme == kRedistanceSweeping ? nullptr : dof, name})
        .run();
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
