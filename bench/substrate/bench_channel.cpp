// Channel allocation for a million tiles, both tree instances (ns per tile).
#include <benchmark/benchmark.h>

#include <chrono>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/channel_pool.h>
#include <hexmold/substrate/topology.h>

using namespace TVL::TileTree3D;

namespace {

constexpr std::int64_t kTiles = 1000000;

/// A topology with a million tiles at the deepest depth (no tree is needed to size channels).
template <typename Tr> VoxelTopology<Tr> const& millionTiles()
{
    static VoxelTopology<Tr> const topology = [] {
        VoxelTopology<Tr> t("topology", "tree", 1.0f);
        t.setTileCount(Tr::kMaxDepth, kTiles);
        return t;
    }();
    return topology;
}

/// A new float voxel channel of initialiser 2, sized for a million tiles; its destruction is
/// left out of the time.
template <typename Tr> void ChannelAllocateDefault(benchmark::State& state)
{
    auto const& topology = millionTiles<Tr>();
    float const value = 1.0f;
    double total = 0.0;
    for (auto _ : state) {
        auto start = std::chrono::steady_clock::now();
        auto* c = new VoxelChannel<Tr, float>(
            "density", &value, kDataElementInitializerDefaultValue, false, true, 0, Tr::kMaxDepth);
        c->update(topology);
        benchmark::DoNotOptimize(c->block(kTiles - 1, Tr::kMaxDepth));
        double const seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        state.SetIterationTime(seconds);
        total += seconds;
        delete c;
    }
    state.counters["ns_per_tile"] = total * 1e9 / (double(kTiles) * double(state.iterations()));
}

/// A temporary of initialiser 0 without construction (raw blocks), fresh memory each time.
template <typename Tr> void ChannelAllocateRaw(benchmark::State& state)
{
    auto const& topology = millionTiles<Tr>();
    double total = 0.0;
    for (auto _ : state) {
        auto start = std::chrono::steady_clock::now();
        auto* c = new VoxelChannel<Tr, float>("", nullptr, kDataElementInitializerTemporary, false,
                                              false, 0, Tr::kMaxDepth);
        c->update(topology);
        benchmark::DoNotOptimize(c->block(kTiles - 1, Tr::kMaxDepth));
        double const seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        state.SetIterationTime(seconds);
        total += seconds;
        delete c;
    }
    state.counters["ns_per_tile"] = total * 1e9 / (double(kTiles) * double(state.iterations()));
}

/// The same temporary drawn from the channel pool: after the first run its blocks are reused.
template <typename Tr> void ChannelAllocatePooled(benchmark::State& state)
{
    auto const& topology = millionTiles<Tr>();
    std::size_t const capacity = ChannelMemoryPool::capacity();
    ChannelMemoryPool::setCapacity(std::size_t(4) << 30);
    {
        auto warm = ChannelPool::allocate<Tr, float, Tr::kTileWidth, 0>(
            0.0f, false, false, 0, Tr::kMaxDepth, kTiles, &topology);
    }
    double total = 0.0;
    for (auto _ : state) {
        auto start = std::chrono::steady_clock::now();
        auto c = ChannelPool::allocate<Tr, float, Tr::kTileWidth, 0>(
            0.0f, false, false, 0, Tr::kMaxDepth, kTiles, &topology);
        benchmark::DoNotOptimize(c->block(kTiles - 1, Tr::kMaxDepth));
        double const seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        state.SetIterationTime(seconds);
        total += seconds;
        c.reset();
    }
    state.counters["ns_per_tile"] = total * 1e9 / (double(kTiles) * double(state.iterations()));
    ChannelMemoryPool::clear();
    ChannelMemoryPool::setCapacity(capacity);
}

} // namespace

BENCHMARK_TEMPLATE(ChannelAllocateDefault, Traits24)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(ChannelAllocateDefault, Traits55)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(ChannelAllocateRaw, Traits24)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(ChannelAllocateRaw, Traits55)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(ChannelAllocatePooled, Traits24)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(ChannelAllocatePooled, Traits55)->UseManualTime()->Unit(benchmark::kMillisecond);
