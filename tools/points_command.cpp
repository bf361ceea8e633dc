// hexmold points.
#include "points_command.h"
#include "stage_times.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <hexmold/api/voxelize_points.h>
#include <hexmold/io/read_points.h>
#include <hexmold/io/volume_file.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/parallel.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace hexmoldtool {

namespace {

using namespace TVL::TileTree3D;
namespace Geo = Tavrel::Geometry;
using Clock = std::chrono::steady_clock;

template <typename Traits>
void summary(hexmold::Volume const& v, std::size_t points, double const lo[3], double const hi[3],
             double ms)
{
    auto const& object = v.object();
    auto const& tree = *object.component<Container<Traits>>(v.names().tree);
    std::printf("points: %zu, box %.6g x %.6g x %.6g\n", points, hi[0] - lo[0], hi[1] - lo[1],
                hi[2] - lo[2]);
    std::printf("volume: %s, finest voxel %.6g\n",
                Traits::kRatio == 2 ? "Traits<2,4,1>" : "Traits<5,5,1>", double(v.voxelSize()));
    std::printf("  depth      tiles        voxels\n");
    for (int d = 0; d <= Traits::kMaxDepth; ++d) {
        std::int64_t const n = tree.tileCount(d);
        if (n == 0)
            continue;
        std::printf("  %5d %10lld %13llu\n", d, (long long)n,
                    (unsigned long long)tree.voxelDataCount(d));
    }
    std::printf("  all %16llu voxels\n", (unsigned long long)v.voxelCount());
    std::printf("memory: %.2f MiB in all", mib(v.memoryBytes()));
    for (auto const& c : v.channels())
        std::printf(", %s (%s)", c.name.c_str(), c.elementType.c_str());
    std::printf("\ntime: %.1f ms in all\n", ms);
    StageTimes::print();
    std::printf("voxel hash: %.17g\n", v.voxelHash());
}

} // namespace

int runPoints(PointsArgs const& a)
{
    auto const cloud = hexmold::io::readPoints(a.file);
    auto const* positions =
        Geo::getDataGeoPropertyValues<Tavrel::Math::float3>(*cloud, Geo::sPointPosition);
    double lo[3] = {1e300, 1e300, 1e300}, hi[3] = {-1e300, -1e300, -1e300};
    for (auto const& p : *positions)
        for (int q = 0; q < 3; ++q)
            lo[q] = std::min(lo[q], double(p[q])), hi[q] = std::max(hi[q], double(p[q]));
    hexmold::VoxelizePointsOptions o;
    o.traits = a.traits == 55 ? hexmold::TraitsKind::kTraits55 : hexmold::TraitsKind::kTraits24;
    o.voxelSize = a.voxelSize;
    o.resolution = a.resolution;
    o.radius = a.radius;
    o.radiusVoxels = a.radiusVoxels;
    o.radiusProperty = a.radiusProperty;
    o.sparse = a.sparse;
    o.maxRelativeError = a.maxError;
    o.properties = a.properties;
    std::unique_ptr<TVL::Parallel::global_control> limit;
    if (a.threads > 0)
        limit = std::make_unique<TVL::Parallel::global_control>(
            TVL::Parallel::global_control::max_allowed_parallelism, std::size_t(a.threads));
    StageTimes const stages("Geometry::Converters::points_to_level_set.", a.verbose);
    auto const t0 = Clock::now();
    hexmold::Volume const v = hexmold::voxelizePoints(*cloud, o);
    double const ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
    if (a.traits == 55)
        summary<Traits55>(v, positions->size(), lo, hi, ms);
    else
        summary<Traits24>(v, positions->size(), lo, hi, ms);
    if (!a.out.empty()) {
        hexmold::io::writeVolume(a.out, v.object());
        std::printf("wrote %s\n", a.out.c_str());
    }
    return 0;
}

} // namespace hexmoldtool
