// Gradient, Laplacian and mean curvature over the narrow band of a sphere: ours (the whole
// analyze call) against OpenVDB's tools::gradient, laplacian and meanCurvature on a grid holding
// the same finest voxels, both on 2 threads. The last benchmark prints the per-voxel time ratio.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <map>
#include <string>
#include <hexmold/analysis/analyze.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/substrate/commands.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/parallel.h>
#include "../../tests/support/trees.h"

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
        object = Command::createVoxelTVL<Tr>(Tavrel::Geometry::sVoxelTileTree, Tavrel::Geometry::sVoxelComp, kVoxel,
                                             kVoxelOffsetCenter);
        {
            TVL::ComponentGuard<Container<Tr>> tree(*object, Tavrel::Geometry::sVoxelTileTree);
            TVL::ComponentGuard<VoxelTopology<Tr>> topology(*object, Tavrel::Geometry::sVoxelComp);
            testtrees::refineWhere<Tr>(*tree, Tr::kMaxDepth, [](int3 const& c, int d) {
                return testtrees::boxSphereDistance<Tr>(c, d, kRadius) <= kBand;
            });
            tree->sortIntoMortonOrder();
            topology->update(*tree);
        }
        auto const& tree = *object->template component<Container<Tr>>(Tavrel::Geometry::sVoxelTileTree);
        auto const& topology = *object->template component<VoxelTopology<Tr>>(Tavrel::Geometry::sVoxelComp);
        auto ch = Command::createChannel<float, Tr::kRatio, Tr::kTileWidth, Tr::kTileWidth, 0>(
            "distance", topology, *object, 0.0f, kDataElementInitializerDefaultValue, 0, Tr::kMaxDepth);
        constexpr int W = Tr::kTileWidth;
        for (int d = 0; d <= Tr::kMaxDepth; ++d)
            for (std::int64_t t = 0; t < tree.tileCount(d); ++t) {
                auto const& tile = tree.tile(t, d);
                auto td = ch->tileData(t, d);
                double const w = double(tile.voxelDataWidth());
                for (int k = 0; k < W; ++k)
                    for (int j = 0; j < W; ++j)
                        for (int i = 0; i < W; ++i) {
                            double const x = tile.ti() + (i + 0.5) * w, y = tile.tj() + (j + 0.5) * w,
                                         z = tile.tk() + (k + 0.5) * w;
                            td(i, j, k) = float((std::sqrt(x * x + y * y + z * z) - kRadius) * kVoxel);
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

template <typename Tr> char const* traitsName() { return std::is_same_v<Tr, Traits24> ? "Traits24" : "Traits55"; }

template <typename Op, typename Tr> void BM_Ours(benchmark::State& state)
{
    TVL::Parallel::global_control threads(TVL::Parallel::global_control::max_allowed_parallelism, 2);
    auto& in = input<Tr>();
    for (auto _ : state) benchmark::DoNotOptimize(analyze<Op>("distance", "", false, *in.object));
    state.counters["voxels"] = double(in.voxels);
    state.counters["voxels_per_second"] =
        benchmark::Counter(double(in.voxels) * double(state.iterations()), benchmark::Counter::kIsRate);
}

#if HEXMOLD_HAVE_OPENVDB
/// The peer's grid: the deepest tiles' voxels of the same input, at the same coordinates.
template <typename Tr> openvdb::FloatGrid::Ptr& peerGrid()
{
    static openvdb::FloatGrid::Ptr grid = [] {
        openvdb::initialize();
        auto& in = input<Tr>();
        auto const& tree = *in.object->template component<Container<Tr>>(Tavrel::Geometry::sVoxelTileTree);
        auto const& ch = *in.object->template component<Channel<Tr, float, Tr::kTileWidth, 0, 0>>("distance");
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
                        acc.setValueOn(openvdb::Coord(tile.ti() + i, tile.tj() + j, tile.tk() + k), td(i, j, k));
        }
        return g;
    }();
    return grid;
}

template <typename Tr, typename F> void BM_Peer(benchmark::State& state, F const& run)
{
    TVL::Parallel::global_control threads(TVL::Parallel::global_control::max_allowed_parallelism, 2);
    auto grid = peerGrid<Tr>();
    for (auto _ : state) benchmark::DoNotOptimize(run(*grid));
    double const n = double(grid->activeVoxelCount());
    state.counters["voxels"] = n;
    state.counters["voxels_per_second"] = benchmark::Counter(n * double(state.iterations()), benchmark::Counter::kIsRate);
}
#endif

/// The console report, also recording each run's seconds per voxel by benchmark name.
class Recorder : public benchmark::ConsoleReporter {
public:
    void ReportRuns(std::vector<Run> const& runs) override
    {
        for (Run const& r : runs) {
            auto const it = r.counters.find("voxels");
            if (it == r.counters.end() || r.iterations == 0) continue;
            double const seconds = r.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(r.time_unit);
            gSecondsPerVoxel[r.benchmark_name()] = seconds / double(it->second);
        }
        ConsoleReporter::ReportRuns(runs);
    }
};

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    auto reg = [](std::string const& name, auto fn) {
        benchmark::RegisterBenchmark(name.c_str(), fn)->UseRealTime()->Unit(benchmark::kMillisecond)->MinTime(1.0);
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
        reg("openvdb/" + name + "_" + traitsName<Tr>(), [run](benchmark::State& st) { BM_Peer<Tr>(st, run); });
    };
    for (int t = 0; t < 2; ++t) {
        auto each = [&](auto tr) {
            peer("gradient", tr, [](openvdb::FloatGrid const& g) { return openvdb::tools::gradient(g); });
            peer("laplacian", tr, [](openvdb::FloatGrid const& g) { return openvdb::tools::laplacian(g); });
            peer("mean_curvature", tr, [](openvdb::FloatGrid const& g) { return openvdb::tools::meanCurvature(g); });
        };
        if (t == 0) each(Traits24{});
        else each(Traits55{});
    }
#endif
    Recorder reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\nPer-voxel time, ours (analyze, all tiles of all depths) / OpenVDB (active voxels), 2 threads:\n");
    for (char const* tr : {"Traits24", "Traits55"})
        for (char const* op : {"gradient", "laplacian", "mean_curvature"}) {
            double o = 0, p = 0;
            for (auto const& [name, spv] : gSecondsPerVoxel) {
                if (name.rfind(std::string("ours/") + op + "_" + tr, 0) == 0) o = spv;
                if (name.rfind(std::string("openvdb/") + op + "_" + tr, 0) == 0) p = spv;
            }
            if (o > 0 && p > 0)
                std::printf("  %-8s %-15s ours %7.1f Mvoxel/s  OpenVDB %7.1f Mvoxel/s  ratio %.2f\n", tr, op,
                            1e-6 / o, 1e-6 / p, o / p);
        }
    benchmark::Shutdown();
    return 0;
}
