// Redistancing a sphere of radius 256 finest voxels from a 3-voxel band of the field
// (|x|^2 - R^2) / (2R) to a 10-voxel band: ours (levelSetRedistance on the deepest tiles within
// 10 voxels of the surface and their ancestors, by the DOF sweep with its classification and by
// the recursion) against OpenVDB's tools::sdfToSdf on the same voxels, both on 2 threads. Runs
// alternate in one process; the report gives median times, voxel counts, errors near the surface
// and the time ratio.
//
// The 10-voxel tile set is built directly here, in place of dilating the 3-voxel band's tiles:
// the voxels it adds hold the background of their side, as dilation leaves them; the timings
// therefore cover the redistancing alone.
#include <benchmark/benchmark.h>

#include "bench/support/timing.h"
#include "fixtures/level_set_scenes.h"
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <hexmold/levelset/level_set_redistance.h>
#include <hexmold/substrate/parallel.h>
#include <memory>
#include <vector>

#if HEXMOLD_HAVE_OPENVDB
#include <openvdb/openvdb.h>
#include <openvdb/tools/FastSweeping.h>
#endif

using namespace TVL::TileTree3D;
using namespace testlevelset;

namespace {

using benchtiming::median;

constexpr double kRadius = 256.0;    ///< finest voxels
constexpr double kInputBand = 3.0;   ///< finest voxels each side where the field is given
constexpr double kOutputBand = 10.0; ///< finest voxels each side of the redistanced band
constexpr float kVoxel = float(1.0 / kRadius);
constexpr int kRepeats = 3;
constexpr int kThreads = 2;

using Clock = std::chrono::steady_clock;
double secondsSince(Clock::time_point t0)
{
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

/// The tree of the 10-voxel band and the input channel: the field on the voxels of the tiles of
/// the 3-voxel band, the background of their side on the others.
template <typename Tr> struct Input {
    static constexpr int W = Tr::kTileWidth;
    LevelSetScene<Tr> scene{kVoxel};
    Shape shape = sphere(kRadius * kVoxel);
    std::unique_ptr<VoxelChannel<Tr, float>> distance;
    std::int64_t finestVoxels = 0, allVoxels = 0;

    Input()
    {
        double const s = kVoxel;
        scene.buildUniformBand(shape, kOutputBand);
        // As the tree producers leave it: neighbour tables built.
        scene.tree.precomputeTileNeighbors();
        // The background is the band's half width, as the peer's.
        float const bg = float(kOutputBand * kVoxel);
        distance = scene.makeChannel([&](double x, double y, double z) {
            double const f = shape.field(x, y, z);
            return f < 0 ? -double(bg) : double(bg);
        });
        distance->setDefaultValue(&bg);
        // The field on the voxels of the tiles that the 3-voxel band has.
        int const d = Tr::kMaxDepth;
        for (std::int64_t t = 0; t < scene.tree.tileCount(d); ++t) {
            Tile<Tr> const& tile = scene.tree.tile(t, d);
            if (tileLowerBound<Tr>(shape, tile.tijk(), d, s) > kInputBand * s)
                continue;
            auto td = distance->tileData(t, d);
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i) {
                        auto const p = voxelCentre(tile, i, j, k, s);
                        td(i, j, k) = float(shape.field(p[0], p[1], p[2]));
                    }
        }
        finestVoxels = scene.tree.tileCount(d) * Tr::kTileSize;
        allVoxels = scene.tree.tileCount(-1) * Tr::kTileSize;
    }

    /// Mean and largest error, in finest voxels, of the deepest voxels within 3 voxels of the
    /// surface; @p value(tile, i, j, k) gives the result.
    template <typename F> ErrorStats nearSurfaceError(F const& value) const
    {
        ErrorStats e;
        int const d = Tr::kMaxDepth;
        for (std::int64_t t = 0; t < scene.tree.tileCount(d); ++t) {
            Tile<Tr> const& tile = scene.tree.tile(t, d);
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i) {
                        auto const p = voxelCentre(tile, i, j, k, double(kVoxel));
                        double const exact = shape.distance(p[0], p[1], p[2]);
                        if (std::abs(exact) > 3.0 * kVoxel)
                            continue;
                        e.add(std::abs(double(value(tile, i, j, k)) - exact) / kVoxel);
                    }
        }
        return e;
    }
};

template <typename Tr> Input<Tr>& input()
{
    static Input<Tr> in;
    return in;
}

template <typename Tr> char const* traitsName()
{
    return std::is_same_v<Tr, Traits24> ? "Traits24" : "Traits55";
}

/// One of our runs on a fresh copy of the input; returns seconds and leaves the result in @p out.
template <typename Tr>
double runOurs(Input<Tr>& in, bool useDOF, std::unique_ptr<VoxelChannel<Tr, float>>& out,
               bool coalesced = false)
{
    out = std::make_unique<VoxelChannel<Tr, float>>(*in.distance);
    auto const t0 = Clock::now();
    std::unique_ptr<VoxelChannel<Tr, short>> dof;
    if (useDOF)
        dof = in.scene.makeDOF();
    RedistanceCall<Tr> call;
    call.dof = dof.get();
    call.coalesced = coalesced;
    call.name = "bench";
    call.run(in.scene, *out);
    return secondsSince(t0);
}

#if HEXMOLD_HAVE_OPENVDB
/// The peer's input: the deepest voxels of our tree as active voxels with the same values, the
/// voxels beyond the 3-voxel band at the peer's background (10 voxels) of their side.
template <typename Tr> openvdb::FloatGrid::Ptr peerInput(Input<Tr>& in)
{
    constexpr int W = Tr::kTileWidth;
    openvdb::initialize();
    float const background = float(kOutputBand * kVoxel);
    auto g = openvdb::FloatGrid::create(background);
    g->setTransform(openvdb::math::Transform::createLinearTransform(kVoxel));
    g->setGridClass(openvdb::GRID_LEVEL_SET);
    auto acc = g->getAccessor();
    int const d = Tr::kMaxDepth;
    for (std::int64_t t = 0; t < in.scene.tree.tileCount(d); ++t) {
        auto const& tile = in.scene.tree.tile(t, d);
        auto const td = in.distance->tileData(t, d);
        for (int k = 0; k < W; ++k)
            for (int j = 0; j < W; ++j)
                for (int i = 0; i < W; ++i) {
                    float v = td(i, j, k);
                    if (std::abs(v) >= background)
                        v = v < 0 ? -background : background;
                    acc.setValueOn(openvdb::Coord(tile.ti() + i, tile.tj() + j, tile.tk() + k), v);
                }
    }
    return g;
}
#endif

template <typename Tr> void BM_RedistanceVersusOpenVDB(benchmark::State& state)
{
    TVL::Parallel::global_control threads(TVL::Parallel::global_control::max_allowed_parallelism,
                                          std::size_t(state.range(0)));
    auto& in = input<Tr>();
#if HEXMOLD_HAVE_OPENVDB
    auto const peerIn = peerInput(in);
#endif
    std::vector<double> dofTimes, recursionTimes, coalescedTimes, peerTimes;
    std::unique_ptr<VoxelChannel<Tr, float>> oursDOF, oursRecursion, oursCoalesced;
    ErrorStats eDOF, eRecursion, eCoalesced, ePeer;
    for (auto _ : state) {
        for (int r = 0; r < kRepeats; ++r) {
            dofTimes.push_back(runOurs(in, true, oursDOF));
            recursionTimes.push_back(runOurs(in, false, oursRecursion));
            coalescedTimes.push_back(runOurs(in, false, oursCoalesced, true));
#if HEXMOLD_HAVE_OPENVDB
            auto const t0 = Clock::now();
            auto const peer = openvdb::tools::sdfToSdf(*peerIn);
            peerTimes.push_back(secondsSince(t0));
            if (r == kRepeats - 1) {
                auto acc = peer->getConstAccessor();
                ePeer = in.nearSurfaceError([&](Tile<Tr> const& tile, int i, int j, int k) {
                    return acc.getValue(
                        openvdb::Coord(tile.ti() + i, tile.tj() + j, tile.tk() + k));
                });
            }
#endif
        }
    }
    auto valueOf = [](VoxelChannel<Tr, float> const& ch) {
        return [&ch](Tile<Tr> const& tile, int i, int j, int k) {
            return ch.tileData(tile.index(), tile.depth())(i, j, k);
        };
    };
    eDOF = in.nearSurfaceError(valueOf(*oursDOF));
    eRecursion = in.nearSurfaceError(valueOf(*oursRecursion));
    eCoalesced = in.nearSurfaceError(valueOf(*oursCoalesced));

    double const tDOF = median(dofTimes), tRecursion = median(recursionTimes),
                 tCoalesced = median(coalescedTimes);
    std::printf(
        "\n%s, sphere of radius %.0f voxels, %lld threads, median of %d alternating runs:\n",
        traitsName<Tr>(), kRadius, (long long)state.range(0), kRepeats);
    std::printf("  voxels: %lld deepest (the peer's active voxels), %lld over all depths\n",
                (long long)in.finestVoxels, (long long)in.allVoxels);
    std::printf("  %-32s %10s %16s %16s\n", "", "time ms", "mean err (h)", "max err (h)");
    std::printf("  %-32s %10.1f %16.4f %16.4f\n", "ours, DOF sweep (+ classify)", 1e3 * tDOF,
                eDOF.mean(), eDOF.max);
    std::printf("  %-32s %10.1f %16.4f %16.4f\n", "ours, recursion", 1e3 * tRecursion,
                eRecursion.mean(), eRecursion.max);
    std::printf("  %-32s %10.1f %16.4f %16.4f\n", "ours, recursion, coalesced blocks",
                1e3 * tCoalesced, eCoalesced.mean(), eCoalesced.max);
    state.counters["voxels"] = double(in.finestVoxels);
    state.counters["ours_dof_ms"] = 1e3 * tDOF;
    state.counters["ours_recursion_ms"] = 1e3 * tRecursion;
    state.counters["ours_dof_mean_err_h"] = eDOF.mean();
#if HEXMOLD_HAVE_OPENVDB
    double const tPeer = median(peerTimes);
    std::printf("  %-32s %10.1f %16.4f %16.4f\n", "OpenVDB sdfToSdf", 1e3 * tPeer, ePeer.mean(),
                ePeer.max);
    std::printf("  time ratio ours / OpenVDB: DOF sweep %.2f, recursion %.2f, coalesced %.2f "
                "(errors near the "
                "surface: %d voxels each side, %lld voxels)\n",
                tDOF / tPeer, tRecursion / tPeer, tCoalesced / tPeer, 3, ePeer.n);
    state.counters["ratio_coalesced"] = tCoalesced / tPeer;
    state.counters["openvdb_ms"] = 1e3 * tPeer;
    state.counters["ratio_dof"] = tDOF / tPeer;
    state.counters["ratio_recursion"] = tRecursion / tPeer;
    state.counters["openvdb_mean_err_h"] = ePeer.mean();
#else
    std::printf("  OpenVDB not available: no peer run\n");
#endif
}

} // namespace

BENCHMARK_TEMPLATE(BM_RedistanceVersusOpenVDB, Traits24)
    ->Arg(kThreads)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_RedistanceVersusOpenVDB, Traits55)
    ->Arg(kThreads)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
