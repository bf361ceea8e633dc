// Linear sampling at random positions in the narrow band of a sphere of radius 256 finest voxels:
// ours on an adaptive tree (finest tiles along the surface, coarser away from it) against
// OpenVDB's tools::GridSampler<FloatGrid, BoxSampler> on a uniform grid holding the same finest
// voxels, one thread each, same positions, in one run. The last benchmark prints the ratio.
#include <benchmark/benchmark.h>

#include "fixtures/trees.h"
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <hexmold/platform/tavrel/math.h>
#include <hexmold/sampling/linear_sampler.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/topology.h>
#include <map>
#include <random>
#include <string>
#include <vector>

#if HEXMOLD_HAVE_OPENVDB
// OpenVDB keeps registries in inline templates: its symbols must stay visible to the library's
// copies, whatever the visibility this program is built with.
#pragma GCC visibility push(default)
#include <openvdb/openvdb.h>
#include <openvdb/tools/Interpolation.h>
#pragma GCC visibility pop
#endif

using namespace TVL::TileTree3D;
using Tavrel::Math::float3;

namespace {

constexpr double kRadius = 256.0; ///< finest voxels
constexpr double kBand = 3.0;     ///< finest voxels each side of the surface where samples fall
constexpr float kVoxel = 0.01f;
constexpr std::size_t kSamples = 1 << 20; ///< positions per iteration

/// Samples per second by benchmark name, for the ratio report.
std::map<std::string, double> gRate;

template <typename Tr> char const* traitsName()
{
    return std::is_same_v<Tr, Traits24> ? "Traits24" : "Traits55";
}

/// Signed distance to the sphere of a tile-space point, in world units.
double sphere(double x, double y, double z)
{
    return (std::sqrt(x * x + y * y + z * z) - kRadius) * kVoxel;
}

template <typename Tr> struct Input {
    Container<Tr> tree{"voxel_tile_tree", kVoxel};
    VoxelTopology<Tr> topology{"voxel_topology", "voxel_tile_tree", kVoxel, kVoxelOffsetCenter};
    VoxelChannel<Tr, float> distance{
        "distance", nullptr, kDataElementInitializerDefaultValue, false, true, 0, Tr::kMaxDepth};
    std::vector<float3> world; ///< sample positions, world units
    std::int64_t finestVoxels = 0;

    Input()
    {
        // Finest tiles within one tile width of the surface, each coarser depth within one of its
        // own widths: an adaptive tree whose finest depth covers the band.
        testtrees::buildGradedSphere(tree, kRadius, Tr::kMaxDepth, 1.0);
        tree.sortIntoMortonOrder();
        topology.update(tree);
        distance.update(topology);
        constexpr int W = Tr::kTileWidth;
        for (int d = 0; d <= Tr::kMaxDepth; ++d)
            for (std::int64_t t = 0; t < tree.tileCount(d); ++t) {
                auto const& tile = tree.tile(t, d);
                auto b = distance.tileData(t, d);
                std::int64_t const w = tile.voxelDataWidth();
                // Cell-centred samples of every voxel, placed as the sampler places them.
                for (int k = 0; k < W; ++k)
                    for (int j = 0; j < W; ++j)
                        for (int i = 0; i < W; ++i)
                            b(i, j, k) =
                                float(sphere(tile.ti() + i * w + 0.5, tile.tj() + j * w + 0.5,
                                             tile.tk() + k * w + 0.5));
            }
        finestVoxels = tree.tileCount(Tr::kMaxDepth) * Tr::kTileSize;
        std::mt19937 rng(7);
        std::normal_distribution<double> g(0.0, 1.0);
        std::uniform_real_distribution<double> band(-kBand, kBand);
        world.reserve(kSamples);
        while (world.size() < kSamples) {
            double const x = g(rng), y = g(rng), z = g(rng);
            double const n = std::sqrt(x * x + y * y + z * z);
            if (n == 0)
                continue;
            double const r = (kRadius + band(rng)) * kVoxel / n;
            world.push_back(float3{float(x * r), float(y * r), float(z * r)});
        }
        // Lookups go through the hash of each depth and the neighbour table.
        tree.buildAccessorAccelerationStructure(-1);
        tree.precomputeTileNeighbors();
    }
};

template <typename Tr> Input<Tr>& input()
{
    static Input<Tr> in;
    return in;
}

/// Runs @p sampleAll (one pass over all positions, returning a checksum) and records the rate.
template <typename F>
void timed(benchmark::State& state, std::string const& name, F const& sampleAll)
{
    auto const t0 = std::chrono::steady_clock::now();
    for (auto _ : state)
        benchmark::DoNotOptimize(sampleAll());
    double const seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    double const samples = double(kSamples) * double(state.iterations());
    state.counters["samples_per_second"] = benchmark::Counter(samples, benchmark::Counter::kIsRate);
    gRate[name] = samples / seconds;
}

template <typename Tr> void BM_Ours(benchmark::State& state)
{
    auto& in = input<Tr>();
    VoxelSamplerLinear<Tr, float> sampler(in.tree, in.topology, in.distance);
    state.counters["tiles"] = double(in.tree.tileCount(-1));
    state.counters["finest_voxels"] = double(in.finestVoxels);
    timed(state, std::string("ours_") + traitsName<Tr>(), [&] {
        double sum = 0;
        for (float3 const& p : in.world)
            sum += sampler.value(p);
        return sum;
    });
}

#if HEXMOLD_HAVE_OPENVDB
/// The peer's grid: the deepest tiles' voxels, each at its centre in world space.
template <typename Tr> openvdb::FloatGrid::Ptr const& peerGrid()
{
    static openvdb::FloatGrid::Ptr const grid = [] {
        openvdb::initialize();
        auto& in = input<Tr>();
        auto g = openvdb::FloatGrid::create(float(kBand * kVoxel));
        auto transform = openvdb::math::Transform::createLinearTransform(kVoxel);
        transform->postTranslate(openvdb::Vec3d(0.5 * kVoxel)); // index points at voxel centres
        g->setTransform(transform);
        g->setGridClass(openvdb::GRID_LEVEL_SET);
        auto acc = g->getAccessor();
        constexpr int W = Tr::kTileWidth;
        int const d = Tr::kMaxDepth;
        for (std::int64_t t = 0; t < in.tree.tileCount(d); ++t) {
            auto const& tile = in.tree.tile(t, d);
            auto const b = in.distance.tileData(t, d);
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i)
                        acc.setValueOn(openvdb::Coord(tile.ti() + i, tile.tj() + j, tile.tk() + k),
                                       b(i, j, k));
        }
        return g;
    }();
    return grid;
}

template <typename Tr> void BM_OpenVDB(benchmark::State& state)
{
    auto& in = input<Tr>();
    auto const& grid = *peerGrid<Tr>();
    openvdb::tools::GridSampler<openvdb::FloatGrid, openvdb::tools::BoxSampler> sampler(grid);
    state.counters["active_voxels"] = double(grid.activeVoxelCount());
    timed(state, std::string("openvdb_") + traitsName<Tr>(), [&] {
        double sum = 0;
        for (float3 const& p : in.world)
            sum += sampler.wsSample(openvdb::Vec3d(p.x, p.y, p.z));
        return sum;
    });
}

/// The same peer reading through a cached accessor, as OpenVDB's own tools do in loops.
template <typename Tr> void BM_OpenVDBAccessor(benchmark::State& state)
{
    auto& in = input<Tr>();
    auto const& grid = *peerGrid<Tr>();
    auto accessor = grid.getConstAccessor();
    openvdb::tools::GridSampler<openvdb::FloatGrid::ConstAccessor, openvdb::tools::BoxSampler>
        sampler(accessor, grid.transform());
    timed(state, std::string("openvdb_accessor_") + traitsName<Tr>(), [&] {
        double sum = 0;
        for (float3 const& p : in.world)
            sum += sampler.wsSample(openvdb::Vec3d(p.x, p.y, p.z));
        return sum;
    });
}

/// The largest difference between ours and the peer over the first positions: both reconstruct
/// the same finest voxels in the band.
template <typename Tr> double largestDifference()
{
    auto& in = input<Tr>();
    VoxelSamplerLinear<Tr, float> ours(in.tree, in.topology, in.distance);
    openvdb::tools::GridSampler<openvdb::FloatGrid, openvdb::tools::BoxSampler> peer(
        *peerGrid<Tr>());
    double worst = 0;
    for (std::size_t n = 0; n < 100000; ++n) {
        float3 const& p = in.world[n];
        worst = std::max(worst, std::abs(double(ours.value(p)) -
                                         double(peer.wsSample(openvdb::Vec3d(p.x, p.y, p.z)))));
    }
    return worst;
}
#endif

/// Seconds of the fastest of @p rounds passes of @p sampleAll.
template <typename F> double fastestPass(F const& sampleAll, int rounds)
{
    double best = 1e30;
    for (int r = 0; r < rounds; ++r) {
        auto const t0 = std::chrono::steady_clock::now();
        benchmark::DoNotOptimize(sampleAll());
        best = std::min(
            best, std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
    }
    return best;
}

/// Ours and the peer measured in alternation, the fastest pass of each: a ratio that a load
/// changing during the run (a shared machine) does not skew.
template <typename Tr> void interleavedRatio()
{
    auto& in = input<Tr>();
    VoxelSamplerLinear<Tr, float> ours(in.tree, in.topology, in.distance);
    auto const runOurs = [&] {
        double sum = 0;
        for (float3 const& p : in.world)
            sum += ours.value(p);
        return sum;
    };
    double bestOurs = 1e30;
#if HEXMOLD_HAVE_OPENVDB
    openvdb::tools::GridSampler<openvdb::FloatGrid, openvdb::tools::BoxSampler> peer(
        *peerGrid<Tr>());
    auto const runPeer = [&] {
        double sum = 0;
        for (float3 const& p : in.world)
            sum += peer.wsSample(openvdb::Vec3d(p.x, p.y, p.z));
        return sum;
    };
    double bestPeer = 1e30;
#endif
    for (int round = 0; round < 5; ++round) {
        bestOurs = std::min(bestOurs, fastestPass(runOurs, 1));
#if HEXMOLD_HAVE_OPENVDB
        bestPeer = std::min(bestPeer, fastestPass(runPeer, 1));
#endif
    }
    std::printf("  %s, fastest of 5 alternating passes: ours %.2f Msamples/s", traitsName<Tr>(),
                double(kSamples) / bestOurs * 1e-6);
#if HEXMOLD_HAVE_OPENVDB
    std::printf(", OpenVDB %.2f Msamples/s, time ratio ours/OpenVDB %.2f",
                double(kSamples) / bestPeer * 1e-6, bestOurs / bestPeer);
#endif
    std::printf("\n");
}

/// Prints the rates and ratios of the benchmarks that ran before it, and the interleaved ratio.
void BM_Report(benchmark::State& state)
{
    for (auto _ : state) {
    }
    std::printf("\nRandom-position linear sampling of a sphere band (radius %g finest voxels), one "
                "thread:\n",
                kRadius);
    for (char const* tr : {"Traits24", "Traits55"}) {
        double const ours = gRate[std::string("ours_") + tr];
        double const peer = gRate[std::string("openvdb_") + tr];
        double const peerAccessor = gRate[std::string("openvdb_accessor_") + tr];
        if (ours <= 0)
            continue;
        std::printf("  %s: ours %.2f Msamples/s", tr, ours * 1e-6);
        if (peer > 0)
            std::printf(", OpenVDB GridSampler<FloatGrid, BoxSampler> %.2f Msamples/s, time ratio "
                        "ours/OpenVDB %.2f",
                        peer * 1e-6, peer / ours);
        if (peerAccessor > 0)
            std::printf("; through an accessor %.2f Msamples/s, ratio %.2f", peerAccessor * 1e-6,
                        peerAccessor / ours);
        std::printf("\n");
    }
    interleavedRatio<Traits24>();
    interleavedRatio<Traits55>();
#if HEXMOLD_HAVE_OPENVDB
    std::printf("  largest difference ours - OpenVDB over 100000 samples: Traits24 %.3g, Traits55 "
                "%.3g (world units)\n",
                largestDifference<Traits24>(), largestDifference<Traits55>());
#endif
}

} // namespace

BENCHMARK_TEMPLATE(BM_Ours, Traits24)->UseRealTime()->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK_TEMPLATE(BM_Ours, Traits55)->UseRealTime()->Unit(benchmark::kMillisecond)->MinTime(1.0);
#if HEXMOLD_HAVE_OPENVDB
BENCHMARK_TEMPLATE(BM_OpenVDB, Traits24)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->MinTime(1.0);
BENCHMARK_TEMPLATE(BM_OpenVDB, Traits55)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->MinTime(1.0);
BENCHMARK_TEMPLATE(BM_OpenVDBAccessor, Traits24)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->MinTime(1.0);
BENCHMARK_TEMPLATE(BM_OpenVDBAccessor, Traits55)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->MinTime(1.0);
#endif
BENCHMARK(BM_Report)->Iterations(1);

BENCHMARK_MAIN();
