// hexmold demo: an adaptive volume of a sphere's exact signed distance, with a table of tiles and
// voxels per depth, the memory in use and the time taken.
#pragma once
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/commands.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/substrate/verify_object.h>
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include "demo_analyze.h"
#include "demo_hash.h"
#include "fixtures/sphere_trees.h"

namespace demo {

using Clock = std::chrono::steady_clock;

inline double msSince(Clock::time_point t0)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

/// Builds the sphere volume for one tree flavour and prints its table.
/// @param radius  sphere radius in finest voxels; the world radius is 1.
template <typename Traits> void runVolumeDemo(char const* label, double radius)
{
    using namespace TVL::TileTree3D;
    using C = Container<Traits>;
    float const voxelSize = static_cast<float>(1.0 / radius);
    std::printf("== %s: sphere of radius 1 (%g finest voxels), voxel size %g\n", label, radius,
                double(voxelSize));

    using Tavrel::Geometry::sVoxelComp;
    using Tavrel::Geometry::sVoxelSignedDistance;
    using Tavrel::Geometry::sVoxelTileTree;
    constexpr int W = Traits::kTileWidth;
    using Distance = Channel<Traits, float, W, 0, 0>;

    // The volume object: tree, topology, and the distance channel.
    auto volume =
        Command::createVoxelTVL<Traits>(sVoxelTileTree, sVoxelComp, voxelSize, VoxelOffsetType(7));
    auto const t0 = Clock::now();
    {
        auto tree = volume->template extractComponent<C>(sVoxelTileTree);
        buildAdaptiveSphere(*tree, 1.0, Traits::kMaxDepth, 1.0);
        auto topology = volume->template extractComponent<VoxelTopology<Traits>>(sVoxelComp);
        topology->update(*tree);
        volume->putComponent(std::move(topology));
        volume->putComponent(std::move(tree));
    }
    double const buildMs = msSince(t0);

    auto const t1 = Clock::now();
    auto topology = volume->template component<VoxelTopology<Traits>>(sVoxelComp);
    float const outside = 1e30f;
    Command::createChannel<float, Traits::kRatio, W, W, 0>(
        sVoxelSignedDistance, *topology, *volume, outside, kDataElementInitializerDefaultValue, 0,
        Traits::kMaxDepth);
    auto tree = volume->template component<C>(sVoxelTileTree);
    auto distance = volume->template extractComponent<Distance>(sVoxelSignedDistance);
    // Exact signed distance at every voxel centre of every tile (leaf and non-leaf voxels).
    std::int64_t bandVoxels = 0;
    for (int d = 0; d <= Traits::kMaxDepth; ++d) {
        std::int64_t const vw = C::voxelDataWidth(d);
        std::atomic<std::int64_t> band{0};
        tbb::parallel_for(
            tbb::blocked_range<std::int64_t>(0, tree->tileCount(d)),
            [&](tbb::blocked_range<std::int64_t> const& r) {
                std::int64_t localBand = 0;
                for (std::int64_t t = r.begin(); t != r.end(); ++t) {
                    auto const& tile = tree->tile(t, d);
                    auto data = distance->tileData(t, d);
                    for (int k = 0; k < W; ++k)
                        for (int j = 0; j < W; ++j)
                            for (int i = 0; i < W; ++i) {
                                double const x = (tile.ti() + (i + 0.5) * vw) * double(voxelSize);
                                double const y = (tile.tj() + (j + 0.5) * vw) * double(voxelSize);
                                double const z = (tile.tk() + (k + 0.5) * vw) * double(voxelSize);
                                float const v = float(sphereDistance(x, y, z, 1.0));
                                data(i, j, k) = v;
                                if (d == Traits::kMaxDepth && std::abs(v) < 3 * voxelSize)
                                    ++localBand;
                            }
                }
                band += localBand;
            });
        bandVoxels += band;
    }
    volume->putComponent(std::move(distance));
    double const fillMs = msSince(t1);

    std::printf("  %5s %10s %12s %12s %14s\n", "depth", "tiles", "voxels", "leaf voxels",
                "voxel width");
    std::int64_t leafTotal = 0;
    for (int d = 0; d <= Traits::kMaxDepth; ++d) {
        std::int64_t const n = tree->tileCount(d);
        if (n == 0)
            continue;
        std::int64_t leaf = 0;
        for (std::int64_t t = 0; t < n; ++t) {
            auto const& tile = tree->tile(t, d);
            for (int s = 0; s < Traits::kChildCount; ++s)
                if (tile.isLeaf(s))
                    leaf += Traits::kTileSize / Traits::kChildCount;
        }
        leafTotal += leaf;
        std::printf("  %5d %10lld %12llu %12lld %14.6g\n", d, (long long)n,
                    (unsigned long long)tree->voxelDataCount(d), (long long)leaf,
                    double(C::voxelDataWidth(d)) * voxelSize);
    }
    std::size_t treeUsed = 0, channelUsed = 0, reserved = 0;
    tree->memUse(treeUsed, reserved, true);
    volume->component(sVoxelSignedDistance)->memUse(channelUsed, reserved, true);
    std::printf("  total: %lld tiles, %llu voxels (%lld leaf), %lld finest voxels within 3 voxels "
                "of the surface\n",
                (long long)tree->tileCount(-1), (unsigned long long)tree->voxelDataCount(-1),
                (long long)leafTotal, (long long)bandVoxels);
    std::printf("  memory in use: tree %.2f MB, distance channel %.2f MB\n",
                double(treeUsed) / (1 << 20), double(channelUsed) / (1 << 20));
    std::printf("  time: tree %.1f ms, exact distance %.1f ms\n", buildMs, fillMs);
    std::printf("  object verified: %s\n",
                CoreGL::verifyObject(*volume, sVoxelComp, sVoxelTileTree) ? "yes" : "no");
    printVoxelHashes(*volume);
    runAnalyzeDemo<Traits>(*tree, *topology,
                           *volume->template component<Distance>(sVoxelSignedDistance), 1.0);
    std::printf("\n");
}

} // namespace demo
