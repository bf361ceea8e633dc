/// @file  levelset/adaptive_sweep.cpp
/// @brief The DOF-driven adaptive sweep: a V-cycle over the depths of the tree in which every
///        depth is relaxed tile-colour by tile-colour, passes its values up by restriction on the
///        way to the coarsest depth, and takes its resolution border from the coarser depth by
///        interpolation on the way back.
#include <atomic>
#include <hexmold/levelset/detail/redistance_impl.h>
#include <hexmold/levelset/detail/zero_crossing.h>
#include <hexmold/levelset/dof_classification.h>
#include <hexmold/logging/logger.h>
#include <hexmold/sampling/linear_sampler.h>
#include <hexmold/substrate/channel_temporary.h>
#include <hexmold/substrate/halo.h>
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
    constexpr int W = Traits::kTileWidth;
    constexpr int S = Traits::kVoxelsPerSlot;
    constexpr std::size_t N = std::size_t(W) * W * W;
    using FloatChannel = VoxelChannel<Traits, float>;
    using TypeChannel = VoxelChannel<Traits, unsigned char>;
    auto const totalTimer = CoreGL::Logger::timer(name + ".sweep_adaptive", nullptr);

    bool const hasValueTypes = io_valueType != nullptr;
    bool const useValues = redistanceInterior || redistanceExterior || hasValueTypes;
    if (!useValues)
        pre = post = 0;
    bool const needExtended = overwriteSurface && !hasValueTypes;
    int const maxSweeps = 2 * std::max(pre, post);
    bool const bandCheck = interiorBand < FLT_MAX || exteriorBand < FLT_MAX;
    bool const hasMaskChannel = mask != nullptr;
    bool const hasMask = hasMaskChannel || (hasValueTypes && anyExcluded(container, *io_valueType,
                                                                         minDepth, maxDepth));
    if (CoreGL::Logger::verboseLevel() > 2) {
        auto& log = CoreGL::Logger::debugFileStream();
        log << "levelset_redistance.begin: pre = " << pre << ", post = " << post
            << ", overwrite_surface = " << overwriteSurface << '\n'
            << "hasMask = " << hasMask << '\n'
            << "hasMaskChannel = " << hasMaskChannel << '\n';
    }
    float const voxelSize = container.voxelSize();
    float const background = std::fabs(io_distance.defaultValue());
    HaloMode const haloMode = haloByExtrapolation ? kHaloModeGeneral : kHaloModeRedistance;
    HaloMode const typeHaloMode =
        haloByExtrapolation ? kHaloModeRedistanceFirstPass : kHaloModeRedistance;

    // The frozen input of the surface distances, and its sampler.
    Quillon::Ptr<FloatChannel> extended;
    std::unique_ptr<Sampler<Traits>> sampler;
    {
        auto const timer =
            CoreGL::Logger::timer(name + ".allocate_and_build_extended_channel", nullptr);
        if (needExtended) {
            extended = channelTemporary(io_distance, topology, true, false, io_distance.minDepth(),
                                        io_distance.depth());
            sampler = std::make_unique<Sampler<Traits>>(container, topology, *extended);
        }
    }
    std::unique_ptr<TypeChannel> ownTypes;
    {
        auto const timer = CoreGL::Logger::timer(name + ".allocate_known_values_channel", nullptr);
        if (useValues && !hasValueTypes) {
            unsigned char const unknown = kValueTypeUnknown;
            ownTypes = std::make_unique<TypeChannel>(Quillon::String(), &unknown,
                                                     kDataElementInitializerDefaultValue, true,
                                                     false, 0, Traits::kMaxDepth);
            ownTypes->update(topology);
        }
    }
    TypeChannel* types = hasValueTypes ? io_valueType : ownTypes.get();

    auto reset = [&](float& v) {
        if (redistanceInterior && v < 0.0f)
            v = -background;
        if (redistanceExterior && v >= 0.0f)
            v = background;
    };

    {
        auto const timer =
            CoreGL::Logger::timer(name + ".reset_zero_crossing_and_assign_value_type", nullptr);
        if (hasMask && useValues)
            carryExcludedMarks(container, *types, minDepth, maxDepth);
        for (int depth = minDepth; depth <= maxDepth; ++depth) {
            float const h = float(Container<Traits>::voxelDataWidth(depth)) * voxelSize;
            float const nearZero = 0.001f * h;
            for (int colour = 0; colour < 2; ++colour) {
                parallelRanges(container.tileCount(depth), [&](std::int64_t begin,
                                                               std::int64_t end) {
                    auto accessor = container.tileAccessor();
                    std::unique_ptr<Sampler<Traits>> local;
                    if (sampler)
                        local = std::make_unique<Sampler<Traits>>(*sampler);
                    auto sample = [&](double3 const& p) {
                        return local->valueAtTileSpace(p, maxDepth);
                    };
                    TileData<float, W, 1, 0> halo(TileData<float, W, 1, 0>::kVoxelCount, 0.0f);
                    TileData<float, W, 1, 0> frozen(TileData<float, W, 1, 0>::kVoxelCount, 0.0f);
                    TileData<float, W, 1, 0> maskHalo(TileData<float, W, 1, 0>::kVoxelCount, -1.0f);
                    for (std::int64_t t = begin; t < end; ++t) {
                        Tile<Traits> const& tile = container.tile(t, depth);
                        if (tileColor<Traits>(tile.tijk(), depth) != colour)
                            continue;
                        auto values = io_distance.tileData(tile.treeIndex());
                        auto const flags = dof.tileData(tile.treeIndex());
                        if (values.size() != N || flags.size() != N)
                            continue;
                        auto typeBlock = types ? types->tileData(tile.treeIndex())
                                               : TileData<unsigned char, W, 0, 0>();
                        if (types && typeBlock.size() != N)
                            continue;
                        auto const maskBlock = mask ? mask->tileData(tile.treeIndex())
                                                    : ConstTileData<float, W, 0, 0>();
                        // The covering coarse voxel at a jump, not the interpolated rim: the
                        // zero-crossing test below must see the sign the coarse depth holds, and a
                        // blend of two coarse voxels of opposite signs could invent a crossing.
                        setHaloTile<Traits, float, 0, 1, 0>(
                            tile.treeIndex(), io_distance, haloMode, kHaloTypeFacesAndEdges,
                            accessor, halo, io_distance.defaultValue(), 1.0f, kVoxelOffsetCenter);
                        boundCoarseRim(tile, accessor, voxelSize, halo, minDepth, true);
                        if (mask)
                            setHaloTile<Traits, float, 0, 1, 0>(
                                tile.treeIndex(), *mask, haloMode, kHaloTypeFacesAndEdges, accessor,
                                maskHalo, mask->defaultValue(), 1.0f, kVoxelOffsetCenter);
                        if (needExtended)
                            setHaloTile<Traits, float, 0, 1, 0>(
                                tile.treeIndex(), *extended, kHaloModeRedistance,
                                kHaloTypeFacesAndEdges, accessor, frozen, extended->defaultValue(),
                                1.0f, kVoxelOffsetCenter);
                        if (needExtended)
                            boundCoarseRim(tile, accessor, voxelSize, frozen, minDepth, true);
                        Tile<Traits> const* parent = tile.parent() >= 0
                                                         ? &container.tile(tile.parent(), depth - 1)
                                                         : nullptr;
                        int3 const slot = parent ? parent->childIJK(tile) : int3{0, 0, 0};
                        for (int k = 0; k < W; ++k)
                            for (int j = 0; j < W; ++j)
                                for (int i = 0; i < W; ++i) {
                                    if (hasMask &&
                                        ((hasMaskChannel && !(maskBlock(i, j, k) < 0.0f)) ||
                                         (useValues && typeBlock(i, j, k) == kValueTypeExcluded))) {
                                        // A masked voxel keeps its value: the sweeps must not
                                        // solve it, nor read it.
                                        if (useValues)
                                            typeBlock(i, j, k) = kValueTypeExcluded;
                                        continue;
                                    }
                                    short const f = flags(i, j, k);
                                    // A hanging voxel is solved here as well: the finer data next
                                    // to it know its value better than the coarser lattice, which
                                    // only fills in where the sweeps of this depth leave it
                                    // unreached.
                                    bool const hanging =
                                        (f & kDOFHanging) && !(f & kDOFNotInterpolated);
                                    bool const isDOF = (f & kDOFSolved) || hanging ||
                                                       (depth == maxDepth && (f & kDOFFromChild));
                                    float& v = values(i, j, k);
                                    if (!isDOF) {
                                        if (hasMask && useValues && parent) {
                                            if (i % 2 == 0 && j % 2 == 0 && k % 2 == 0) {
                                                // The parent voxel at this voxel's place.
                                                constexpr int R = Traits::kRatio;
                                                int const pi = slot.x * S + i / R,
                                                          pj = slot.y * S + j / R,
                                                          pk = slot.z * S + k / R;
                                                auto const pt =
                                                    static_cast<TypeChannel const*>(types)
                                                        ->tileData(parent->treeIndex());
                                                auto const pv =
                                                    static_cast<FloatChannel const&>(io_distance)
                                                        .tileData(parent->treeIndex());
                                                if (pt.size() == N && pv.size() == N &&
                                                    pt(pi, pj, pk) == kValueTypeKnown) {
                                                    typeBlock(i, j, k) = kValueTypeKnown;
                                                    v = pv(pi, pj, pk);
                                                    continue;
                                                }
                                            }
                                        } else if (useValues) {
                                            typeBlock(i, j, k) = kValueTypeKnown;
                                        }
                                        reset(v);
                                        continue;
                                    }
                                    bool const inside = 0.0f > v;
                                    bool const sideSolved =
                                        inside ? redistanceInterior : redistanceExterior;
                                    if (hasValueTypes) {
                                        unsigned char& vt = typeBlock(i, j, k);
                                        if (vt == kValueTypeKnown || vt == kValueTypeExcluded)
                                            continue;
                                        reset(v);
                                        if (!sideSolved)
                                            vt = kValueTypeKnown;
                                        continue;
                                    }
                                    // On the halo copy; with a mask, only the face neighbours of
                                    // the mask's inside take part in the sign test.
                                    bool const change = onZeroCrossing<W, false>(
                                        halo, i, j, k, nearZero, [&](int a, int b, int c) {
                                            return !hasMask || maskHalo(a, b, c) < 0.0f;
                                        });
                                    if (!change) {
                                        reset(v);
                                        if (useValues && !sideSolved)
                                            typeBlock(i, j, k) = kValueTypeKnown;
                                        continue;
                                    }
                                    if (needExtended) {
                                        float const fv = frozen(i, j, k);
                                        float const n6[6] = {
                                            frozen(i + 1, j, k), frozen(i - 1, j, k),
                                            frozen(i, j + 1, k), frozen(i, j - 1, k),
                                            frozen(i, j, k + 1), frozen(i, j, k - 1)};
                                        double3 const p0 = samplePosition(tile, i, j, k);
                                        v = surfaceDistance(sample, fv, n6, h, p0, voxelSize);
                                    }
                                    if (useValues)
                                        typeBlock(i, j, k) = kValueTypeKnown;
                                }
                    }
                });
            }
        }
    }

    TileActivity activity;
    // Relaxation of one depth: colours alternate until two in a row are quiet, or, while an
    // unknown voxel still holds the background, up to maxSweeps.
    auto redistanceAtDepth = [&](int depth, int passes) {
        auto const timer = CoreGL::Logger::timer(name + ".redistance_at_depth", nullptr);
        DepthNumbers const numbers = depthNumbers<Traits>(voxelSize, depth, tolerance);
        int sweep = 0, consecutive = 0;
        std::atomic<bool> unreached{false};
        // Tiles that are fixed points of the relaxation are left out until a neighbour changes;
        // their unreached state is the one of their last relaxation.
        activity.reset(container, depth);
        for (;;) {
            if (sweep >= passes || consecutive >= 2) {
                if (!(unreached.load() && sweep < maxSweeps))
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
            parallelRanges(container.tileCount(depth), [&](std::int64_t begin, std::int64_t end) {
                auto accessor = container.tileAccessor();
                TileData<float, W, 1, 0> u(TileData<float, W, 1, 0>::kVoxelCount, 0.0f);
                TileData<unsigned char, W, 1, 0> typeHalo(
                    TileData<unsigned char, W, 1, 0>::kVoxelCount,
                    (unsigned char)kValueTypeExcluded);
                for (std::int64_t t = begin; t < end; ++t) {
                    Tile<Traits> const& tile = container.tile(t, depth);
                    if (tileColor<Traits>(tile.tijk(), depth) != colour)
                        continue;
                    if (activity.skippable(t)) {
                        if (activity.flag[std::size_t(t)])
                            unreached.store(true, std::memory_order_relaxed);
                        continue;
                    }
                    auto const tb =
                        static_cast<TypeChannel const*>(types)->tileData(tile.treeIndex());
                    auto values = io_distance.tileData(tile.treeIndex());
                    if (tb.size() != N || values.size() != N)
                        continue;
                    if (!hasUnknown<N>(tb.data())) {
                        activity.record(t, false);
                        continue;
                    }
                    setHaloTile<Traits, float, 0, 1, 0>(
                        tile.treeIndex(), io_distance, haloMode, kHaloTypeFacesAndEdges, accessor,
                        u, io_distance.defaultValue(), 1.0f, kVoxelOffsetCenter);
                    boundCoarseRim(tile, accessor, voxelSize, u, minDepth);
                    float change;
                    if (hasMask) {
                        setHaloTile<Traits, unsigned char, 0, 1, 0>(
                            tile.treeIndex(), *types, typeHaloMode, kHaloTypeFacesAndEdges,
                            accessor, typeHalo, (unsigned char)kValueTypeExcluded, 1.0f,
                            kVoxelOffsetCenter);
                        change = sweepTile<W>(interiorBand, exteriorBand, numbers, tb.data(), u,
                                              kSweepRedBlack, bandCheck, kVoxelsPerTile<Traits>,
                                              MaskedNeighbour{typeHalo.data()});
                    } else {
                        change = sweepTile<W>(interiorBand, exteriorBand, numbers, tb.data(), u,
                                              kSweepRedBlack, bandCheck, kVoxelsPerTile<Traits>,
                                              PlainNeighbour{});
                    }
                    if (change > numbers.tol)
                        converged.store(false, std::memory_order_relaxed);
                    activity.record(t, change > 0.0f);
                    bool tested = false;
                    for (int k = 0; k < W; ++k)
                        for (int j = 0; j < W; ++j)
                            for (int i = 0; i < W; ++i) {
                                float const x = u(i, j, k);
                                values(i, j, k) = x;
                                if (!tested && tb(i, j, k) == kValueTypeUnknown &&
                                    !(x > -background && x < background)) {
                                    unreached.store(true, std::memory_order_relaxed);
                                    tested = true;
                                }
                            }
                    activity.flag[std::size_t(t)] = tested ? 1 : 0;
                }
            });
            if (converged.load())
                ++consecutive;
            ++sweep;
            ++activity.pass;
        }
        if (CoreGL::Logger::verboseLevel() > 2)
            CoreGL::Logger::debugFileStream() << "Depth " << depth << " completed in " << sweep
                                              << " of " << passes << " sweeps\n";
    };

    // Without value types nothing is solved and only the transfers between depths run.
    // Fine to coarse: relax, then hand the values up.
    for (int depth = maxDepth; depth >= minDepth; --depth) {
        if (useValues)
            redistanceAtDepth(depth, pre);
        if (depth != minDepth) {
            if (hasMask) {
                auto const timer = CoreGL::Logger::timer(name + ".restrict", nullptr);
                setNonLeafValueToChildValue<Traits, float, W, 0>(
                    io_distance, container, topology.offsetType(), depth - 1, depth - 1);
            } else {
                restrictToParents(container, dof, io_distance, depth - 1, depth, name);
            }
        }
    }
    // Coarse to fine: take the border from the coarser depth, relax again.
    for (int depth = minDepth + 1; depth <= maxDepth; ++depth) {
        interpolateHanging(container, dof, io_distance, depth, depth, name,
                           useValues ? types : nullptr);
        if (useValues)
            redistanceAtDepth(depth, post);
    }
    if (hasMask) {
        setNonLeafValueToChildValue<Traits, float, W, 0>(
            io_distance, container, topology.offsetType(), 0, Traits::kMaxDepth);
        interpolateHanging(container, dof, io_distance, std::max(1, minDepth), maxDepth, name,
                           useValues ? types : nullptr);
    } else {
        restrictToParents(container, dof, io_distance, minDepth, maxDepth, name);
    }
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
