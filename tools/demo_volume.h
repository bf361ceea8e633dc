// hexmold demo: an adaptive volume of a sphere's exact signed distance, with a table of tiles and
// voxels per depth, the memory in use and the time taken.
#pragma once
#include <chrono>
#include <cstdio>
#include <hexmold/substrate/container.h>

#include "demo_sphere.h"

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

    auto const t0 = Clock::now();
    C tree("voxel_tile_tree", voxelSize);
    buildAdaptiveSphere(tree, 1.0, Traits::kMaxDepth, 1.0);
    double const buildMs = msSince(t0);

    std::printf("  %5s %10s %12s %12s %14s\n", "depth", "tiles", "voxels", "leaf voxels", "voxel width");
    std::int64_t leafTotal = 0;
    for (int d = 0; d <= Traits::kMaxDepth; ++d) {
        std::int64_t const n = tree.tileCount(d);
        if (n == 0) continue;
        std::int64_t leaf = 0;
        for (std::int64_t t = 0; t < n; ++t) {
            auto const& tile = tree.tile(t, d);
            for (int s = 0; s < Traits::kChildCount; ++s)
                if (tile.isLeaf(s)) leaf += Traits::kTileSize / Traits::kChildCount;
        }
        leafTotal += leaf;
        std::printf("  %5d %10lld %12llu %12lld %14.6g\n", d, (long long)n,
                    (unsigned long long)tree.voxelDataCount(d), (long long)leaf,
                    double(C::voxelDataWidth(d)) * voxelSize);
    }
    std::size_t used = 0, reserved = 0;
    tree.memUse(used, reserved, true);
    std::printf("  total: %lld tiles, %llu voxels (%lld leaf)\n", (long long)tree.tileCount(-1),
                (unsigned long long)tree.voxelDataCount(-1), (long long)leafTotal);
    std::printf("  memory in use: tree %.2f MB\n", double(used) / (1 << 20));
    std::printf("  time: build %.1f ms\n\n", buildMs);
}

} // namespace demo
