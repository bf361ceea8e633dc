// hexmold demo: the resize of a sphere's narrow band from 3 to 10 voxels, with tiles and the
// error against the exact distance before and after.
#pragma once
#include "fixtures/sphere_band.h"
#include <chrono>
#include <cstdio>
#include <hexmold/levelset/resize.h>
#include <hexmold/logging/logger.h>

namespace demo {

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
