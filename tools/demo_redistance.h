// hexmold demo, redistancing part: a sphere's field (|x|^2 - R^2) / (2R), right only near its
// surface, turned into a signed distance over an adaptive tree, with its errors against the exact
// distance and the time taken.
#pragma once
#include <algorithm>
#include <cfloat>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <hexmold/levelset/dof_classification.h>
#include <hexmold/levelset/level_set_redistance.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/topology.h>
#include <memory>
#include <utility>

#include "fixtures/sphere_trees.h"

namespace demo {

/// Builds an adaptive tree around a sphere of radius 1 (@p radius finest voxels), fills every
/// voxel of every depth with the field (|x|^2 - 1) / 2, classifies the DOFs, redistances, and
/// prints the errors against the exact distance: near the surface (deepest voxels within 3 voxels)
/// in finest voxels, and over all voxels of all depths in voxels of their own depth.
template <typename Traits> void runRedistanceDemo(char const* label, double radius)
{
    using namespace TVL::TileTree3D;
    using Clock = std::chrono::steady_clock;
    constexpr int W = Traits::kTileWidth;
    float const voxelSize = static_cast<float>(1.0 / radius);
    Container<Traits> tree("tree", voxelSize);
    buildAdaptiveSphere(tree, 1.0, Traits::kMaxDepth, 1.0);
    VoxelTopology<Traits> topology("topology", "tree", voxelSize, kVoxelOffsetCenter);
    topology.update(tree);

    float const background = 1e30f;
    VoxelChannel<Traits, float> distance("distance", &background,
                                         kDataElementInitializerDefaultValue, false, true, 0,
                                         Traits::kMaxDepth);
    distance.update(topology);
    auto centre = [&](Tile<Traits> const& tile, int i, int j, int k) {
        double const w = double(tile.voxelDataWidth());
        double const x = (tile.ti() + (i + 0.5) * w) * voxelSize,
                     y = (tile.tj() + (j + 0.5) * w) * voxelSize,
                     z = (tile.tk() + (k + 0.5) * w) * voxelSize;
        return std::sqrt(x * x + y * y + z * z);
    };
    long long voxels = 0;
    for (int d = 0; d <= Traits::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < tree.tileCount(d); ++t) {
            auto const& tile = tree.tile(t, d);
            auto td = distance.tileData(t, d);
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i) {
                        double const r = centre(tile, i, j, k);
                        td(i, j, k) = float((r * r - 1.0) / 2.0);
                        ++voxels;
                    }
        }

    short const zero = 0;
    auto const t0 = Clock::now();
    VoxelChannel<Traits, short> dof("dof", &zero, kDataElementInitializerDefaultValue, false, true,
                                    0, Traits::kMaxDepth);
    dof.update(topology);
    VolumeGL::TileTree3D::LevelSet::classifyDegreesOfFreedom<Traits>(tree, dof);
    auto const t1 = Clock::now();
    VolumeGL::TileTree3D::LevelSet::levelSetRedistance<Traits>(
        tree, topology, distance, true, true, true, 0, Traits::kMaxDepth, nullptr, nullptr, 0.01f,
        FLT_MAX, FLT_MAX, 10, 10, false, false, &dof, "demo",
        VolumeGL::TileTree3D::LevelSet::kRedistanceSweeping);
    auto const t2 = Clock::now();

    double nearMax = 0, nearSum = 0, bandMax = 0;
    long long nearCount = 0, unreached = 0;
    int bandWorstDepth = -1;
    for (int d = 0; d <= Traits::kMaxDepth; ++d) {
        double const h = double(Container<Traits>::voxelDataWidth(d)) * voxelSize;
        for (std::int64_t t = 0; t < tree.tileCount(d); ++t) {
            auto const& tile = tree.tile(t, d);
            auto const td = std::as_const(distance).tileData(t, d);
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i) {
                        double const exact = centre(tile, i, j, k) - 1.0;
                        float const v = td(i, j, k);
                        if (std::abs(v) >= background) {
                            ++unreached;
                            continue;
                        }
                        double const e = std::abs(double(v) - exact) / h;
                        if (e > bandMax) {
                            bandMax = e;
                            bandWorstDepth = d;
                        }
                        if (d == Traits::kMaxDepth && std::abs(exact) <= 3.0 * h) {
                            nearMax = std::max(nearMax, e);
                            nearSum += e;
                            ++nearCount;
                        }
                    }
        }
    }
    auto ms = [](Clock::time_point a, Clock::time_point b) {
        return std::chrono::duration<double, std::milli>(b - a).count();
    };
    std::printf("== %s: redistancing (|x|^2 - 1) / 2 on an adaptive sphere tree (%lld voxels)\n",
                label, voxels);
    std::printf("  near the surface (%lld voxels): mean error %.4f h, max %.4f h\n", nearCount,
                nearCount ? nearSum / double(nearCount) : 0.0, nearMax);
    std::printf("  all depths: max error %.3f h(d) (depth %d), %lld voxels unreached\n", bandMax,
                bandWorstDepth, unreached);
    std::printf("  time: DOF classification %.1f ms, redistance %.1f ms\n\n", ms(t0, t1),
                ms(t1, t2));
}

} // namespace demo
