// Resize of a sphere band (radius 256 finest voxels) from a half-width of 3 to 10 voxels: ours on
// the tile tree against OpenVDB's LevelSetTracker::resize on a grid holding the same finest voxels,
// 2 threads, repeats interleaved in one run; medians, their ratio, voxel counts and errors.
#include <benchmark/benchmark.h>

#include "bench/support/timing.h"
#include "fixtures/sphere_band.h"
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <hexmold/levelset/resize.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/topology.h>
#include <map>
#include <string>
#include <vector>

#if HEXMOLD_HAVE_OPENVDB
#include <openvdb/openvdb.h>
#include <openvdb/tools/LevelSetTracker.h>
#endif

namespace {

using benchtiming::median;
using benchtiming::msSince;

using namespace TVL::TileTree3D;
constexpr double kRadius = 256.0; ///< finest voxels
constexpr int kRepeats = 5;

/// A deep copy of every component, so that the timed call owns what it changes.
Quillon::Ptr<TVL::Object> deepCopy(TVL::Object const& source)
{
    auto out = TVL::createEmptyTVL();
    for (Quillon::String const& name : source.componentRange()) {
        Quillon::Ptr<TVL::Component> c;
        source.component(name)->copyTo(c);
        out->addComponent(c);
    }
    return out;
}

#if HEXMOLD_HAVE_OPENVDB
/// The finest voxels of our band as a narrow-band level set: voxel (i, j, k) of the grid is the
/// finest voxel with corner (i, j, k), its centre at world (i + 0.5) h.
openvdb::FloatGrid::Ptr peerGrid(TVL::Object const& volume)
{
    openvdb::initialize();
    auto const& tree = *volume.component<Container<Traits24>>(Tavrel::Geometry::sVoxelTileTree);
    auto const& phi =
        *volume.component<VoxelChannel<Traits24, float>>(Tavrel::Geometry::sVoxelSignedDistance);
    double const h = tree.voxelSize();
    auto grid = openvdb::FloatGrid::create(float(3.0 * h));
    auto transform = openvdb::math::Transform::createLinearTransform(h);
    transform->postTranslate(openvdb::Vec3d(0.5 * h));
    grid->setTransform(transform);
    grid->setGridClass(openvdb::GRID_LEVEL_SET);
    auto acc = grid->getAccessor();
    int const d = Traits24::kMaxDepth;
    for (std::int64_t n = 0; n < tree.tileCount(d); ++n) {
        auto const& tile = tree.tile(n, d);
        auto const data = phi.tileData(n, d);
        for (int k = 0; k < 4; ++k)
            for (int j = 0; j < 4; ++j)
                for (int i = 0; i < 4; ++i) {
                    float const v = data(i, j, k);
                    if (std::abs(v) < float(3.0 * h))
                        acc.setValue(openvdb::Coord(tile.ti() + i, tile.tj() + j, tile.tk() + k),
                                     v);
                }
    }
    openvdb::tools::pruneLevelSet(grid->tree());
    return grid;
}

/// Errors (finest voxels) of the active voxels of @p grid: within 3 voxels of the surface, and
/// within the 10-voxel band.
demo::BandErrors peerErrors(openvdb::FloatGrid const& grid)
{
    demo::BandErrors e;
    double const h = grid.voxelSize()[0];
    for (auto it = grid.cbeginValueOn(); it; ++it) {
        openvdb::Coord const c = it.getCoord();
        double const x = c.x() + 0.5, y = c.y() + 0.5, z = c.z() + 0.5;
        double const exact = std::sqrt(x * x + y * y + z * z) - kRadius;
        e.add(exact, std::abs(double(*it) / h - exact), 10.0);
    }
    e.finish();
    return e;
}
#endif

/// Our timers' total milliseconds per name over the timed calls, when HEXMOLD_BENCH_STAGES is set.
std::map<std::string, double>& stageTotals()
{
    static std::map<std::string, double> totals;
    return totals;
}

void observeStage(Quillon::StringView name, double milliseconds)
{
    stageTotals()[std::string(name)] += milliseconds;
}

void BM_ResizeSphereBand3To10(benchmark::State& state)
{
    bool const stages = std::getenv("HEXMOLD_BENCH_STAGES") != nullptr;
    TVL::Parallel::global_control threads(TVL::Parallel::global_control::max_allowed_parallelism,
                                          2);
    static auto const source = demo::sphereBandVolume<Traits24>(kRadius, 3.0);
    float const bandwidth = float(10.0 / kRadius);
    std::vector<double> ours, peer;
    demo::BandErrors ourErrors, peerErr;
#if HEXMOLD_HAVE_OPENVDB
    static auto const peerSource = peerGrid(*source);
#endif
    for (auto _ : state) {
        for (int r = 0; r < kRepeats; ++r) {
            auto volume = deepCopy(*source);
            if (stages)
                CoreGL::Logger::setTimerObserver(observeStage);
            auto const t0 = std::chrono::steady_clock::now();
            VolumeGL::TileTree3D::LevelSet::resize(
                bandwidth, *volume, Tavrel::Geometry::sVoxelTileTree, Tavrel::Geometry::sVoxelComp,
                Tavrel::Geometry::sVoxelSignedDistance, CoreGL::NOPLogger{});
            ours.push_back(msSince(t0));
            CoreGL::Logger::setTimerObserver(nullptr);
            if (r == 0)
                ourErrors = demo::bandErrors<Traits24>(*volume, kRadius, 10.0);
#if HEXMOLD_HAVE_OPENVDB
            auto grid = peerSource->deepCopy();
            auto const t1 = std::chrono::steady_clock::now();
            openvdb::tools::LevelSetTracker<openvdb::FloatGrid> tracker(*grid);
            tracker.resize(10);
            peer.push_back(msSince(t1));
            if (r == 0)
                peerErr = peerErrors(*grid);
#endif
        }
    }
    state.counters["ours_ms"] = median(ours);
    state.counters["ours_voxels"] = double(ourErrors.finestVoxels);
    std::printf(
        "\nResize of a sphere band (radius %g finest voxels) from 3 to 10 voxels, 2 threads, "
        "medians of %zu interleaved runs:\n",
        kRadius, ours.size());
    std::printf("  ours     %8.1f ms  %9ld finest voxels  near-surface error mean %.4f max %.4f, "
                "band max %.3f voxels\n",
                median(ours), ourErrors.finestVoxels, ourErrors.nearMean, ourErrors.nearMax,
                ourErrors.bandMax);
    if (stages) {
        std::printf("  our stages, mean milliseconds per call:\n");
        for (auto const& [name, ms] : stageTotals())
            std::printf("    %-60s %9.1f\n", name.c_str(), ms / double(ours.size()));
    }
#if HEXMOLD_HAVE_OPENVDB
    state.counters["openvdb_ms"] = median(peer);
    state.counters["ratio"] = median(ours) / median(peer);
    std::printf("  OpenVDB  %8.1f ms  %9ld active voxels  near-surface error mean %.4f max %.4f, "
                "band max %.3f voxels\n",
                median(peer), peerErr.finestVoxels, peerErr.nearMean, peerErr.nearMax,
                peerErr.bandMax);
    std::printf("  ratio ours / OpenVDB: %.2f\n", median(ours) / median(peer));
#else
    std::printf("  OpenVDB not available in this build: no peer run\n");
#endif
}

BENCHMARK(BM_ResizeSphereBand3To10)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(1);

} // namespace
