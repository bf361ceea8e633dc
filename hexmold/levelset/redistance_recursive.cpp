/// @file  levelset/redistance_recursive.cpp
/// @brief The classical multilevel recursion of redistancing: a V-cycle over the depths in
///        which every depth is pre-smoothed, hands its values to the coarser depth, and after the
///        coarser depths are done is post-smoothed and filled from them where still unreached.
#include <hexmold/levelset/detail/redistance_impl.h>
#include <hexmold/logging/logger.h>
#include <hexmold/substrate/type_lists.h>
#include <iostream>
#include <limits>

namespace VolumeGL::TileTree3D::LevelSet::detail {

namespace {

/// Smallest and largest value at @p depth, for the diagnostic lines.
template <typename Traits>
void printRange(VoxelChannel<Traits, float> const& distance, Container<Traits> const& container,
                char const* stage, int depth)
{
    if (CoreGL::Logger::verboseLevel() <= 2)
        return;
    float lo = std::numeric_limits<float>::max(), hi = std::numeric_limits<float>::lowest();
    for (std::int64_t t = 0; t < container.tileCount(depth); ++t) {
        auto const block = distance.tileData(t, depth);
        for (float v : block)
            lo = std::min(lo, v), hi = std::max(hi, v);
    }
    CoreGL::Logger::debugFileStream()
        << "Min, max " << stage << " at depth " << depth << " : " << lo << " and " << hi << '\n';
}

/// Non-leaf voxels of @p depth take the value of the child voxel that holds their sample; where
/// that child voxel is unreached and value types are in use, the nearest known voxel of the child
/// tile plus its distance stands in. A candidate replaces the value only when it is smaller in
/// magnitude, and takes the value's sign.
template <typename Traits>
void injectFromChildren(VoxelChannel<Traits, float>& distance, Container<Traits> const& container,
                        VoxelChannel<Traits, unsigned char> const* valueType, int depth,
                        float3 const& offset)
{
    constexpr int W = Traits::kTileWidth;
    constexpr int S = Traits::kVoxelsPerSlot;
    constexpr int R = Traits::kRatio;
    constexpr std::size_t N = std::size_t(W) * W * W;
    float const background = std::fabs(distance.defaultValue());
    float const childSpacing =
        float(Container<Traits>::voxelDataWidth(depth + 1)) * container.voxelSize();
    // The child voxel at the voxel's position: the low corner of the covered region, moved by
    // the sample offset as it falls at the child's resolution (within the child voxel for every
    // offset, since a voxel sits at its corner at every depth).
    std::int64_t const cw = Container<Traits>::voxelDataWidth(depth + 1);
    auto childOffset = [&](float o) {
        return std::min(int(std::floor(double(o) * double(cw - 1) / double(cw))), R - 1);
    };
    int const oi = childOffset(offset.x), oj = childOffset(offset.y), ok = childOffset(offset.z);
    parallelRanges(container.tileCount(depth), [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t t = begin; t < end; ++t) {
            Tile<Traits> const& tile = container.tile(t, depth);
            if (tile.isLeaf())
                continue;
            auto values = distance.tileData(tile.treeIndex());
            if (values.size() != N)
                continue;
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i) {
                        std::int64_t const child = tile.childIndex(i / S, j / S, k / S);
                        if (child < 0)
                            continue;
                        auto const childValues = distance.tileData(child, depth + 1);
                        if (childValues.size() != N)
                            continue;
                        int const ci = (i % S) * R + oi, cj = (j % S) * R + oj,
                                  ck = (k % S) * R + ok;
                        float candidate = childValues(ci, cj, ck);
                        float& value = values(i, j, k);
                        if (!valueType || std::fabs(std::fabs(candidate) - background) > kEpsilon) {
                            value = candidate;
                            continue;
                        }
                        auto const childTypes = valueType->tileData(child, depth + 1);
                        if (childTypes.size() != N)
                            continue;
                        int bestD2 = std::numeric_limits<int>::max();
                        float best = 0.0f;
                        for (int kk = 0; kk < W; ++kk)
                            for (int jj = 0; jj < W; ++jj)
                                for (int ii = 0; ii < W; ++ii) {
                                    if (childTypes(ii, jj, kk) != kValueTypeKnown)
                                        continue;
                                    int const d2 = (ii - ci) * (ii - ci) + (jj - cj) * (jj - cj) +
                                                   (kk - ck) * (kk - ck);
                                    if (d2 >= bestD2)
                                        continue;
                                    bestD2 = d2;
                                    best = childValues(ii, jj, kk);
                                }
                        if (bestD2 == std::numeric_limits<int>::max())
                            continue;
                        float const grown = best > 0.0f
                                                ? best + childSpacing * std::sqrt(float(bestD2))
                                                : best - childSpacing * std::sqrt(float(bestD2));
                        if (std::fabs(grown) < std::fabs(value))
                            value = std::copysign(std::fabs(grown), value);
                    }
        }
    });
}

/// Voxels of @p depth that are unknown and still at the background of the parent voxel's sign
/// take their value from the coarser depth: the trilinear mix of the coarse lattice around them
/// where all of it is reached, else the parent voxel's value moved away from zero by their
/// distance from the parent voxel's place (at most the background), an upper bound of their
/// distance. The parent's value alone could be far too small for a voxel a coarse diagonal away.
template <typename Traits>
void initializeFromParents(VoxelChannel<Traits, float>& distance,
                           Container<Traits> const& container,
                           VoxelChannel<Traits, unsigned char> const* valueType, int depth)
{
    constexpr int W = Traits::kTileWidth;
    constexpr int S = Traits::kVoxelsPerSlot;
    constexpr int R = Traits::kRatio;
    constexpr std::size_t N = std::size_t(W) * W * W;
    float const background = std::fabs(distance.defaultValue());
    float const voxelSize = container.voxelSize();
    std::int64_t const w = Container<Traits>::voxelDataWidth(depth);
    std::int64_t const pw = Container<Traits>::voxelDataWidth(depth - 1);
    parallelRanges(container.tileCount(depth), [&](std::int64_t begin, std::int64_t end) {
        auto accessor = container.tileAccessor();
        // The value at coarse lattice point q, or NaN where it is unreached or missing.
        auto coarse = [&](std::int64_t x, std::int64_t y, std::int64_t z) -> float {
            Tile<Traits> const& c = accessor.tile(x, y, z, depth - 1);
            if (!c.valid())
                return std::numeric_limits<float>::quiet_NaN();
            auto const cv = distance.tileData(c.treeIndex());
            if (cv.size() != N)
                return std::numeric_limits<float>::quiet_NaN();
            std::int64_t const cw = c.voxelDataWidth();
            float const v =
                cv(int((x - c.ti()) / cw), int((y - c.tj()) / cw), int((z - c.tk()) / cw));
            return std::fabs(v) < background - kEpsilon ? v
                                                        : std::numeric_limits<float>::quiet_NaN();
        };
        for (std::int64_t t = begin; t < end; ++t) {
            Tile<Traits> const& tile = container.tile(t, depth);
            if (tile.parent() < 0)
                continue;
            Tile<Traits> const& parent = container.tile(tile.parent(), depth - 1);
            auto const parentValues = distance.tileData(parent.treeIndex());
            auto values = distance.tileData(tile.treeIndex());
            if (parentValues.size() != N || values.size() != N)
                continue;
            auto const types = valueType ? valueType->tileData(tile.treeIndex())
                                         : ConstTileData<unsigned char, W, 0, 0>();
            int3 const slot = parent.childIJK(tile);
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i) {
                        if (types.size() == N && types(i, j, k) != kValueTypeUnknown)
                            continue;
                        float const c = parentValues(slot.x * S + i / R, slot.y * S + j / R,
                                                     slot.z * S + k / R);
                        float const reset = 0.0f > c ? -background : background;
                        float& v = values(i, j, k);
                        if (std::fabs(v - reset) > kEpsilon)
                            continue;
                        // The trilinear mix of the coarse lattice, where all of it is reached on
                        // this voxel's side.
                        std::int64_t const p[3] = {tile.ti() + i * w, tile.tj() + j * w,
                                                   tile.tk() + k * w};
                        double const mix = latticeMix<Traits>(
                            p, pw, [&](std::int64_t x, std::int64_t y, std::int64_t z) {
                                float const value = coarse(x, y, z);
                                return std::isnan(value) || (0.0f > value) != (0.0f > c)
                                           ? std::numeric_limits<double>::quiet_NaN()
                                           : double(value);
                            });
                        bool const reached = !std::isnan(mix);
                        if (reached) {
                            float const mixed = float(mix);
                            v = 0.0f > c ? std::min(mixed, -kTinyDistance)
                                         : std::max(mixed, kTinyDistance);
                            continue;
                        }
                        // The offset of this voxel from the parent voxel's corner, in finest
                        // voxels.
                        double const di = double((i % R) * w), dj = double((j % R) * w),
                                     dk = double((k % R) * w);
                        float const grow =
                            float(std::sqrt(di * di + dj * dj + dk * dk)) * voxelSize;
                        float const magnitude = std::min(std::fabs(c) + grow, background);
                        v = 0.0f > c ? -magnitude : magnitude;
                    }
        }
    });
}

/// Red and black sweeps until the largest change is at most @p threshold, at most @p passes
/// times.
template <typename Traits>
void smooth(VoxelChannel<Traits, float>& distance, VoxelChannel<Traits, float> const* mask,
            Container<Traits> const& container,
            VoxelChannel<Traits, unsigned char> const* valueType, int depth, float interiorBand,
            float exteriorBand, bool useBandAtTiles, bool haloByExtrapolation, bool coalesced,
            int passes, float threshold, char const* redLabel, char const* blackLabel,
            TileActivity& activity)
{
    if (passes <= 0)
        return;
    // Tiles that are fixed points of the sweep are left out until a neighbour changes.
    bool const blocks = coalescedForm<Traits>(mask, depth, interiorBand, exteriorBand,
                                              useBandAtTiles, haloByExtrapolation, coalesced);
    activity.reset(container, blocks ? depth - 1 : depth);
    float maxChange = FLT_MAX;
    for (int pass = 0; pass < passes && maxChange > threshold; ++pass) {
        float const red = redistanceTilesTracked<Traits>(
            kRed, distance, mask, container, valueType, depth, interiorBand, exteriorBand,
            useBandAtTiles, haloByExtrapolation, coalesced, &activity);
        float const black = redistanceTilesTracked<Traits>(
            kBlack, distance, mask, container, valueType, depth, interiorBand, exteriorBand,
            useBandAtTiles, haloByExtrapolation, coalesced, &activity);
        maxChange = std::max(red, black);
        if (CoreGL::Logger::verboseLevel() > 2) {
            CoreGL::Logger::debugFileStream() << "Depth " << depth << redLabel << red << '\n';
            CoreGL::Logger::debugFileStream() << "Depth " << depth << blackLabel << black << '\n';
        }
    }
}

} // namespace

template <typename Traits>
void redistanceRecursively(VoxelChannel<Traits, float>& io_distance,
                           VoxelChannel<Traits, float> const* mask,
                           Container<Traits> const& container,
                           VoxelChannel<Traits, unsigned char> const* valueType, float tolerance,
                           int depth, int minDepth, int maxDepth, float interiorBand,
                           float exteriorBand, int pre, int post, float3 const& offset,
                           bool haloByExtrapolation, bool performCoalescedRedistance,
                           VoxelChannel<Traits, short> const* dof, Quillon::String const& name)
{
    // Depths without tiles are passed through on the way down.
    while (depth > minDepth && container.tileCount(depth) == 0)
        --depth;
    if (depth < 0)
        return;
    float const threshold =
        container.voxelSize() * tolerance * float(Container<Traits>::voxelDataWidth(depth));
    TileActivity activity;
    printRange(io_distance, container, "before injecting values", depth);
    if (depth != maxDepth) {
        if (dof)
            restrictToParents(container, *dof, io_distance, depth, depth + 1, name);
        else
            injectFromChildren(io_distance, container, valueType, depth, offset);
    }
    printRange(io_distance, container, "after injecting values", depth);
    smooth(io_distance, mask, container, valueType, depth, FLT_MAX, FLT_MAX, true,
           haloByExtrapolation, performCoalescedRedistance, pre, threshold,
           ": maxLocalChange red = ", ": maxLocalChange black = ", activity);
    printRange(io_distance, container, "after pre-smooth", depth);
    if (depth > minDepth) {
        redistanceRecursively(io_distance, mask, container, valueType, tolerance, depth - 1,
                              minDepth, maxDepth, interiorBand, exteriorBand, pre, post, offset,
                              haloByExtrapolation, performCoalescedRedistance, dof, name);
        if (dof)
            interpolateHanging(container, *dof, io_distance, depth, depth, name);
    }
    printRange(io_distance, container, "after recursive call", depth);
    smooth(io_distance, mask, container, valueType, depth, interiorBand, exteriorBand, false,
           haloByExtrapolation, performCoalescedRedistance, post, threshold,
           ": maxLocalChange red2 = ", ": maxLocalChange black2 = ", activity);
    printRange(io_distance, container, "after post-smooth", depth);
    if (depth != minDepth) {
        initializeFromParents(io_distance, container, valueType, depth);
        printRange(io_distance, container, "after post - init", depth);
    }
}

#define HEXMOLD_INSTANTIATE_RECURSION(TR)                                                          \
    template void redistanceRecursively<TR>(                                                       \
        VoxelChannel<TR, float>&, VoxelChannel<TR, float> const*, Container<TR> const&,            \
        VoxelChannel<TR, unsigned char> const*, float, int, int, int, float, float, int, int,      \
        float3 const&, bool, bool, VoxelChannel<TR, short> const*, Quillon::String const&);
HEXMOLD_FOR_EACH_TRAITS(HEXMOLD_INSTANTIATE_RECURSION)
#undef HEXMOLD_INSTANTIATE_RECURSION

} // namespace VolumeGL::TileTree3D::LevelSet::detail
