// hexmold demo: the resize of a sphere's narrow band from 3 to 10 voxels, with tiles and the
// error against the exact distance before and after.
#pragma once
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <hexmold/levelset/resize.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/commands.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/topology.h>

namespace demo {

/// A band of @p halfWidth finest voxels around a sphere of @p radius finest voxels (deepest tiles
/// and their ancestors), with the exact distance in every voxel; voxel size 1 / @p radius.
template <typename Traits>
Quillon::Ptr<TVL::Object> sphereBandVolume(double radius, double halfWidth)
{
    using namespace TVL::TileTree3D;
    using Tavrel::Geometry::sVoxelComp;
    using Tavrel::Geometry::sVoxelSignedDistance;
    using Tavrel::Geometry::sVoxelTileTree;
    constexpr int W = Traits::kTileWidth;
    float const h = float(1.0 / radius);
    auto volume =
        Command::createVoxelTVL<Traits>(sVoxelTileTree, sVoxelComp, h, kVoxelOffsetCenter);
    {
        TVL::ComponentGuard<Container<Traits>> tree(*volume, sVoxelTileTree);
        TVL::ComponentGuard<VoxelTopology<Traits>> topology(*volume, sVoxelComp);
        auto acc = tree->tileAccessor();
        std::int64_t const t = Traits::tileVoxelWidth(Traits::kMaxDepth);
        std::int64_t const reach = std::int64_t(radius + halfWidth) + t;
        for (std::int64_t k = -reach; k <= reach; k += t)
            for (std::int64_t j = -reach; j <= reach; j += t)
                for (std::int64_t i = -reach; i <= reach; i += t) {
                    // Distance from the sphere to the tile's box, finest voxels.
                    double lo2 = 0, hi2 = 0;
                    std::int64_t const c[3] = {i, j, k};
                    for (int a = 0; a < 3; ++a) {
                        std::int64_t const mn = c[a] - ((c[a] + Traits::kCentreOffset) % t),
                                           mx = mn + t;
                        double const nearest = mn > 0 ? double(mn) : (mx < 0 ? double(mx) : 0.0);
                        double const farthest = double(std::max(std::abs(mn), std::abs(mx)));
                        lo2 += nearest * nearest;
                        hi2 += farthest * farthest;
                    }
                    if (std::sqrt(lo2) - radius <= halfWidth &&
                        radius - std::sqrt(hi2) <= halfWidth)
                        acc.addTile(i, j, k, Traits::kMaxDepth);
                }
        topology->update(*tree);
    }
    auto const& topology = *volume->template component<VoxelTopology<Traits>>(sVoxelComp);
    auto distance = Command::createChannel<float, Traits::kRatio, W, W, 0>(
        sVoxelSignedDistance, topology, *volume, 1e30f, kDataElementInitializerDefaultValue, 0,
        Traits::kMaxDepth);
    auto const& tree = *volume->template component<Container<Traits>>(sVoxelTileTree);
    for (int d = 0; d <= Traits::kMaxDepth; ++d)
        for (std::int64_t n = 0; n < tree.tileCount(d); ++n) {
            auto const& tile = tree.tile(n, d);
            auto data = distance->tileData(n, d);
            double const w = double(tile.voxelDataWidth());
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i) {
                        double const x = tile.ti() + (i + 0.5) * w, y = tile.tj() + (j + 0.5) * w,
                                     z = tile.tk() + (k + 0.5) * w;
                        data(i, j, k) = float((std::sqrt(x * x + y * y + z * z) - radius) * h);
                    }
        }
    return volume;
}

/// Mean and largest error (finest voxels) of the finest voxels within 3 voxels of the surface,
/// and the largest within @p band voxels, against the exact distance.
struct BandErrors {
    double nearMean = 0, nearMax = 0, bandMax = 0;
    long finestVoxels = 0;
    long nearVoxels = 0;

    /// Counts one finest voxel with exact distance @p exact and error @p error (finest voxels).
    void add(double exact, double error, double band)
    {
        ++finestVoxels;
        if (std::abs(exact) <= band)
            bandMax = std::max(bandMax, error);
        if (std::abs(exact) <= 3.0) {
            nearMean += error;
            nearMax = std::max(nearMax, error);
            ++nearVoxels;
        }
    }
    /// Turns the sum of the near errors into their mean, once all voxels are counted.
    void finish()
    {
        if (nearVoxels)
            nearMean /= double(nearVoxels);
    }
};

template <typename Traits>
BandErrors bandErrors(TVL::Object const& volume, double radius, double band)
{
    using namespace TVL::TileTree3D;
    constexpr int W = Traits::kTileWidth;
    auto const& tree = *volume.component<Container<Traits>>(Tavrel::Geometry::sVoxelTileTree);
    auto const& phi =
        *volume.component<VoxelChannel<Traits, float>>(Tavrel::Geometry::sVoxelSignedDistance);
    double const h = 1.0 / radius;
    BandErrors e;
    int const d = Traits::kMaxDepth;
    for (std::int64_t n = 0; n < tree.tileCount(d); ++n) {
        auto const& tile = tree.tile(n, d);
        auto const data = phi.tileData(n, d);
        for (int k = 0; k < W; ++k)
            for (int j = 0; j < W; ++j)
                for (int i = 0; i < W; ++i) {
                    double const x = tile.ti() + i + 0.5, y = tile.tj() + j + 0.5,
                                 z = tile.tk() + k + 0.5;
                    double const exact = std::sqrt(x * x + y * y + z * z) - radius;
                    e.add(exact, std::abs(double(data(i, j, k)) / h - exact), band);
                }
    }
    e.finish();
    return e;
}

/// Resizes a sphere band of the given tree type from 3 to 10 voxels and prints one line before
/// and one after.
template <typename Traits> void runResizeDemo(char const* label, double radius)
{
    using TVL::TileTree3D::Container;
    auto volume = sphereBandVolume<Traits>(radius, 3.0);
    auto print = [&](char const* when, double band, double ms) {
        auto const& tree =
            *volume->template component<Container<Traits>>(Tavrel::Geometry::sVoxelTileTree);
        BandErrors const e = bandErrors<Traits>(*volume, radius, band);
        std::printf("  %-6s band %4.1f voxels: %8lld tiles, %9ld finest voxels, error near surface "
                    "mean %.4f "
                    "max %.4f, whole band max %.3f voxels%s",
                    when, band, (long long)tree.tileCount(-1), e.finestVoxels, e.nearMean,
                    e.nearMax, e.bandMax, ms >= 0 ? "" : "\n");
        if (ms >= 0)
            std::printf(", %.0f ms\n", ms);
    };
    std::printf("== resize of a sphere band, %s, radius %g finest voxels\n", label, radius);
    print("before", 3.0, -1);
    auto const t0 = std::chrono::steady_clock::now();
    VolumeGL::TileTree3D::LevelSet::resize(
        float(10.0 / radius), *volume, Tavrel::Geometry::sVoxelTileTree,
        Tavrel::Geometry::sVoxelComp, Tavrel::Geometry::sVoxelSignedDistance, CoreGL::NOPLogger{});
    double const ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    print("after", 10.0, ms);
}

} // namespace demo
