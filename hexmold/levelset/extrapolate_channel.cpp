/// @file  levelset/extrapolate_channel.cpp
/// @brief The tree-type half of channel extrapolation: depth loops, colour lists, distance
///        halos and the convergence loop of the fast sweep, and the order of the layer
///        wavefront. The element-type half is in detail/extrapolate_channel_impl.h.
#include <hexmold/levelset/detail/extrapolate_channel_impl.h>
#include <hexmold/levelset/detail/redistance_impl.h>

#include <algorithm>
#include <array>
#include <hexmold/levelset/redistance_tiles.h>
#include <hexmold/substrate/cancel.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/type_lists.h>
#include <initializer_list>
#include <iostream>
#include <limits>
#include <utility>

namespace VolumeGL::TileTree3D::LevelSet::detail {

namespace {

/// Most colour-sweep pairs per depth.
constexpr int kMaxIterations = 10;
/// Layer of a voxel not reached yet, and of a voxel outside the domain of the wavefront.
constexpr std::int32_t kLayerUnreached = 0x7ffffffd;
constexpr std::int32_t kLayerOutside = 0x7ffffffe;
/// Face directions of the value rims: -x, +x, -y, +y, -z, +z.
constexpr int kRimDirections[6] = {kNeighborNegX, kNeighborPosX, kNeighborNegY,
                                   kNeighborPosY, kNeighborNegZ, kNeighborPosZ};
/// Face directions of the neighbour tables: +x, -x, +y, -y, +z, -z.
constexpr int kFaceDirections[6] = {kNeighborPosX, kNeighborNegX, kNeighborPosY,
                                    kNeighborNegY, kNeighborPosZ, kNeighborNegZ};

/// Whether every channel has one block array entry per tile of the tree at each depth of
/// [lo, hi]; prints the error line when not.
template <typename Traits>
bool channelsMatchTree(Container<Traits> const& container,
                       std::initializer_list<ChannelBase const*> channels, int lo, int hi)
{
    for (int d = lo; d <= hi; ++d)
        for (ChannelBase const* c : channels)
            if (c->tileCount(d) != container.tileCount(d)) {
                if (CoreGL::Logger::errorVerboseLevel() > 0)
                    std::cerr << "Error: extrapolateChannel: channel tiles do not match the tree "
                                 "at depth = "
                              << d << " (" << c->tileCount(d) << " and " << container.tileCount(d)
                              << ")\n";
                return false;
            }
    return true;
}

/// Same-depth face neighbours of every tile of @p depth (-1 where none), in `kFaceDirections`.
template <typename Traits>
std::vector<std::array<std::int64_t, 6>> faceNeighbours(Container<Traits> const& container,
                                                        int depth)
{
    std::int64_t const n = container.tileCount(depth);
    std::vector<std::array<std::int64_t, 6>> faces(static_cast<std::size_t>(n));
    parallelRanges(n, [&](std::int64_t begin, std::int64_t end) {
        auto accessor = container.tileAccessor();
        for (std::int64_t t = begin; t < end; ++t) {
            Tile<Traits> const& tile = container.tile(t, depth);
            for (int f = 0; f < 6; ++f) {
                Tile<Traits> const& nb = accessor.tileNeighbor(tile, kFaceDirections[f]);
                faces[std::size_t(t)][std::size_t(f)] =
                    nb.valid() && nb.depth() == depth ? nb.index() : -1;
            }
        }
    });
    return faces;
}

} // namespace

template <typename Traits>
void extrapolateFSM(Container<Traits> const& container,
                    VoxelChannel<Traits, unsigned char> const& known,
                    VoxelChannel<Traits, float> const& distance, ChannelBase const& value,
                    bool flipInterior, ExtrapolationKernel<Traits>& kernel)
{
    constexpr int W = Traits::kTileWidth;
    constexpr int E = W + 2;
    constexpr std::size_t kHaloCount = std::size_t(E) * E * E;
    constexpr int V = W * W * W;
    // Dense tiles sweep in eight directions, sparse ones twice through their list of unknowns.
    constexpr std::uint32_t kSparseBelow = V / 8;
    bool const verbose = CoreGL::Logger::verboseLevel() > 0;
    if (verbose)
        std::cout << "extrapolateChannel.extrapolateFSM.begin:\n";

    // The depths that all three channels hold.
    int const lo = std::max({0, distance.minDepth(), value.minDepth(), known.minDepth()});
    int const hi = std::min({Traits::kMaxDepth, distance.depth(), value.depth(), known.depth()});
    if (!channelsMatchTree(container, {&distance, &value, &known}, lo, hi))
        return;
    float const voxelSize = container.voxelSize();

    TVL::Parallel::enumerable_thread_specific<std::unique_ptr<ExtrapolationKernel<Traits>>> workers(
        [&kernel] { return kernel.clone(); });

    TileActivity activity;
    for (int d = hi; d >= lo; --d) {
        std::int64_t const n = container.tileCount(d);
        if (n == 0)
            continue;
        // Unknown voxels per tile.
        std::vector<std::uint8_t> counts(std::size_t(n), 0);
        parallelRanges(n, [&](std::int64_t begin, std::int64_t end) {
            for (std::int64_t t = begin; t < end; ++t) {
                auto const k = known.tileData(t, d);
                // Only tiles with a voxel block in all three channels take part.
                if (k.size() != std::size_t(V) ||
                    distance.tileData(t, d).size() != std::size_t(V) ||
                    value.elementCount(TreeIndex{t, d}) != std::uint64_t(V))
                    continue;
                int c = 0;
                for (int v = 0; v < V; ++v)
                    c += k[std::size_t(v)] == 0;
                counts[std::size_t(t)] = std::uint8_t(c);
            }
        });
        // The colour lists, in tile order, each tile's unknowns at a place of their own.
        std::array<std::vector<SweepTile<Traits>>, 2> lists;
        std::uint32_t total = 0;
        for (std::int64_t t = 0; t < n; ++t) {
            std::uint32_t const c = counts[std::size_t(t)];
            if (c == 0)
                continue;
            RedBlackType const colour = tileColor<Traits>(container.tile(t, d).tijk(), d);
            lists[std::size_t(colour)].push_back({t, total, c, c >= kSparseBelow});
            total += c;
        }
        if (CoreGL::Logger::verboseLevel() > 2)
            std::cout << "extrapolateChannel.extrapolateFSM: depth = " << d
                      << ", red tiles = " << lists[kRed].size()
                      << ", black tiles = " << lists[kBlack].size()
                      << ", unknown voxels = " << total << '\n';
        std::vector<std::uint8_t> unknowns(total);
        std::array<std::vector<TileDataBlock<float>>, 2> halos;
        // The tiles whose voxels the value rims read: beside each face, of the tile's depth or
        // the closest coarser one.
        std::array<std::vector<std::array<TreeIndex, 6>>, 2> rims;
        for (int c = 0; c < 2; ++c) {
            auto const& list = lists[std::size_t(c)];
            auto& blocks = halos[std::size_t(c)];
            blocks.assign(list.size(), TileDataBlock<float>(kHaloCount));
            auto& faces = rims[std::size_t(c)];
            faces.resize(list.size());
            parallelRanges(std::int64_t(list.size()), [&](std::int64_t begin, std::int64_t end) {
                auto accessor = container.tileAccessor();
                for (std::int64_t e = begin; e < end; ++e) {
                    SweepTile<Traits> const& s = list[std::size_t(e)];
                    auto const k = known.tileData(s.tile, d);
                    std::uint8_t* ids = unknowns.data() + s.first;
                    for (int v = 0; v < V; ++v)
                        if (k[std::size_t(v)] == 0)
                            *ids++ = std::uint8_t(v);
                    Tile<Traits> const& tile = container.tile(s.tile, d);
                    for (int f = 0; f < 6; ++f) {
                        Tile<Traits> const& n = accessor.tileNeighbor(tile, kRimDirections[f]);
                        faces[std::size_t(e)][std::size_t(f)] = n.valid() ? n.treeIndex() : kNoTile;
                    }
                    TileData<float, W, 1, 0> halo(&blocks[std::size_t(e)]);
                    setHaloTile<Traits, float, 0, 1, 0, 0>(
                        TreeIndex{s.tile, d}, distance, kHaloModeTransfer, kHaloTypeFacesAndEdges,
                        accessor, halo, 0.0f, 1.0f, kVoxelOffsetCenter);
                }
            });
        }

        // A tile whose last sweep changed nothing, and whose face neighbours have not changed
        // since, is a fixed point of its sweep: leaving it out changes neither the values nor
        // the reported change, hence neither the number of iterations.
        activity.reset(container, d);
        // One colour: a deterministic reduce of the largest change.
        auto sweep = [&](int colour) {
            auto const& list = lists[std::size_t(colour)];
            auto const& blocks = halos[std::size_t(colour)];
            auto const& faces = rims[std::size_t(colour)];
            struct Pass {
                TileActivity& a;
                ~Pass() { ++a.pass; }
            } const pass{activity};
            if (list.empty())
                return 0.0;
            TVL::Parallel::task_group_context context;
            double const change = TVL::Parallel::parallel_deterministic_reduce(
                TVL::Parallel::blocked_range<std::size_t>(0, list.size(), 4), 0.0,
                [&](TVL::Parallel::blocked_range<std::size_t> const& r, double running) {
                    if (TVL::bodyCancelled())
                        return running;
                    auto& worker = workers.local();
                    for (std::size_t e = r.begin(); e < r.end(); ++e) {
                        if (activity.skippable(list[e].tile))
                            continue;
                        bool changed = false;
                        double const x = worker->sweep(list[e], d, blocks[e].data(),
                                                       unknowns.data(), faces[e], changed);
                        activity.record(list[e].tile, changed);
                        if (x > running)
                            running = x;
                    }
                    return running;
                },
                [](double a, double b) { return b > a ? b : a; }, context);
            TVL::throwIfJobCancelled();
            return change;
        };

        double change = std::numeric_limits<double>::infinity();
        double maxChange = 0.0;
        int iterations = 0;
        // At least once, unless the voxel size is NaN; at most kMaxIterations pairs of colours.
        while (iterations < kMaxIterations && double(voxelSize) <= change) {
            double const red = sweep(kRed);
            double const black = sweep(kBlack);
            change = black > red ? black : red;
            if (change > maxChange)
                maxChange = change;
            if (verbose)
                std::cout << "extrapolateChannel.extrapolateFSM.iter " << iterations
                          << ", change(inf) = " << change << '\n';
            ++iterations;
        }
        if (verbose)
            std::cout << "extrapolateChannel.extrapolateFSM: depth = " << d
                      << ", change = " << change << ", maxChange = " << maxChange
                      << ", numSweeps = " << 2 * iterations << '\n';
    }
    if (verbose)
        std::cout << "extrapolateChannel.extrapolateFSM.end:\n";
}

template <typename Traits>
void extrapolateLayers(Container<Traits> const& container,
                       VoxelChannel<Traits, unsigned char> const& known, ChannelBase const& value,
                       VoxelChannel<Traits, short> const* dof, int minDepth, int maxDepth,
                       ExtrapolationKernel<Traits>& kernel)
{
    constexpr int W = Traits::kTileWidth;
    constexpr int V = W * W * W;
    int const channelLo = std::max({0, value.minDepth(), known.minDepth()});
    int const channelHi = std::min({Traits::kMaxDepth, value.depth(), known.depth()});
    // The wavefront starts one depth below minDepth, which then takes its values from there.
    int const first = std::max(minDepth != 0 ? minDepth + 1 : 0, channelLo);
    int const last = std::min(maxDepth, channelHi);
    int const lo = std::min(std::max(minDepth, channelLo), first);
    if (!channelsMatchTree(container, {&value, &known}, lo, last))
        return;

    for (int d = first; d <= last; ++d) {
        std::int64_t const n = container.tileCount(d);
        if (n == 0)
            continue;
        auto const faces = faceNeighbours(container, d);
        std::vector<std::int32_t> layer(std::size_t(n) * V, kLayerUnreached);
        std::vector<LayerVoxel> front, next;
        for (std::int64_t t = 0; t < n; ++t) {
            auto const k = known.tileData(t, d);
            // A tile without data in either channel is outside the domain of the wavefront.
            if (k.size() != std::size_t(V) ||
                value.elementCount(TreeIndex{t, d}) != std::uint64_t(V)) {
                std::fill_n(layer.begin() + std::ptrdiff_t(t) * V, V, kLayerOutside);
                continue;
            }
            for (int v = 0; v < V; ++v)
                if (k[std::size_t(v)] != 0) {
                    layer[std::size_t(t) * V + std::size_t(v)] = 0;
                    front.push_back({t, v});
                }
        }
        std::vector<LayerMean> means;
        std::vector<LayerVoxel> sources;
        for (std::int32_t l = 0; !front.empty(); ++l) {
            if (TVL::bodyCancelled())
                TVL::throwIfJobCancelled();
            next.clear();
            for (LayerVoxel const& p : front) {
                int const i = p.voxel % W, j = (p.voxel / W) % W, k = p.voxel / (W * W);
                int const c[3] = {i, j, k};
                auto const begin = std::uint32_t(sources.size());
                for (int f = 0; f < 6; ++f) {
                    int const axis = f / 2, step = f % 2 == 0 ? 1 : -1;
                    int q[3] = {c[0], c[1], c[2]};
                    q[axis] += step;
                    std::int64_t tile = p.tile;
                    if (q[axis] < 0 || q[axis] >= W) {
                        tile = faces[std::size_t(p.tile)][std::size_t(f)];
                        if (tile < 0)
                            continue;
                        q[axis] = (q[axis] + W) % W;
                    }
                    std::int32_t const voxel = q[0] + W * (q[1] + W * q[2]);
                    std::int32_t& lq = layer[std::size_t(tile) * V + std::size_t(voxel)];
                    if (lq == kLayerOutside)
                        continue;
                    if (lq > l + 1) {
                        lq = l + 1;
                        next.push_back({tile, voxel});
                    } else if (lq < l) {
                        sources.push_back({tile, voxel});
                    }
                }
                auto const count = std::uint32_t(sources.size()) - begin;
                if (count > 0)
                    means.push_back({p, begin, count});
            }
            std::swap(front, next);
        }
        kernel.applyMeans(d, means, sources);
    }
    if (minDepth > 0 && minDepth >= channelLo && minDepth < channelHi &&
        container.tileCount(minDepth) > 0)
        kernel.restrictFromChildren(minDepth, false);
    if (minDepth < maxDepth) {
        // Known data climbs to the unknown voxels above it, fine to coarse, so that the coarse
        // copies agree with it; then the hanging voxels of the coarse-fine borders take the mix
        // of the coarse lattice, coarse to fine, in full.
        for (int d = last - 1; d >= lo; --d)
            if (container.tileCount(d) > 0)
                kernel.restrictFromChildren(d, true);
        if (dof && channelsMatchTree(container, {dof}, lo, last))
            for (int d = std::max({lo + 1, dof->minDepth(), 1}); d <= std::min(last, dof->depth());
                 ++d)
                kernel.interpolateHanging(d, *dof);
    }
}

#define HEXMOLD_INSTANTIATE_EXTRAPOLATE_DRIVERS(TR)                                                \
    template decltype(extrapolateFSM<TR>) extrapolateFSM<TR>;                                      \
    template decltype(extrapolateLayers<TR>) extrapolateLayers<TR>;
HEXMOLD_FOR_EACH_TRAITS(HEXMOLD_INSTANTIATE_EXTRAPOLATE_DRIVERS)
#undef HEXMOLD_INSTANTIATE_EXTRAPOLATE_DRIVERS

} // namespace VolumeGL::TileTree3D::LevelSet::detail
