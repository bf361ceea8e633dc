// Gradient, Laplacian and mean curvature over the narrow band of a sphere: ours (the whole
// analyze call) against OpenVDB's tools::gradient, laplacian and meanCurvature on a grid holding
// the same finest voxels, both on 2 threads. The last benchmark prints the per-voxel time ratio.
// With --interleave=N (N rounds) it skips Google Benchmark and instead times ours and the peer
// alternately, pair by pair, N times, and prints the median rates and the median of the
// per-round ratios, so that load on the machine affects both sides alike; --only=TEXT keeps the
// pairs whose name contains TEXT ("--only='Traits24 gradient'"), --stages adds our timers.
#include <benchmark/benchmark.h>

#include "fixtures/trees.h"
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <hexmold/analysis/analyze.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/substrate/commands.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/parallel.h>
#include <map>
#include <string>
#include <vector>

#if HEXMOLD_HAVE_OPENVDB
#include <openvdb/openvdb.h>
#include <openvdb/tools/GridOperators.h>
#endif

using namespace TVL::TileTree3D;
using namespace VolumeGL::TileTree3D;

namespace {

constexpr double kRadius = 256.0; ///< finest voxels
constexpr double kBand = 3.0;     ///< finest voxels each side of the surface
constexpr float kVoxel = 0.01f;

/// Seconds per voxel, by "op/peer", filled by the benchmarks and read by the ratio report.
std::map<std::string, double> gSecondsPerVoxel;

template <typename Tr> struct Input {
    Quillon::Ptr<TVL::Object> object;
    std::int64_t voxels = 0;       ///< all voxels of all tiles (what analyze computes)
    std::int64_t finestVoxels = 0; ///< voxels of the deepest tiles (what the peer computes)

    Input()
    {
        object =
            Command::createVoxelTVL<Tr>(Tavrel::Geometry::sVoxelTileTree,
                                        Tavrel::Geometry::sVoxelComp, kVoxel, kVoxelOffsetCenter);
        {
            TVL::ComponentGuard<Container<Tr>> tree(*object, Tavrel::Geometry::sVoxelTileTree);
            TVL::ComponentGuard<VoxelTopology<Tr>> topology(*object, Tavrel::Geometry::sVoxelComp);
            testtrees::refineWhere<Tr>(*tree, Tr::kMaxDepth, [](int3 const& c, int d) {
                return testtrees::boxSphereDistance<Tr>(c, d, kRadius) <= kBand;
            });
            tree->sortIntoMortonOrder();
            topology->update(*tree);
        }
        auto const& tree =
            *object->template component<Container<Tr>>(Tavrel::Geometry::sVoxelTileTree);
        auto const& topology =
            *object->template component<VoxelTopology<Tr>>(Tavrel::Geometry::sVoxelComp);
        auto ch = Command::createChannel<float, Tr::kRatio, Tr::kTileWidth, Tr::kTileWidth, 0>(
            "distance", topology, *object, 0.0f, kDataElementInitializerDefaultValue, 0,
            Tr::kMaxDepth);
        constexpr int W = Tr::kTileWidth;
        for (int d = 0; d <= Tr::kMaxDepth; ++d)
            for (std::int64_t t = 0; t < tree.tileCount(d); ++t) {
                auto const& tile = tree.tile(t, d);
                auto td = ch->tileData(t, d);
                double const w = double(tile.voxelDataWidth());
                for (int k = 0; k < W; ++k)
                    for (int j = 0; j < W; ++j)
                        for (int i = 0; i < W; ++i) {
                            double const x = tile.ti() + (i + 0.5) * w,
                                         y = tile.tj() + (j + 0.5) * w,
                                         z = tile.tk() + (k + 0.5) * w;
                            td(i, j, k) =
                                float((std::sqrt(x * x + y * y + z * z) - kRadius) * kVoxel);
                        }
            }
        voxels = tree.tileCount(-1) * Tr::kTileSize;
        finestVoxels = tree.tileCount(Tr::kMaxDepth) * Tr::kTileSize;
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

template <typename Op, typename Tr> void BM_Ours(benchmark::State& state)
{
    TVL::Parallel::global_control threads(TVL::Parallel::global_control::max_allowed_parallelism,
                                          2);
    auto& in = input<Tr>();
    for (auto _ : state)
        benchmark::DoNotOptimize(analyze<Op>("distance", "", false, *in.object));
    state.counters["voxels"] = double(in.voxels);
    state.counters["voxels_per_second"] = benchmark::Counter(
        double(in.voxels) * double(state.iterations()), benchmark::Counter::kIsRate);
}

#if HEXMOLD_HAVE_OPENVDB
/// The peer's grid: the deepest tiles' voxels of the same input, at the same coordinates.
template <typename Tr> openvdb::FloatGrid::Ptr& peerGrid()
{
    static openvdb::FloatGrid::Ptr grid = [] {
        openvdb::initialize();
        auto& in = input<Tr>();
        auto const& tree =
            *in.object->template component<Container<Tr>>(Tavrel::Geometry::sVoxelTileTree);
        auto const& ch =
            *in.object->template component<Channel<Tr, float, Tr::kTileWidth, 0, 0>>("distance");
        auto g = openvdb::FloatGrid::create(float(kBand * kVoxel));
        g->setTransform(openvdb::math::Transform::createLinearTransform(kVoxel));
        g->setGridClass(openvdb::GRID_LEVEL_SET);
        auto acc = g->getAccessor();
        constexpr int W = Tr::kTileWidth;
        int const d = Tr::kMaxDepth;
        for (std::int64_t t = 0; t < tree.tileCount(d); ++t) {
            auto const& tile = tree.tile(t, d);
            auto const td = ch.tileData(t, d);
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i)
                        acc.setValueOn(openvdb::Coord(tile.ti() + i, tile.tj() + j, tile.tk() + k),
                                       td(i, j, k));
        }
        return g;
    }();
    return grid;
}

template <typename Tr, typename F> void BM_Peer(benchmark::State& state, F const& run)
{
    TVL::Parallel::global_control threads(TVL::Parallel::global_control::max_allowed_parallelism,
                                          2);
    auto grid = peerGrid<Tr>();
    for (auto _ : state)
        benchmark::DoNotOptimize(run(*grid));
    double const n = double(grid->activeVoxelCount());
    state.counters["voxels"] = n;
    state.counters["voxels_per_second"] =
        benchmark::Counter(n * double(state.iterations()), benchmark::Counter::kIsRate);
}
#endif

/// The console report, also recording each run's seconds per voxel by benchmark name.
class Recorder : public benchmark::ConsoleReporter {
public:
    void ReportRuns(std::vector<Run> const& runs) override
    {
        for (Run const& r : runs) {
            auto const it = r.counters.find("voxels");
            if (it == r.counters.end() || r.iterations == 0)
                continue;
            double const seconds =
                r.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(r.time_unit);
            gSecondsPerVoxel[r.benchmark_name()] = seconds / double(it->second);
        }
        ConsoleReporter::ReportRuns(runs);
    }
};

/// Milliseconds per timer name of our calls, by pair, and the pair being timed (for --stages).
std::map<std::string, std::map<std::string, double>> gStageMs;
std::map<std::string, int> gStageCalls;
std::map<std::string, int> gPeerCalls;
std::string gCurrentPair;

void observeTimer(Quillon::StringView name, double ms)
{
    if (!gCurrentPair.empty())
        gStageMs[gCurrentPair][std::string(name.data(), name.size())] += ms;
}

/// CPU seconds used by all threads of the process so far.
double processCpuSeconds()
{
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return double(t.tv_sec) + 1e-9 * double(t.tv_nsec);
}

/// Seconds per call of @p run, repeated until at least @p minSeconds have passed.
template <typename F> double secondsPerCall(F const& run, double minSeconds)
{
    using Clock = std::chrono::steady_clock;
    int calls = 0;
    auto const start = Clock::now();
    double elapsed = 0;
    do {
        run();
        ++calls;
        elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    } while (elapsed < minSeconds);
    return elapsed / calls;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    std::size_t const n = v.size();
    return n == 0 ? 0.0 : (n % 2 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]));
}

#if HEXMOLD_HAVE_OPENVDB
/// Ours and the peer alternately, @p rounds times per operator and tree (the order flips every
/// round); prints the median rates and the median of the per-round ratios. A non-empty @p only
/// keeps the pairs whose name ("Traits24 gradient") contains it, which helps profiling; with
/// @p stages our timers' mean times per call are printed too.
void interleaved(int rounds, std::string const& only, bool stages)
{
    TVL::Parallel::global_control threads(TVL::Parallel::global_control::max_allowed_parallelism,
                                          2);
    struct Pair {
        std::string name;
        std::function<double()> ours, peer; ///< seconds per voxel of one timed stretch
        std::vector<double> o, p, r;
    };
    std::vector<Pair> pairs;
    auto add = [&](auto tr, auto op, char const* name, auto peerRun) {
        using Tr = decltype(tr);
        using Op = decltype(op);
        std::string const full = std::string(traitsName<Tr>()) + " " + name;
        auto ours = [full] {
            auto& in = input<Tr>();
            gCurrentPair = full;
            double const cpu0 = processCpuSeconds();
            double const s = secondsPerCall(
                [&] {
                    analyze<Op>("distance", "", false, *in.object);
                    ++gStageCalls[full];
                },
                0.5);
            gStageMs[full]["(process CPU time, all threads)"] += 1e3 * (processCpuSeconds() - cpu0);
            gCurrentPair.clear();
            return s / double(in.voxels);
        };
        auto peer = [peerRun, full] {
            auto grid = peerGrid<Tr>();
            double const cpu0 = processCpuSeconds();
            double const s = secondsPerCall(
                [&] {
                    peerRun(*grid);
                    ++gPeerCalls[full];
                },
                0.5);
            gStageMs[full]["(OpenVDB: process CPU time, all threads)"] +=
                1e3 * (processCpuSeconds() - cpu0);
            return s / double(grid->activeVoxelCount());
        };
        if (full.find(only) != std::string::npos)
            pairs.push_back({full, ours, peer, {}, {}, {}});
    };
    auto grad = [](openvdb::FloatGrid const& g) { return openvdb::tools::gradient(g); };
    auto lap = [](openvdb::FloatGrid const& g) { return openvdb::tools::laplacian(g); };
    auto mc = [](openvdb::FloatGrid const& g) { return openvdb::tools::meanCurvature(g); };
    add(Traits24{}, Analyze::GradientOperator{}, "gradient", grad);
    add(Traits24{}, Analyze::LaplacianOperator{}, "laplacian", lap);
    add(Traits24{}, Analyze::MeanCurvatureOperator{}, "mean_curvature", mc);
    add(Traits55{}, Analyze::GradientOperator{}, "gradient", grad);
    add(Traits55{}, Analyze::LaplacianOperator{}, "laplacian", lap);
    add(Traits55{}, Analyze::MeanCurvatureOperator{}, "mean_curvature", mc);
    for (Pair& q : pairs) { // warm-up: inputs, grids, output channels, tables
        q.ours();
        q.peer();
    }
    if (stages)
        CoreGL::Logger::setTimerObserver(observeTimer);
    gStageMs.clear();
    gStageCalls.clear();
    gPeerCalls.clear();
    for (int round = 0; round < rounds; ++round)
        for (Pair& q : pairs) {
            double o, p;
            if (round % 2 == 0) {
                o = q.ours();
                p = q.peer();
            } else {
                p = q.peer();
                o = q.ours();
            }
            q.o.push_back(o);
            q.p.push_back(p);
            q.r.push_back(o / p);
            std::printf("  round %d %-24s ours %7.1f  OpenVDB %7.1f Mvoxel/s  ratio %.2f\n",
                        round + 1, q.name.c_str(), 1e-6 / o, 1e-6 / p, o / p);
            std::fflush(stdout);
        }
    std::printf(
        "\nMedians over %d interleaved rounds, ours (analyze, all tiles of all depths) / OpenVDB "
        "(active voxels), 2 threads:\n",
        rounds);
    for (Pair const& q : pairs) {
        std::vector<double> const& r = q.r;
        std::printf("  %-24s ours %7.1f Mvoxel/s  OpenVDB %7.1f Mvoxel/s  ratio %.2f (min %.2f, "
                    "max %.2f)\n",
                    q.name.c_str(), 1e-6 / median(q.o), 1e-6 / median(q.p), median(r),
                    *std::min_element(r.begin(), r.end()), *std::max_element(r.begin(), r.end()));
    }
    if (!stages)
        return;
    CoreGL::Logger::setTimerObserver(nullptr);
    std::printf("\nOur stages, mean milliseconds per call (wall time), and the CPU time per call "
                "of both:\n");
    for (auto const& [pair, stageMs] : gStageMs)
        for (auto const& [stage, ms] : stageMs)
            std::printf(
                "  %-24s %-50s %9.2f\n", pair.c_str(), stage.c_str(),
                ms / (stage.rfind("(OpenVDB", 0) == 0 ? gPeerCalls[pair] : gStageCalls[pair]));
}
#endif

} // namespace

int main(int argc, char** argv)
{
    std::string only;
    bool stages = false;
    for (int a = 1; a < argc; ++a) {
        if (std::strncmp(argv[a], "--only=", 7) == 0)
            only = argv[a] + 7;
        if (std::strcmp(argv[a], "--stages") == 0)
            stages = true;
    }
    for (int a = 1; a < argc; ++a)
        if (std::strncmp(argv[a], "--interleave=", 13) == 0) {
#if HEXMOLD_HAVE_OPENVDB
            interleaved(std::max(1, std::atoi(argv[a] + 13)), only, stages);
            return 0;
#else
            std::printf("--interleave needs OpenVDB\n");
            return 1;
#endif
        }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    auto reg = [](std::string const& name, auto fn) {
        benchmark::RegisterBenchmark(name.c_str(), fn)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond)
            ->MinTime(1.0);
    };
    reg("ours/gradient_Traits24", BM_Ours<Analyze::GradientOperator, Traits24>);
    reg("ours/laplacian_Traits24", BM_Ours<Analyze::LaplacianOperator, Traits24>);
    reg("ours/mean_curvature_Traits24", BM_Ours<Analyze::MeanCurvatureOperator, Traits24>);
    reg("ours/gradient_Traits55", BM_Ours<Analyze::GradientOperator, Traits55>);
    reg("ours/laplacian_Traits55", BM_Ours<Analyze::LaplacianOperator, Traits55>);
    reg("ours/mean_curvature_Traits55", BM_Ours<Analyze::MeanCurvatureOperator, Traits55>);
#if HEXMOLD_HAVE_OPENVDB
    auto peer = [&](std::string const& name, auto tr, auto run) {
        using Tr = decltype(tr);
        reg("openvdb/" + name + "_" + traitsName<Tr>(),
            [run](benchmark::State& st) { BM_Peer<Tr>(st, run); });
    };
    for (int t = 0; t < 2; ++t) {
        auto each = [&](auto tr) {
            peer("gradient", tr,
                 [](openvdb::FloatGrid const& g) { return openvdb::tools::gradient(g); });
            peer("laplacian", tr,
                 [](openvdb::FloatGrid const& g) { return openvdb::tools::laplacian(g); });
            peer("mean_curvature", tr,
                 [](openvdb::FloatGrid const& g) { return openvdb::tools::meanCurvature(g); });
        };
        if (t == 0)
            each(Traits24{});
        else
            each(Traits55{});
    }
#endif
    Recorder reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\nPer-voxel time, ours (analyze, all tiles of all depths) / OpenVDB (active "
                "voxels), 2 threads:\n");
    for (char const* tr : {"Traits24", "Traits55"})
        for (char const* op : {"gradient", "laplacian", "mean_curvature"}) {
            double o = 0, p = 0;
            for (auto const& [name, spv] : gSecondsPerVoxel) {
                if (name.rfind(std::string("ours/") + op + "_" + tr, 0) == 0)
                    o = spv;
                if (name.rfind(std::string("openvdb/") + op + "_" + tr, 0) == 0)
                    p = spv;
            }
            if (o > 0 && p > 0)
                std::printf(
                    "  %-8s %-15s ours %7.1f Mvoxel/s  OpenVDB %7.1f Mvoxel/s  ratio %.2f\n", tr,
                    op, 1e-6 / o, 1e-6 / p, o / p);
        }
    benchmark::Shutdown();
    return 0;
}
