/// @file  levelset/adaptive_sweep.cpp
/// @brief The DOF-driven adaptive sweep: a V-cycle over the depths of the tree in which every
///        depth is relaxed tile-colour by tile-colour, passes its values up by restriction on the
///        way to the coarsest depth, and takes its resolution border from the coarser depth by
///        interpolation on the way back.
#include <algorithm>
#include <atomic>
#include <hexmold/levelset/detail/adaptive_sweep_kernels.h>
#include <hexmold/levelset/detail/redistance_impl.h>
#include <hexmold/levelset/detail/sweep_batch.h>
#include <hexmold/levelset/detail/zero_crossing.h>
#include <hexmold/levelset/dof_classification.h>
#include <hexmold/logging/logger.h>
#include <hexmold/sampling/linear_sampler.h>
#include <hexmold/substrate/channel_temporary.h>
#include <hexmold/substrate/halo.h>
#include <hexmold/substrate/scratch_channel.h>
#include <hexmold/substrate/type_lists.h>
#include <memory>

namespace VolumeGL::TileTree3D::LevelSet::detail {

namespace {

template <typename Traits>
using Sampler = VoxelSamplerLinear<Traits, float, Traits::kTileWidth, 2, double3>;

/// Whether any voxel of depths [minDepth, maxDepth] has value type 3; stops at the first one.
template <typename Traits>
bool anyExcluded(Container<Traits> const& container,
                 VoxelChannel<Traits, unsigned char> const& types, int minDepth, int maxDepth)
{
    std::atomic<bool> found{false};
    for (int depth = minDepth; depth <= maxDepth && !found.load(); ++depth)
        parallelRanges(container.tileCount(depth), [&](std::int64_t begin, std::int64_t end) {
            for (std::int64_t t = begin; t < end && !found.load(std::memory_order_relaxed); ++t)
                for (unsigned char v : types.tileData(t, depth))
                    if (v == kValueTypeExcluded) {
                        found.store(true, std::memory_order_relaxed);
                        break;
                    }
        });
    return found.load();
}

/// Excluded marks between parents and children: a parent all of whose child voxels are excluded
/// is excluded (finest first), then a voxel whose parent voxel is excluded is excluded (coarsest
/// first).
template <typename Traits>
void carryExcludedMarks(Container<Traits> const& container,
                        VoxelChannel<Traits, unsigned char>& types, int minDepth, int maxDepth)
{
    constexpr int W = Traits::kTileWidth;
    constexpr int S = Traits::kVoxelsPerSlot;
    constexpr int R = Traits::kRatio;
    constexpr std::size_t N = std::size_t(W) * W * W;
    for (int depth = maxDepth; depth > minDepth; --depth)
        parallelRanges(container.tileCount(depth), [&](std::int64_t begin, std::int64_t end) {
            for (std::int64_t t = begin; t < end; ++t) {
                Tile<Traits> const& tile = container.tile(t, depth);
                if (tile.parent() < 0)
                    continue;
                auto const tb = types.tileData(tile.treeIndex());
                if (tb.size() != N)
                    continue;
                // Each parent voxel over this tile covers R^3 voxels of it.
                Tile<Traits> const& parent = container.tile(tile.parent(), depth - 1);
                auto pb = types.tileData(parent.treeIndex());
                if (pb.size() != N)
                    continue;
                int3 const slot = parent.childIJK(tile);
                for (int pk = 0; pk < S; ++pk)
                    for (int pj = 0; pj < S; ++pj)
                        for (int pi = 0; pi < S; ++pi) {
                            bool all = true;
                            for (int k = pk * R; k < pk * R + R && all; ++k)
                                for (int j = pj * R; j < pj * R + R && all; ++j)
                                    for (int i = pi * R; i < pi * R + R && all; ++i)
                                        all = tb(i, j, k) == kValueTypeExcluded;
                            if (all)
                                pb(slot.x * S + pi, slot.y * S + pj, slot.z * S + pk) =
                                    kValueTypeExcluded;
                        }
            }
        });
    for (int depth = minDepth + 1; depth <= maxDepth; ++depth)
        parallelRanges(container.tileCount(depth), [&](std::int64_t begin, std::int64_t end) {
            for (std::int64_t t = begin; t < end; ++t) {
                Tile<Traits> const& tile = container.tile(t, depth);
                if (tile.parent() < 0)
                    continue;
                auto tb = types.tileData(tile.treeIndex());
                Tile<Traits> const& parent = container.tile(tile.parent(), depth - 1);
                auto const pb =
                    static_cast<VoxelChannel<Traits, unsigned char> const&>(types).tileData(
                        parent.treeIndex());
                if (tb.size() != N || pb.size() != N)
                    continue;
                int3 const slot = parent.childIJK(tile);
                for (int k = 0; k < W; ++k)
                    for (int j = 0; j < W; ++j)
                        for (int i = 0; i < W; ++i)
                            if (pb(slot.x * S + i / R, slot.y * S + j / R, slot.z * S + k / R) ==
                                kValueTypeExcluded)
                                tb(i, j, k) = kValueTypeExcluded;
            }
        });
}

/// @brief The adaptive sweep, stage by stage: the work channels, the start of every voxel (reset,
///        zero crossing, value type), then the V-cycle of relaxations and transfers.
/// @details The stages share the call's arguments and its work channels; the per-voxel work is
///          in `adaptive_sweep_kernels.h`, the tile relaxation in `sweepTile`.
template <typename Traits> class AdaptiveSweep {
public:
    static constexpr int W = Traits::kTileWidth;
    static constexpr int S = Traits::kVoxelsPerSlot;
    static constexpr std::size_t N = std::size_t(W) * W * W;
    using FloatChannel = VoxelChannel<Traits, float>;
    using TypeChannel = VoxelChannel<Traits, unsigned char>;

    struct Arguments {
        Container<Traits> const& container;
        VoxelTopology<Traits> const& topology;
        VoxelChannel<Traits, short> const& dof;
        bool redistanceInterior, redistanceExterior, overwriteSurface;
        int minDepth, maxDepth;
        float tolerance, interiorBand, exteriorBand;
        int pre, post;
        bool haloByExtrapolation;
        Quillon::String const& name;
        FloatChannel& distance;
        FloatChannel const* mask;
        TypeChannel* valueTypes;
    };

    explicit AdaptiveSweep(Arguments const& args)
        : a(args), mHasValueTypes(args.valueTypes != nullptr),
          mUseValues(args.redistanceInterior || args.redistanceExterior || mHasValueTypes),
          mPre(mUseValues ? args.pre : 0), mPost(mUseValues ? args.post : 0),
          mNeedExtended(args.overwriteSurface && !mHasValueTypes),
          mMaxSweeps(2 * std::max(mPre, mPost)),
          mBandCheck(args.interiorBand < FLT_MAX || args.exteriorBand < FLT_MAX),
          mHasMaskChannel(args.mask != nullptr),
          mVoxelSize(args.container.voxelSize()), mSides{args.redistanceInterior,
                                                         args.redistanceExterior,
                                                         std::fabs(args.distance.defaultValue())},
          mHaloMode(args.haloByExtrapolation ? kHaloModeGeneral : kHaloModeRedistance),
          mTypeHaloMode(args.haloByExtrapolation ? kHaloModeRedistanceFirstPass
                                                 : kHaloModeRedistance)
    {
    }

    void run()
    {
        auto const totalTimer = CoreGL::Logger::timer(a.name + ".sweep_adaptive", nullptr);
        mHasMask = mHasMaskChannel || (mHasValueTypes && anyExcluded(a.container, *a.valueTypes,
                                                                     a.minDepth, a.maxDepth));
        if (CoreGL::Logger::verboseLevel() > 2) {
            auto& log = CoreGL::Logger::debugFileStream();
            log << "levelset_redistance.begin: pre = " << mPre << ", post = " << mPost
                << ", overwrite_surface = " << a.overwriteSurface << '\n'
                << "hasMask = " << mHasMask << '\n'
                << "hasMaskChannel = " << mHasMaskChannel << '\n';
        }
        allocateWorkChannels();
        startVoxels();
        vCycle();
    }

private:
    /// Stages "allocate_and_build_extended_channel" (the frozen input of the surface distances,
    /// and its sampler) and "allocate_known_values_channel".
    void allocateWorkChannels()
    {
        {
            auto const timer =
                CoreGL::Logger::timer(a.name + ".allocate_and_build_extended_channel", nullptr);
            if (mNeedExtended) {
                mExtended = channelTemporary(a.distance, a.topology, true, false,
                                             a.distance.minDepth(), a.distance.depth());
                mSampler = std::make_unique<Sampler<Traits>>(a.container, a.topology, *mExtended);
            }
        }
        auto const timer =
            CoreGL::Logger::timer(a.name + ".allocate_known_values_channel", nullptr);
        if (mUseValues && !mHasValueTypes)
            mOwnTypes = scratchChannel<TypeChannel>(a.topology, (unsigned char)kValueTypeUnknown, 0,
                                                    Traits::kMaxDepth, {}, ScratchMemory::kPool);
        mTypes = mHasValueTypes ? a.valueTypes : mOwnTypes.get();
    }

    /// Stage "reset_zero_crossing_and_assign_value_type": every voxel of every depth starts the
    /// sweeps, tile colour by tile colour.
    void startVoxels()
    {
        auto const timer =
            CoreGL::Logger::timer(a.name + ".reset_zero_crossing_and_assign_value_type", nullptr);
        if (mHasMask && mUseValues)
            carryExcludedMarks(a.container, *mTypes, a.minDepth, a.maxDepth);
        TileActivity neighbours; // for its table of same-depth face neighbours
        for (int depth = a.minDepth; depth <= a.maxDepth; ++depth) {
            neighbours.reset(a.container, depth);
            for (int colour = 0; colour < 2; ++colour)
                parallelRanges(a.container.tileCount(depth),
                               [&](std::int64_t begin, std::int64_t end) {
                                   startTiles(depth, colour, begin, end, neighbours.faces);
                               });
        }
    }

    /// @param faces  the same-depth face neighbours of the tiles of @p depth
    void startTiles(int depth, int colour, std::int64_t begin, std::int64_t end,
                    std::vector<std::array<std::int64_t, 6>> const& faces) const
    {
        float const h = float(Container<Traits>::voxelDataWidth(depth)) * mVoxelSize;
        float const nearZero = 0.001f * h;
        auto accessor = a.container.tileAccessor();
        std::unique_ptr<Sampler<Traits>> local;
        if (mSampler)
            local = std::make_unique<Sampler<Traits>>(*mSampler);
        auto sample = [&](double3 const& p) { return local->valueAtTileSpace(p, a.maxDepth); };
        TileData<float, W, 1, 0> halo(TileData<float, W, 1, 0>::kVoxelCount, 0.0f);
        TileData<float, W, 1, 0> frozen(TileData<float, W, 1, 0>::kVoxelCount, 0.0f);
        TileData<float, W, 1, 0> maskHalo(TileData<float, W, 1, 0>::kVoxelCount, -1.0f);
        for (std::int64_t t = begin; t < end; ++t) {
            Tile<Traits> const& tile = a.container.tile(t, depth);
            if (tileColor<Traits>(tile.tijk(), depth) != colour)
                continue;
            auto values = a.distance.tileData(tile.treeIndex());
            auto const flags = a.dof.tileData(tile.treeIndex());
            if (values.size() != N || flags.size() != N)
                continue;
            auto typeBlock =
                mTypes ? mTypes->tileData(tile.treeIndex()) : TileData<unsigned char, W, 0, 0>();
            if (mTypes && typeBlock.size() != N)
                continue;
            auto const maskBlock =
                a.mask ? a.mask->tileData(tile.treeIndex()) : ConstTileData<float, W, 0, 0>();
            // The covering coarse voxel at a jump, not the interpolated rim: the zero-crossing
            // test below must see the sign the coarse depth holds, and a blend of two coarse
            // voxels of opposite signs could invent a crossing. The test reads the face rim,
            // and the edges too only around a voxel within `nearZero` of zero: without one, a
            // tile whose face neighbours are all of its depth takes their faces directly.
            bool const nearZeroVoxel = std::any_of(
                values.begin(), values.end(), [&](float v) { return std::fabs(v) <= nearZero; });
            if (nearZeroVoxel || !fillFromSameDepthFaces<Traits>(
                                     a.distance, t, faces[std::size_t(t)], depth, halo)) {
                setHaloTile<Traits, float, 0, 1, 0>(
                    tile.treeIndex(), a.distance, mHaloMode, kHaloTypeFacesAndEdges, accessor, halo,
                    a.distance.defaultValue(), 1.0f, kVoxelOffsetCenter);
                boundCoarseRim(tile, accessor, mVoxelSize, halo, a.minDepth, true);
            }
            if (a.mask)
                setHaloTile<Traits, float, 0, 1, 0>(
                    tile.treeIndex(), *a.mask, mHaloMode, kHaloTypeFacesAndEdges, accessor,
                    maskHalo, a.mask->defaultValue(), 1.0f, kVoxelOffsetCenter);
            // The frozen input around the tile, read at zero crossings only (its face rim), so
            // made at the first of them.
            bool frozenMade = false;
            auto makeFrozen = [&] {
                if (frozenMade)
                    return;
                frozenMade = true;
                if (fillFromSameDepthFaces<Traits>(*mExtended, t, faces[std::size_t(t)], depth,
                                                   frozen))
                    return;
                setHaloTile<Traits, float, 0, 1, 0>(
                    tile.treeIndex(), *mExtended, kHaloModeRedistance, kHaloTypeFacesAndEdges,
                    accessor, frozen, mExtended->defaultValue(), 1.0f, kVoxelOffsetCenter);
                boundCoarseRim(tile, accessor, mVoxelSize, frozen, a.minDepth, true);
            };
            Tile<Traits> const* parent =
                tile.parent() >= 0 ? &a.container.tile(tile.parent(), depth - 1) : nullptr;
            int3 const slot = parent ? parent->childIJK(tile) : int3{0, 0, 0};
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i) {
                        if (mHasMask &&
                            ((mHasMaskChannel && !(maskBlock(i, j, k) < 0.0f)) ||
                             (mUseValues && typeBlock(i, j, k) == kValueTypeExcluded))) {
                            // A masked voxel keeps its value: the sweeps must not solve it, nor
                            // read it.
                            if (mUseValues)
                                typeBlock(i, j, k) = kValueTypeExcluded;
                            continue;
                        }
                        float& v = values(i, j, k);
                        if (!solvedByAdaptiveSweep(flags(i, j, k), depth == a.maxDepth)) {
                            if (mHasMask && mUseValues && parent) {
                                if (i % 2 == 0 && j % 2 == 0 && k % 2 == 0 &&
                                    takeKnownParent(*parent, slot, i, j, k, v))
                                    typeBlock(i, j, k) = kValueTypeKnown;
                                else
                                    mSides.reset(v);
                                continue;
                            }
                            if (mUseValues)
                                typeBlock(i, j, k) = kValueTypeKnown;
                            mSides.reset(v);
                            continue;
                        }
                        bool const sideSolved = mSides.solves(v);
                        if (mHasValueTypes) {
                            unsigned char& vt = typeBlock(i, j, k);
                            if (vt == kValueTypeKnown || vt == kValueTypeExcluded)
                                continue;
                            mSides.reset(v);
                            if (!sideSolved)
                                vt = kValueTypeKnown;
                            continue;
                        }
                        // On the halo copy; with a mask, only the face neighbours of the mask's
                        // inside take part in the sign test.
                        bool const change = onZeroCrossing<W, false>(
                            halo, i, j, k, nearZero, [&](int p, int q, int r) {
                                return !mHasMask || maskHalo(p, q, r) < 0.0f;
                            });
                        if (!change) {
                            mSides.reset(v);
                            if (mUseValues && !sideSolved)
                                typeBlock(i, j, k) = kValueTypeKnown;
                            continue;
                        }
                        if (mNeedExtended) {
                            makeFrozen();
                            float const n6[6] = {frozen(i + 1, j, k), frozen(i - 1, j, k),
                                                 frozen(i, j + 1, k), frozen(i, j - 1, k),
                                                 frozen(i, j, k + 1), frozen(i, j, k - 1)};
                            v = surfaceDistance(sample, frozen(i, j, k), n6, h,
                                                samplePosition(tile, i, j, k), mVoxelSize);
                        }
                        if (mUseValues)
                            typeBlock(i, j, k) = kValueTypeKnown;
                    }
        }
    }

    /// A voxel the depth does not solve, at an even place, takes the value of the parent voxel
    /// at its place when that one is known; returns whether it did.
    bool takeKnownParent(Tile<Traits> const& parent, int3 slot, int i, int j, int k, float& v) const
    {
        constexpr int R = Traits::kRatio;
        int const pi = slot.x * S + i / R, pj = slot.y * S + j / R, pk = slot.z * S + k / R;
        auto const pt = static_cast<TypeChannel const*>(mTypes)->tileData(parent.treeIndex());
        auto const pv = static_cast<FloatChannel const&>(a.distance).tileData(parent.treeIndex());
        if (pt.size() != N || pv.size() != N || pt(pi, pj, pk) != kValueTypeKnown)
            return false;
        v = pv(pi, pj, pk);
        return true;
    }

    /// Stage "redistance_at_depth", the relaxation of one depth: colours alternate until two in
    /// a row are quiet, or, while an unknown voxel still holds the background, up to the
    /// largest sweep count.
    void redistanceAtDepth(int depth, int passes)
    {
        auto const timer = CoreGL::Logger::timer(a.name + ".redistance_at_depth", nullptr);
        DepthNumbers const numbers = depthNumbers<Traits>(mVoxelSize, depth, a.tolerance);
        int sweep = 0, consecutive = 0;
        std::atomic<bool> unreached{false};
        // Tiles that are fixed points of the relaxation are left out until a neighbour changes;
        // their unreached state is the one of their last relaxation.
        mActivity.reset(a.container, depth);
        prepareDepth(depth);
        for (;;) {
            if (sweep >= passes || consecutive >= 2) {
                if (!(unreached.load() && sweep < mMaxSweeps))
                    break;
            }
            int const colour = sweep % 2;
            // A pair of colours is judged together: two quiet colours end the depth only when
            // they are one pair, and a voxel left unreached by either keeps the depth going.
            if (colour == 0) {
                consecutive = 0;
                unreached.store(false);
            }
            std::atomic<bool> converged{true};
            parallelRanges(std::int64_t(mVisit[colour].size()),
                           [&](std::int64_t begin, std::int64_t end) {
                               relaxTiles(depth, colour, numbers, begin, end, converged, unreached);
                           });
            if (converged.load())
                ++consecutive;
            ++sweep;
            ++mActivity.pass;
        }
        if (CoreGL::Logger::verboseLevel() > 2)
            CoreGL::Logger::debugFileStream() << "Depth " << depth << " completed in " << sweep
                                              << " of " << passes << " sweeps\n";
    }

    /// How the rim of one face of a tile is filled during the relaxations of a depth.
    enum RimFace : unsigned char {
        kRimSameDepth, ///< the face layer of the same-depth tile beside it
        kRimOwnFace,   ///< the tile's own face layer (beyond the domain or the depths treated)
        kRimKept,      ///< the bounded coarse values kept, or the own face where marked
    };

    /// The rim of a tile that has a face without a same-depth tile beside it.
    struct RimPlan {
        std::size_t values;       ///< offset of its kept values, W^2 per face
        RimFace faces[6];         ///< -x, +x, -y, +y, -z, +z
        std::uint32_t ownFace[6]; ///< kRimKept: bit a + W b set where the own face is repeated
    };

    /// @brief The rims of the tiles of one depth that have a face without a same-depth tile
    ///        beside it, for the relaxations of that depth.
    /// @details Across such a face the rim is what the rim rule and `boundCoarseRim` give: the
    ///          covering voxel of a coarser tile moved away from zero, or the tile's own face.
    ///          Tiles of other depths do not change while a depth is relaxed, so the coarse
    ///          values are the same at every pass; only the elements that repeat the tile's own
    ///          face, and the faces of same-depth tiles, are read again at each pass.
    struct RimPlans {
        std::vector<std::int32_t> plan; ///< per tile of the depth: its plan, or -1
        std::vector<RimPlan> plans;
        std::vector<float> values;
    };

    /// @brief The tiles of @p depth that the relaxations visit, by colour, and their rim plans.
    /// @details A tile is visited when it has a block and an unknown voxel; value types do not
    ///          change while a depth is relaxed. Leaving the others out of the passes changes
    ///          nothing: their relaxation would be no sweep at all, and `TileActivity` reads a
    ///          tile's record only for that tile.
    void prepareDepth(int depth)
    {
        std::int64_t const count = a.container.tileCount(depth);
        mRims.plan.assign(std::size_t(count), -1);
        mRims.plans.clear();
        mVisit[0].clear();
        mVisit[1].clear();
        std::size_t values = 0;
        for (std::int64_t t = 0; t < count; ++t) {
            auto const tb = static_cast<TypeChannel const*>(mTypes)->tileData(t, depth);
            if (tb.size() != N || a.distance.tileData(t, depth).size() != N ||
                !hasUnknown<N>(tb.data()))
                continue;
            mVisit[tileColor<Traits>(a.container.tile(t, depth).tijk(), depth)].push_back(t);
            auto const& faces = mActivity.faces[std::size_t(t)];
            if (std::all_of(faces.begin(), faces.end(), [](std::int64_t f) { return f >= 0; }))
                continue;
            mRims.plan[std::size_t(t)] = std::int32_t(mRims.plans.size());
            mRims.plans.push_back(RimPlan{values, {}, {}});
            values += 6 * std::size_t(W) * W;
        }
        mRims.values.assign(values, 0.0f);
        parallelRanges(count, [&](std::int64_t begin, std::int64_t end) {
            auto accessor = a.container.tileAccessor();
            TileData<float, W, 1, 0> u(TileData<float, W, 1, 0>::kVoxelCount, 0.0f);
            for (std::int64_t t = begin; t < end; ++t)
                if (mRims.plan[std::size_t(t)] >= 0 && !makeRimPlan(t, depth, accessor, u))
                    mRims.plan[std::size_t(t)] = -1;
        });
    }

    /// Fills the plan of tile @p t from the rim rule, as `boundCoarseRim` bounds it; false where
    /// the tile takes the general rim at every pass instead.
    bool makeRimPlan(std::int64_t t, int depth,
                     typename Container<Traits>::ConstTileAccessor& accessor,
                     TileData<float, W, 1, 0>& u)
    {
        Tile<Traits> const& tile = a.container.tile(t, depth);
        RimPlan& plan = mRims.plans[std::size_t(mRims.plan[std::size_t(t)])];
        setHaloTile<Traits, float, 0, 1, 0>(tile.treeIndex(), a.distance, mHaloMode,
                                            kHaloTypeFacesAndEdges, accessor, u,
                                            a.distance.defaultValue(), 1.0f, kVoxelOffsetCenter);
        std::int64_t const w = tile.voxelDataWidth();
        std::int64_t const corner[3] = {tile.ti(), tile.tj(), tile.tk()};
        auto const& faces = mActivity.faces[std::size_t(t)];
        for (int f = 0; f < 6; ++f) {
            int const axis = f / 2, side = f % 2 ? 1 : -1;
            plan.ownFace[f] = 0;
            if (faces[std::size_t(f)] >= 0) {
                if (a.distance.tileData(faces[std::size_t(f)], depth).size() != N)
                    return false;
                plan.faces[f] = kRimSameDepth;
                continue;
            }
            Tile<Traits> const& n = accessor.tileNeighbor(tile, faceDirection(axis, side));
            if (!n.valid() || n.depth() < a.minDepth) {
                plan.faces[f] = kRimOwnFace;
                continue;
            }
            if (n.depth() >= tile.depth())
                return false;
            plan.faces[f] = kRimKept;
            float* const kept = mRims.values.data() + plan.values + std::size_t(f) * W * W;
            // As `boundCoarseRim`: the covering coarse value moved away from zero by the
            // distance between the two places, or the own face where the side is not known.
            std::int64_t const nw = n.voxelDataWidth();
            std::int64_t const nc[3] = {n.ti(), n.tj(), n.tk()};
            int const layer = side < 0 ? -1 : W;
            for (int b = 0; b < W; ++b)
                for (int c = 0; c < W; ++c) {
                    int idx[3];
                    idx[axis] = layer;
                    idx[(axis + 1) % 3] = c;
                    idx[(axis + 2) % 3] = b;
                    double d2 = 0.0;
                    for (int e = 0; e < 3; ++e) {
                        std::int64_t const p = corner[e] + std::int64_t(idx[e]) * w;
                        std::int64_t const q = p - (p - nc[e]) % nw;
                        d2 += double(p - q) * double(p - q);
                    }
                    float v = u(idx[0], idx[1], idx[2]);
                    float const grow = float(std::sqrt(d2)) * mVoxelSize;
                    if (!(std::fabs(v) > grow)) {
                        plan.ownFace[f] |= std::uint32_t(1) << (c + W * b);
                        continue;
                    }
                    kept[c + W * b] = 0.0f > v ? v - grow : v + grow;
                }
        }
        return true;
    }

    /// The block of tile @p t with the rim of its plan: what `setHaloTile` and `boundCoarseRim`
    /// give on the faces, which are all the relaxation reads.
    void fillFromRimPlan(std::int64_t t, int depth, RimPlan const& plan,
                         TileData<float, W, 1, 0>& u) const
    {
        auto const own = static_cast<FloatChannel const&>(a.distance).tileData(t, depth);
        for (int k = 0; k < W; ++k)
            for (int j = 0; j < W; ++j)
                for (int i = 0; i < W; ++i)
                    u(i, j, k) = own(i, j, k);
        auto const& faces = mActivity.faces[std::size_t(t)];
        for (int f = 0; f < 6; ++f) {
            int const axis = f / 2, side = f % 2 ? 1 : -1;
            int const layer = side < 0 ? -1 : W, inner = side < 0 ? 0 : W - 1;
            int const outer = side < 0 ? W - 1 : 0; // the layer read from the tile beside
            float const* const kept = mRims.values.data() + plan.values + std::size_t(f) * W * W;
            auto const beside = plan.faces[f] == kRimSameDepth
                                    ? static_cast<FloatChannel const&>(a.distance)
                                          .tileData(faces[std::size_t(f)], depth)
                                    : ConstTileData<float, W, 0, 0>();
            for (int b = 0; b < W; ++b)
                for (int c = 0; c < W; ++c) {
                    int at[3], from[3];
                    at[axis] = layer;
                    at[(axis + 1) % 3] = from[(axis + 1) % 3] = c;
                    at[(axis + 2) % 3] = from[(axis + 2) % 3] = b;
                    float& target = u(at[0], at[1], at[2]);
                    if (plan.faces[f] == kRimSameDepth) {
                        from[axis] = outer;
                        target = beside(from[0], from[1], from[2]);
                    } else if (plan.faces[f] == kRimOwnFace ||
                               (plan.ownFace[f] >> (c + W * b)) & 1u) {
                        from[axis] = inner;
                        target = u(from[0], from[1], from[2]);
                    } else {
                        target = kept[c + W * b];
                    }
                }
        }
    }

    /// Per-worker scratch of `relaxTiles`: the blocks with their halo, and the tiles relaxed
    /// together.
    struct RelaxScratch {
        TileData<float, W, 1, 0> u{TileData<float, W, 1, 0>::kVoxelCount, 0.0f};
        TileData<unsigned char, W, 1, 0> typeHalo{TileData<unsigned char, W, 1, 0>::kVoxelCount,
                                                  (unsigned char)kValueTypeExcluded};
        RelaxBatch<W> batch;
        std::int64_t tiles[RelaxBatch<W>::kLanes]; ///< the tile of each loaded lane
        float relaxed[N];                          ///< a lane's interior, k outer

        explicit RelaxScratch(bool masked) : batch(masked) {}
    };

    /// The interior of a relaxed lane, indexed like a block.
    struct Relaxed {
        float const* values;
        float operator()(int i, int j, int k) const { return values[voxelIndex<W>(i, j, k)]; }
    };

    /// One colour of one depth over entries [begin, end) of the colour's visit list: each tile
    /// is relaxed red-black on a block with its face rim. The tiles go through the batched
    /// relaxation `RelaxBatch<W>::kLanes` at a time, which gives the bits of the tile-by-tile one;
    /// a tile is written back only after its batch is relaxed, which changes nothing, since the
    /// tiles of one colour do not read each other.
    void relaxTiles(int depth, int colour, DepthNumbers const& numbers, std::int64_t begin,
                    std::int64_t end, std::atomic<bool>& converged, std::atomic<bool>& unreached)
    {
        auto accessor = a.container.tileAccessor();
        auto const scratch = std::make_unique<RelaxScratch>(mHasMask);
        auto& u = scratch->u;
        auto& batch = scratch->batch;
        // What the relaxation of tile t leaves: its values, its change, and whether an unknown
        // voxel of it is still unreached.
        auto finish = [&](std::int64_t t, float change, auto const& relaxed) {
            auto const tb = static_cast<TypeChannel const*>(mTypes)->tileData(t, depth);
            auto values = a.distance.tileData(t, depth);
            if (change > numbers.tol)
                converged.store(false, std::memory_order_relaxed);
            mActivity.record(t, change > 0.0f);
            bool const stillUnreached =
                copyBackAndFindUnreached<W>(relaxed, values, tb, mSides.background);
            if (stillUnreached)
                unreached.store(true, std::memory_order_relaxed);
            mActivity.flag[std::size_t(t)] = stillUnreached ? 1 : 0;
        };
        auto flush = [&] {
            if (batch.size() == 0)
                return;
            float changes[RelaxBatch<W>::kLanes];
            batch.relax(numbers, changes);
            for (int lane = 0; lane < batch.size(); ++lane) {
                batch.interior(lane, scratch->relaxed);
                finish(scratch->tiles[lane], changes[lane], Relaxed{scratch->relaxed});
            }
            batch.clear();
        };
        for (std::int64_t n = begin; n < end; ++n) {
            std::int64_t const t = mVisit[colour][std::size_t(n)];
            if (mActivity.skippable(t)) {
                if (mActivity.flag[std::size_t(t)])
                    unreached.store(true, std::memory_order_relaxed);
                continue;
            }
            Tile<Traits> const& tile = a.container.tile(t, depth);
            auto const tb = static_cast<TypeChannel const*>(mTypes)->tileData(t, depth);
            // Between tiles of this depth the rim is the neighbour's face as it is; across a
            // resolution jump or the domain's border it comes from the rim rule, bounded.
            std::int32_t const plan = mRims.plan[std::size_t(t)];
            if (plan >= 0) {
                fillFromRimPlan(t, depth, mRims.plans[std::size_t(plan)], u);
            } else if (!fillFromSameDepthFaces<Traits>(a.distance, t,
                                                       mActivity.faces[std::size_t(t)], depth, u)) {
                setHaloTile<Traits, float, 0, 1, 0>(
                    tile.treeIndex(), a.distance, mHaloMode, kHaloTypeFacesAndEdges, accessor, u,
                    a.distance.defaultValue(), 1.0f, kVoxelOffsetCenter);
                boundCoarseRim(tile, accessor, mVoxelSize, u, a.minDepth);
            }
            if (mBandCheck &&
                beyondBands(a.interiorBand, a.exteriorBand, u, kVoxelsPerTile<Traits>)) {
                // Left out, unchanged.
                finish(t, 0.0f, u);
                continue;
            }
            if (mHasMask)
                setHaloTile<Traits, unsigned char, 0, 1, 0>(
                    tile.treeIndex(), *mTypes, mTypeHaloMode, kHaloTypeFacesAndEdges, accessor,
                    scratch->typeHalo, (unsigned char)kValueTypeExcluded, 1.0f, kVoxelOffsetCenter);
            int const lane =
                batch.add(u.data(), tb.data(), mHasMask ? scratch->typeHalo.data() : nullptr);
            scratch->tiles[lane] = t;
            if (batch.full())
                flush();
        }
        flush();
    }

    /// The V-cycle. Without value types nothing is solved and only the transfers between depths
    /// run. Fine to coarse: relax, then hand the values up. Coarse to fine: take the border from
    /// the coarser depth, relax again. Last, the coarse copies of every depth.
    void vCycle()
    {
        TypeChannel* const solvedTypes = mUseValues ? mTypes : nullptr;
        for (int depth = a.maxDepth; depth >= a.minDepth; --depth) {
            if (mUseValues)
                redistanceAtDepth(depth, mPre);
            if (depth == a.minDepth)
                continue;
            if (mHasMask) {
                auto const timer = CoreGL::Logger::timer(a.name + ".restrict", nullptr);
                setNonLeafValueToChildValue<Traits, float, W, 0>(
                    a.distance, a.container, a.topology.offsetType(), depth - 1, depth - 1);
            } else {
                restrictToParents(a.container, a.dof, a.distance, depth - 1, depth, a.name);
            }
        }
        for (int depth = a.minDepth + 1; depth <= a.maxDepth; ++depth) {
            interpolateHanging(a.container, a.dof, a.distance, depth, depth, a.name, solvedTypes);
            if (mUseValues)
                redistanceAtDepth(depth, mPost);
        }
        if (mHasMask) {
            setNonLeafValueToChildValue<Traits, float, W, 0>(
                a.distance, a.container, a.topology.offsetType(), 0, Traits::kMaxDepth);
            interpolateHanging(a.container, a.dof, a.distance, std::max(1, a.minDepth), a.maxDepth,
                               a.name, solvedTypes);
        } else {
            restrictToParents(a.container, a.dof, a.distance, a.minDepth, a.maxDepth, a.name);
        }
    }

    Arguments const a;
    bool const mHasValueTypes, mUseValues;
    int const mPre, mPost;
    bool const mNeedExtended;
    int const mMaxSweeps;
    bool const mBandCheck, mHasMaskChannel;
    bool mHasMask = false;
    float const mVoxelSize;
    SweepSides const mSides;
    HaloMode const mHaloMode, mTypeHaloMode;
    Quillon::Ptr<FloatChannel> mExtended;
    std::unique_ptr<Sampler<Traits>> mSampler;
    Quillon::Ptr<TypeChannel> mOwnTypes;
    TypeChannel* mTypes = nullptr;
    TileActivity mActivity;
    std::vector<std::int64_t> mVisit[2]; ///< the tiles the passes of a depth visit, by colour
    RimPlans mRims;
};

} // namespace

template <typename Traits>
void sweepAdaptive(Container<Traits> const& container, VoxelTopology<Traits> const& topology,
                   VoxelChannel<Traits, short> const& dof, bool redistanceInterior,
                   bool redistanceExterior, bool overwriteSurface, int minDepth, int maxDepth,
                   float tolerance, float interiorBand, float exteriorBand, int pre, int post,
                   bool haloByExtrapolation, Quillon::String const& name,
                   VoxelChannel<Traits, float>& io_distance,
                   VoxelChannel<Traits, float> const* mask,
                   VoxelChannel<Traits, unsigned char>* io_valueType)
{
    AdaptiveSweep<Traits>({container, topology, dof, redistanceInterior, redistanceExterior,
                           overwriteSurface, minDepth, maxDepth, tolerance, interiorBand,
                           exteriorBand, pre, post, haloByExtrapolation, name, io_distance, mask,
                           io_valueType})
        .run();
}

#define HEXMOLD_INSTANTIATE_SWEEP_ADAPTIVE(TR)                                                     \
    template void sweepAdaptive<TR>(Container<TR> const&, VoxelTopology<TR> const&,                \
                                    VoxelChannel<TR, short> const&, bool, bool, bool, int, int,    \
                                    float, float, float, int, int, bool, Quillon::String const&,   \
                                    VoxelChannel<TR, float>&, VoxelChannel<TR, float> const*,      \
                                    VoxelChannel<TR, unsigned char>*);
HEXMOLD_FOR_EACH_TRAITS(HEXMOLD_INSTANTIATE_SWEEP_ADAPTIVE)
#undef HEXMOLD_INSTANTIATE_SWEEP_ADAPTIVE

} // namespace VolumeGL::TileTree3D::LevelSet::detail
