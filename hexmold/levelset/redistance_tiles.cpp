/// @file  levelset/redistance_tiles.cpp
/// @brief One colour of the red-black tile Gauss-Seidel of the recursion: tile by tile, or, for
///        `Traits<2,4,1>`, eight sibling tiles at a time as one 8^3 block.
#include <hexmold/levelset/redistance_tiles.h>

#include <array>
#include <hexmold/levelset/detail/redistance_impl.h>
#include <hexmold/levelset/detail/sweep_batch.h>
#include <hexmold/substrate/halo.h>
#include <hexmold/substrate/type_lists.h>
#include <memory>
#include <vector>

namespace VolumeGL::TileTree3D::LevelSet {

using namespace TVL::TileTree3D;

template <typename Traits> RedBlackType tileColor(int3 const& corner, int depth)
{
    // The lattice offset makes the coordinates positive before the division.
    std::int64_t const w = Container<Traits>::tileVoxelWidth(depth);
    std::int64_t const o = Traits::kCentreOffset;
    std::int64_t const sum = (corner.z + o) / w + (corner.x + o) / w + (corner.y + o) / w;
    return RedBlackType(sum % 2);
}

namespace {

using detail::DepthNumbers;
using detail::kEpsilon;

/// Whether a band is in use: it differs from FLT_MAX by more than the tolerance.
inline bool bandInUse(float band)
{
    return std::fabs(band - FLT_MAX) > kEpsilon;
}

/// Per-worker scratch of the tile-by-tile form.
template <typename Traits> struct TileScratch {
    static constexpr int W = Traits::kTileWidth;
    TileData<float, W, 1, 0> values{TileData<float, W, 1, 0>::kVoxelCount, 0.0f};
    TileData<unsigned char, W, 1, 0> typesWithHalo{TileData<unsigned char, W, 1, 0>::kVoxelCount,
                                                   (unsigned char)kValueTypeExcluded};
    std::array<unsigned char, std::size_t(W)* W* W> allUnknown = [] {
        std::array<unsigned char, std::size_t(W) * W * W> a;
        a.fill((unsigned char)kValueTypeUnknown);
        return a;
    }();
    detail::SweepBatch<W> batch;
    TreeIndex batchTiles[detail::SweepBatch<W>::kLanes];      ///< tree index of each loaded lane
    std::int64_t batchIndices[detail::SweepBatch<W>::kLanes]; ///< index at the depth of each lane
};

/// The tile-by-tile form over tiles [begin, end) of @p depth.
template <typename Traits>
float sweepTileRange(std::int64_t begin, std::int64_t end, RedBlackType colour,
                     VoxelChannel<Traits, float>& distance, VoxelChannel<Traits, float> const* mask,
                     Container<Traits> const& container,
                     VoxelChannel<Traits, unsigned char> const* valueType, int depth,
                     float interiorBand, float exteriorBand, bool useBandAtTiles,
                     bool haloByExtrapolation, DepthNumbers const& numbers,
                     detail::TileActivity* activity)
{
    constexpr int W = Traits::kTileWidth;
    constexpr int S = Traits::kVoxelsPerSlot;
    constexpr std::size_t N = std::size_t(W) * W * W;
    TileScratch<Traits> scratch;
    auto accessor = container.tileAccessor();
    HaloMode const mode = haloByExtrapolation ? kHaloModeGeneral : kHaloModeRedistance;
    HaloMode const typeMode =
        haloByExtrapolation ? kHaloModeRedistanceFirstPass : kHaloModeRedistance;
    bool const bands = bandInUse(interiorBand) || bandInUse(exteriorBand);
    float const voxelSize = container.voxelSize();
    float const halfTile = float(Container<Traits>::tileVoxelWidth(depth)) * voxelSize * 0.5f;
    float const tileRadius = std::sqrt(3.0f * (halfTile * halfTile));
    float const background = distance.defaultValue();
    float maxChange = 0.0f;
    // Without a mask the tiles go through the batched sweep, kLanes at a time; the result is the
    // same as tile by tile.
    bool const batched = !(mask && valueType);
    auto flush = [&] {
        auto& batch = scratch.batch;
        if (batch.size() == 0)
            return;
        float changes[detail::SweepBatch<W>::kLanes];
        batch.sweep(numbers, changes);
        for (int lane = 0; lane < batch.size(); ++lane) {
            maxChange = std::max(maxChange, changes[lane]);
            if (activity)
                activity->record(scratch.batchIndices[lane], changes[lane] > 0.0f);
            auto block = distance.tileData(scratch.batchTiles[lane]);
            batch.interior(lane, block.data());
        }
        batch.clear();
    };
    for (std::int64_t t = begin; t < end; ++t) {
        Tile<Traits> const& tile = container.tile(t, depth);
        if (tile.parent() >= 0 && valueType) {
            // The parent's voxel over the tile: the one at the tile's slot, low corner.
            Tile<Traits> const& parent = container.tile(tile.parent(), depth - 1);
            std::int64_t const tw = Container<Traits>::tileVoxelWidth(depth);
            int const pi = int((tile.ti() - parent.ti()) / tw) * S;
            int const pj = int((tile.tj() - parent.tj()) / tw) * S;
            int const pk = int((tile.tk() - parent.tk()) / tw) * S;
            auto const parentTypes = valueType->tileData(parent.treeIndex());
            unsigned char vp = parentTypes.size() == N ? parentTypes(pi, pj, pk)
                                                       : (unsigned char)kValueTypeUnknown;
            if (vp == kValueTypeUnknown && !useBandAtTiles) {
                // On the way back from the coarser depths a parent voxel that their solve has
                // reached holds a value: it counts as known, so that the tiles below it are
                // smoothed again with the coarse solution around them.
                auto const parentValues = distance.tileData(parent.treeIndex());
                if (parentValues.size() == N &&
                    std::fabs(parentValues(pi, pj, pk)) < std::fabs(background) - kEpsilon)
                    vp = kValueTypeKnown;
            }
            if (!useBandAtTiles || mask) {
                if (vp == kValueTypeExcluded)
                    continue;
                if (vp == kValueTypeUnknown && !useBandAtTiles)
                    continue;
            }
            if (bands && vp == kValueTypeUnknown) {
                auto const parentValues = distance.tileData(parent.treeIndex());
                if (parentValues.size() == N) {
                    float const c = parentValues(pi, pj, pk);
                    if (c - tileRadius > exteriorBand || c + tileRadius < -interiorBand)
                        continue;
                }
            }
        }
        if (tileColor<Traits>(tile.tijk(), depth) != colour)
            continue;
        if (activity && activity->skippable(t))
            continue;
        auto block = distance.tileData(tile.treeIndex());
        if (block.size() != N)
            continue;
        // Without value types every voxel is unknown; with them, the tile's own block is read.
        unsigned char const* types = scratch.allUnknown.data();
        if (valueType) {
            auto const typeBlock = valueType->tileData(tile.treeIndex());
            if (typeBlock.size() != N)
                continue;
            types = typeBlock.data();
            if (!detail::hasUnknown<N>(types)) {
                if (activity)
                    activity->record(t, false);
                continue;
            }
        }
        // The sweep reads the face rim only.
        if (!activity || activity->depth != depth ||
            !detail::fillFromSameDepthFaces<Traits>(distance, t, activity->faces[std::size_t(t)],
                                                    depth, scratch.values)) {
            // The covering coarse voxel at a jump, not the interpolated rim: an upwind update
            // may only take values the coarser depth holds (a blend of a coarse voxel near the
            // front and one across it sits nearer zero than either and would pull the front),
            // and the coarse-fine border is handled by the restriction and interpolation between
            // depths, which the DOF flags steer.
            setHaloTile<Traits, float, 0, 1, 0>(tile.treeIndex(), distance, mode, kHaloTypeBase,
                                                accessor, scratch.values, background, 1.0f,
                                                kVoxelOffsetCenter);
            detail::boundCoarseRim(tile, accessor, voxelSize, scratch.values);
        }
        if (batched) {
            if (detail::beyondBands(interiorBand, exteriorBand, scratch.values,
                                    detail::kVoxelsPerTile<Traits>)) {
                if (activity)
                    activity->record(t, false);
                continue;
            }
            int const lane = scratch.batch.add(scratch.values.data(), types);
            scratch.batchTiles[lane] = tile.treeIndex();
            scratch.batchIndices[lane] = t;
            if (scratch.batch.full())
                flush();
            continue;
        }
        float change;
        if (mask && valueType) {
            setHaloTile<Traits, unsigned char, 0, 1, 0>(
                tile.treeIndex(), *valueType, typeMode, kHaloTypeFacesAndEdges, accessor,
                scratch.typesWithHalo, (unsigned char)kValueTypeExcluded, 1.0f, kVoxelOffsetCenter);
            change = detail::sweepTile<W>(interiorBand, exteriorBand, numbers, types,
                                          scratch.values, detail::kSweepEightDirections, true,
                                          detail::kVoxelsPerTile<Traits>,
                                          detail::MaskedNeighbour{scratch.typesWithHalo.data()});
        } else {
            change = detail::sweepTile<W>(interiorBand, exteriorBand, numbers, types,
                                          scratch.values, detail::kSweepEightDirections, true,
                                          detail::kVoxelsPerTile<Traits>, detail::PlainNeighbour{});
        }
        maxChange = std::max(maxChange, change);
        if (activity)
            activity->record(t, change > 0.0f);
        for (int k = 0; k < W; ++k)
            for (int j = 0; j < W; ++j)
                for (int i = 0; i < W; ++i)
                    block(i, j, k) = scratch.values(i, j, k);
    }
    flush();
    return maxChange;
}

/// The coalesced form of `Traits<2,4,1>`: the tiles of depth - 1 in [begin, end), each with its
/// up to eight children gathered into one 8^3 block with a one-voxel halo, so that one sweep
/// carries information across eight voxels instead of four.
float sweepCoalescedRange(std::int64_t begin, std::int64_t end, RedBlackType colour,
                          VoxelChannel<Traits24, float>& distance,
                          Container<Traits24> const& container,
                          VoxelChannel<Traits24, unsigned char> const* valueType, int depth,
                          DepthNumbers const& numbers, detail::TileActivity* activity)
{
    constexpr int W = Traits24::kTileWidth;
    constexpr int B = 2 * W;
    constexpr std::size_t N = std::size_t(W) * W * W;
    using Batch = detail::SweepBatch<B>;
    TileData<float, B, 1, 0> values(TileData<float, B, 1, 0>::kVoxelCount, 0.0f);
    std::array<unsigned char, std::size_t(B) * B * B> types;
    auto accessor = container.tileAccessor();
    float const background = std::fabs(distance.defaultValue());
    float maxChange = 0.0f;
    // The blocks go through the batched sweep, Batch::kLanes at a time (the same result as one
    // by one); the batch is large, so it lives on the heap.
    auto batch = std::make_unique<Batch>();
    std::int64_t parents[Batch::kLanes];
    std::vector<float> interior(std::size_t(B) * B * B);
    auto flush = [&] {
        if (batch->size() == 0)
            return;
        float changes[Batch::kLanes];
        batch->sweep(numbers, changes);
        for (int lane = 0; lane < batch->size(); ++lane) {
            maxChange = std::max(maxChange, changes[lane]);
            if (activity)
                activity->record(parents[lane], changes[lane] > 0.0f);
            batch->interior(lane, interior.data());
            // Scatter back into the children that exist.
            Tile<Traits24> const& parent = container.tile(parents[lane], depth - 1);
            for (int slot = 0; slot < Traits24::kChildCount; ++slot) {
                std::int64_t const child = parent.childIndex(slot);
                if (child < 0)
                    continue;
                auto childValues = distance.tileData(child, depth);
                if (childValues.size() != N)
                    continue;
                int3 const s = Tile<Traits24>::slotCoordinates(slot);
                for (int k = 0; k < W; ++k)
                    for (int j = 0; j < W; ++j)
                        for (int i = 0; i < W; ++i)
                            childValues(i, j, k) = interior[detail::voxelIndex<B>(
                                s.x * W + i, s.y * W + j, s.z * W + k)];
            }
        }
        batch->clear();
    };
    for (std::int64_t t = begin; t < end; ++t) {
        Tile<Traits24> const& parent = container.tile(t, depth - 1);
        if (tileColor<Traits24>(parent.tijk(), depth - 1) != colour)
            continue;
        if (parent.isLeaf())
            continue;
        if (activity && activity->skippable(t))
            continue;
        auto const parentValues = distance.tileData(parent.treeIndex());
        bool anyUnknown = false;
        // Gather: children where they exist, else the parent's side at the background, known.
        for (int slot = 0; slot < Traits24::kChildCount; ++slot) {
            int3 const s = Tile<Traits24>::slotCoordinates(slot);
            std::int64_t const child = parent.childIndex(slot);
            auto const childValues =
                child >= 0 ? distance.tileData(child, depth) : ConstTileData<float, W, 0, 0>();
            auto const childTypes = (child >= 0 && valueType)
                                        ? valueType->tileData(child, depth)
                                        : ConstTileData<unsigned char, W, 0, 0>();
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i) {
                        int const bi = s.x * W + i, bj = s.y * W + j, bk = s.z * W + k;
                        std::size_t const n = detail::voxelIndex<B>(bi, bj, bk);
                        if (childValues.size() == N) {
                            values(bi, bj, bk) = childValues(i, j, k);
                            types[n] = childTypes.size() == N ? childTypes(i, j, k)
                                                              : (unsigned char)kValueTypeUnknown;
                            anyUnknown |= types[n] == kValueTypeUnknown;
                        } else {
                            float const p = parentValues.size() == N
                                                ? parentValues(bi / 2, bj / 2, bk / 2)
                                                : 0.0f;
                            values(bi, bj, bk) = 0.0f > p ? -background : background;
                            types[n] = kValueTypeKnown;
                        }
                    }
        }
        if (!anyUnknown) {
            if (activity)
                activity->record(t, false);
            continue;
        }
        // Halo faces: the tile of this depth beyond the face (a child of the parent's neighbour),
        // or a copy of the block's outermost layer where there is none.
        for (int axis = 0; axis < 3; ++axis)
            for (int side = -1; side <= 1; side += 2) {
                Tile<Traits24> const& beside =
                    accessor.tileNeighbor(parent, detail::faceDirection(axis, side));
                bool const sameDepth = beside.valid() && beside.depth() == depth - 1;
                int const layer = side < 0 ? -1 : B;
                int const inner = side < 0 ? 0 : B - 1;
                for (int b = 0; b < B; ++b)
                    for (int a = 0; a < B; ++a) {
                        int at[3], from[3];
                        at[axis] = layer, from[axis] = inner;
                        at[(axis + 1) % 3] = from[(axis + 1) % 3] = a;
                        at[(axis + 2) % 3] = from[(axis + 2) % 3] = b;
                        float& target = values(at[0], at[1], at[2]);
                        if (sameDepth) {
                            int slot[3], local[3];
                            for (int c = 0; c < 3; ++c) {
                                int const e = c == axis ? (side < 0 ? B - 1 : 0) : at[c];
                                slot[c] = e / W;
                                local[c] = e % W;
                            }
                            std::int64_t const child = beside.childIndex(slot[0], slot[1], slot[2]);
                            if (child >= 0) {
                                auto const nv = distance.tileData(child, depth);
                                if (nv.size() == N) {
                                    target = nv(local[0], local[1], local[2]);
                                    continue;
                                }
                            }
                        }
                        target = values(from[0], from[1], from[2]);
                    }
            }
        // No band is in use here, so the band check of the sweep would keep every block.
        parents[batch->add(values.data(), types.data())] = t;
        if (batch->full())
            flush();
    }
    flush();
    return maxChange;
}

} // namespace

namespace detail {

template <typename Traits>
bool fillFromSameDepthFaces(VoxelChannel<Traits, float> const& distance, std::int64_t tile,
                            std::array<std::int64_t, 6> const& faces, int depth,
                            TileData<float, Traits::kTileWidth, 1, 0>& u)
{
    constexpr int W = Traits::kTileWidth;
    constexpr std::size_t N = std::size_t(W) * W * W;
    float const* blocks[7];
    for (int f = 0; f < 6; ++f) {
        if (faces[std::size_t(f)] < 0)
            return false;
        auto const block = distance.tileData(faces[std::size_t(f)], depth);
        if (block.size() != N)
            return false;
        blocks[f] = block.data();
    }
    auto const own = distance.tileData(tile, depth);
    if (own.size() != N)
        return false;
    blocks[6] = own.data();
    auto at = [](int i, int j, int k) {
        return std::size_t(i) + std::size_t(W) * (std::size_t(j) + std::size_t(W) * std::size_t(k));
    };
    for (int k = 0; k < W; ++k)
        for (int j = 0; j < W; ++j)
            for (int i = 0; i < W; ++i)
                u(i, j, k) = blocks[6][at(i, j, k)];
    for (int b = 0; b < W; ++b)
        for (int a = 0; a < W; ++a) {
            u(-1, a, b) = blocks[0][at(W - 1, a, b)];
            u(W, a, b) = blocks[1][at(0, a, b)];
            u(a, -1, b) = blocks[2][at(a, W - 1, b)];
            u(a, W, b) = blocks[3][at(a, 0, b)];
            u(a, b, -1) = blocks[4][at(a, b, W - 1)];
            u(a, b, W) = blocks[5][at(a, b, 0)];
        }
    return true;
}

template <typename Traits>
float redistanceTilesTracked(RedBlackType colour, VoxelChannel<Traits, float>& io_distance,
                             VoxelChannel<Traits, float> const* mask,
                             Container<Traits> const& container,
                             VoxelChannel<Traits, unsigned char> const* valueType, int depth,
                             float interiorBand, float exteriorBand, bool useBandAtTiles,
                             bool haloByExtrapolation, bool performCoalescedRedistance,
                             TileActivity* activity)
{
    if (depth < 0 || depth > Traits::kMaxDepth)
        return 0.0f;
    DepthNumbers const numbers = depthNumbers<Traits>(container.voxelSize(), depth, 0.0f);
    float result;
    if constexpr (std::is_same_v<Traits, Traits24>) {
        if (coalescedForm<Traits>(mask, depth, interiorBand, exteriorBand, useBandAtTiles,
                                  haloByExtrapolation, performCoalescedRedistance)) {
            result = parallelMaximum(
                container.tileCount(depth - 1), [&](std::int64_t b, std::int64_t e) {
                    return sweepCoalescedRange(b, e, colour, io_distance, container, valueType,
                                               depth, numbers, activity);
                });
            if (activity)
                ++activity->pass;
            return result;
        }
    }
    result = parallelMaximum(container.tileCount(depth), [&](std::int64_t b, std::int64_t e) {
        return sweepTileRange<Traits>(b, e, colour, io_distance, mask, container, valueType, depth,
                                      interiorBand, exteriorBand, useBandAtTiles,
                                      haloByExtrapolation, numbers, activity);
    });
    if (activity)
        ++activity->pass;
    return result;
}

} // namespace detail

template <typename Traits>
float redistanceTiles(RedBlackType colour, VoxelChannel<Traits, float>& io_distance,
                      VoxelChannel<Traits, float> const* mask, Container<Traits> const& container,
                      VoxelChannel<Traits, unsigned char> const* valueType, int depth,
                      float interiorBand, float exteriorBand, bool useBandAtTiles,
                      bool haloByExtrapolation, bool performCoalescedRedistance)
{
    return detail::redistanceTilesTracked<Traits>(
        colour, io_distance, mask, container, valueType, depth, interiorBand, exteriorBand,
        useBandAtTiles, haloByExtrapolation, performCoalescedRedistance, nullptr);
}

#define HEXMOLD_INSTANTIATE_REDISTANCE_TILES(TR)                                                   \
    template HEXMOLD_API decltype(tileColor<TR>) tileColor<TR>;                                    \
    template HEXMOLD_API decltype(redistanceTiles<TR>) redistanceTiles<TR>;                        \
    template decltype(detail::redistanceTilesTracked<TR>) detail::redistanceTilesTracked<TR>;      \
    template decltype(detail::fillFromSameDepthFaces<TR>) detail::fillFromSameDepthFaces<TR>;
HEXMOLD_FOR_EACH_TRAITS(HEXMOLD_INSTANTIATE_REDISTANCE_TILES)
#undef HEXMOLD_INSTANTIATE_REDISTANCE_TILES

} // namespace VolumeGL::TileTree3D::LevelSet
