// Extension of a float channel from the zero crossing of a sphere band (radius 256 finest voxels,
// half-width 10) over the band: ours by fast sweeping on the tile tree against OpenVDB's
// tools::sdfToExt on a grid holding the same finest voxels, 2 threads, repeats interleaved in one
// run; medians, their ratio, and the errors against the analytic extension.
#include <benchmark/benchmark.h>

#include "bench/levelset/sphere_direction.h"
#include "bench/support/timing.h"
#include "fixtures/sphere_band.h"
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <hexmold/levelset/extrapolate_channel.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/topology.h>
#include <vector>

#if HEXMOLD_HAVE_OPENVDB
#include <openvdb/openvdb.h>
#endif

namespace {

using benchtiming::median;
using benchtiming::msSince;

using namespace TVL::TileTree3D;
constexpr double kRadius = 256.0;   ///< finest voxels
constexpr double kHalfWidth = 10.0; ///< finest voxels
/// Interleaved repeats; HEXMOLD_BENCH_REPEATS overrides.
constexpr int kRepeats = 5;

using extrapolatebench::direction;

/// Largest and mean error against the analytic extension over the finest voxels of the band.
struct Errors {
    double max = 0, sum = 0;
    long n = 0;
    void add(double e)
    {
        max = std::max(max, e);
        sum += e;
        ++n;
    }
    double mean() const { return n ? sum / double(n) : 0.0; }
};

/// Sphere band, its exact distance, the known shell (finest voxels within a voxel of the
/// surface) and the data there.
struct Scene {
    Quillon::Ptr<TVL::Object> volume = demo::sphereBandVolume<Traits24>(kRadius, kHalfWidth);
    Container<Traits24> const& tree =
        *volume->component<Container<Traits24>>(Tavrel::Geometry::sVoxelTileTree);
    VoxelTopology<Traits24> const& topology =
        *volume->component<VoxelTopology<Traits24>>(Tavrel::Geometry::sVoxelComp);
    VoxelChannel<Traits24, float> const& distance =
        *volume->component<VoxelChannel<Traits24, float>>(Tavrel::Geometry::sVoxelSignedDistance);
    std::unique_ptr<VoxelChannel<Traits24, unsigned char>> known;
    std::unique_ptr<VoxelChannel<Traits24, float>> value;

    Scene()
    {
        unsigned char const zero = 0;
        float const none = 0.0f;
        known = std::make_unique<VoxelChannel<Traits24, unsigned char>>(
            "known", &zero, kDataElementInitializerDefaultValue, false, true, 0,
            Traits24::kMaxDepth);
        value = std::make_unique<VoxelChannel<Traits24, float>>(
            "value", &none, kDataElementInitializerDefaultValue, false, true, 0,
            Traits24::kMaxDepth);
        known->update(topology);
        value->update(topology);
        forEachFinest(
            [&](std::int64_t n, int i, int j, int k, double x, double y, double z, double d) {
                if (std::abs(d) > 1.0)
                    return;
                known->tileData(n, Traits24::kMaxDepth)(i, j, k) = 1;
                value->tileData(n, Traits24::kMaxDepth)(i, j, k) = float(direction(x, y, z));
            });
    }

    /// @p fn(tile, i, j, k, centre x, y, z, distance) over the finest voxels, finest-voxel units.
    template <typename F> void forEachFinest(F const& fn) const
    {
        int const d = Traits24::kMaxDepth;
        for (std::int64_t n = 0; n < tree.tileCount(d); ++n) {
            auto const& tile = tree.tile(n, d);
            for (int k = 0; k < 4; ++k)
                for (int j = 0; j < 4; ++j)
                    for (int i = 0; i < 4; ++i) {
                        double const x = tile.ti() + i + 0.5, y = tile.tj() + j + 0.5,
                                     z = tile.tk() + k + 0.5;
                        fn(n, i, j, k, x, y, z, std::sqrt(x * x + y * y + z * z) - kRadius);
                    }
        }
    }

    Errors errors(VoxelChannel<Traits24, float> const& out) const
    {
        Errors e;
        forEachFinest(
            [&](std::int64_t n, int i, int j, int k, double x, double y, double z, double d) {
                if (std::abs(d) <= kHalfWidth)
                    e.add(std::abs(double(out.tileData(n, Traits24::kMaxDepth)(i, j, k)) -
                                   direction(x, y, z)));
            });
        return e;
    }

#if HEXMOLD_HAVE_OPENVDB
    /// The finest voxels of the band as a narrow-band level set: voxel (i, j, k) of the grid is
    /// the finest voxel with corner (i, j, k), its centre at world (i + 0.5) h.
    openvdb::FloatGrid::Ptr peerGrid() const
    {
        openvdb::initialize();
        double const h = tree.voxelSize();
        auto grid = openvdb::FloatGrid::create(float(kHalfWidth * h));
        auto transform = openvdb::math::Transform::createLinearTransform(h);
        transform->postTranslate(openvdb::Vec3d(0.5 * h));
        grid->setTransform(transform);
        grid->setGridClass(openvdb::GRID_LEVEL_SET);
        auto acc = grid->getAccessor();
        int const d = Traits24::kMaxDepth;
        forEachFinest(
            [&](std::int64_t n, int i, int j, int k, double, double, double, double dist) {
                if (std::abs(dist) > kHalfWidth)
                    return;
                auto const& tile = tree.tile(n, d);
                acc.setValue(openvdb::Coord(tile.ti() + i, tile.tj() + j, tile.tk() + k),
                             distance.tileData(n, d)(i, j, k));
            });
        return grid;
    }

    Errors peerErrors(openvdb::FloatGrid const& ext) const
    {
        Errors e;
        for (auto it = ext.cbeginValueOn(); it; ++it) {
            openvdb::Coord const c = it.getCoord();
            double const x = c.x() + 0.5, y = c.y() + 0.5, z = c.z() + 0.5;
            if (std::abs(std::sqrt(x * x + y * y + z * z) - kRadius) <= kHalfWidth)
                e.add(std::abs(double(*it) - direction(x, y, z)));
        }
        return e;
    }
#endif
};

void BM_ExtrapolateFloatFromSphereSurface(benchmark::State& state)
{
    TVL::Parallel::global_control threads(TVL::Parallel::global_control::max_allowed_parallelism,
                                          2);
    static Scene const scene;
    std::vector<double> ours, peer;
    Errors ourErrors, peerErr;
    long peerVoxels = 0;
#if HEXMOLD_HAVE_OPENVDB
    static auto const grid = scene.peerGrid();
    double const h = scene.tree.voxelSize();
#endif
    char const* repeatsText = std::getenv("HEXMOLD_BENCH_REPEATS");
    int const repeats = repeatsText ? std::max(1, std::atoi(repeatsText)) : kRepeats;
    // HEXMOLD_BENCH_VERBOSE: our per-depth lines for the first run.
    bool const verbose = std::getenv("HEXMOLD_BENCH_VERBOSE") != nullptr;
    for (auto _ : state) {
        for (int r = 0; r < repeats; ++r) {
            if (verbose)
                CoreGL::Logger::setVerboseLevel(r == 0 ? 1 : 0);
            VoxelChannel<Traits24, float> out(*scene.value);
            VoxelChannel<Traits24, unsigned char> known(*scene.known);
            auto const t0 = std::chrono::steady_clock::now();
            VolumeGL::TileTree3D::LevelSet::extrapolateChannel<Traits24, float>(
                VolumeGL::TileTree3D::LevelSet::kExtrapolateFSM, scene.tree, scene.topology, known,
                out, &scene.distance, nullptr, 0, Traits24::kMaxDepth, true);
            ours.push_back(msSince(t0));
            if (r == 0)
                ourErrors = scene.errors(out);
#if HEXMOLD_HAVE_OPENVDB
            auto const t1 = std::chrono::steady_clock::now();
            auto ext = extrapolatebench::extendDirection(*grid, h);
            peer.push_back(msSince(t1));
            if (r == 0) {
                peerErr = scene.peerErrors(*ext);
                peerVoxels = long(ext->activeVoxelCount());
            }
#endif
        }
    }
    state.counters["ours_ms"] = median(ours);
    std::printf("\nExtension of a float from the zero crossing of a sphere band (radius %g, "
                "half-width %g finest "
                "voxels) over the band, 2 threads, medians of %zu interleaved runs:\n",
                kRadius, kHalfWidth, ours.size());
    std::printf("  ours     %8.1f ms  %9ld band voxels  error mean %.5f max %.5f\n", median(ours),
                ourErrors.n, ourErrors.mean(), ourErrors.max);
#if HEXMOLD_HAVE_OPENVDB
    state.counters["openvdb_ms"] = median(peer);
    state.counters["ratio"] = median(ours) / median(peer);
    std::printf("  OpenVDB  %8.1f ms  %9ld active voxels  error mean %.5f max %.5f (sdfToExt, one "
                "iteration)\n",
                median(peer), peerVoxels, peerErr.mean(), peerErr.max);
    std::printf("  ratio ours / OpenVDB: %.2f\n", median(ours) / median(peer));
#else
    std::printf("  OpenVDB not available in this build: no peer run\n");
#endif
}

BENCHMARK(BM_ExtrapolateFloatFromSphereSurface)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);

} // namespace
