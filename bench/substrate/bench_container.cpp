// Tile tree: accessor lookups (cache hit, random), concurrent addTile, refine, removeTiles.
#include <benchmark/benchmark.h>

#include <cmath>
#include <hexmold/substrate/container.h>
#include <map>
#include <memory>
#include <random>
#include <thread>
#include <vector>

using namespace TVL::TileTree3D;

namespace {

/// About @p n finest tiles in a shell (a sphere band), as level-set trees hold them.
template <typename Tr> Container<Tr> const& shellTree(std::int64_t n)
{
    static std::map<std::int64_t, std::unique_ptr<Container<Tr>>> cache;
    auto& slot = cache[n];
    if (slot)
        return *slot;
    slot = std::make_unique<Container<Tr>>("bench", 1.0f);
    int const d = Tr::kMaxDepth;
    std::int64_t const w = Tr::tileVoxelWidth(d);
    // A band of one tile around a sphere of radius R tiles has ~4 pi R^2 tiles.
    double const r = std::sqrt(double(n) / (4.0 * 3.14159265358979));
    auto acc = slot->tileAccessor();
    int const R = int(std::ceil(r)) + 1;
    for (int k = -R; k <= R; ++k)
        for (int j = -R; j <= R; ++j)
            for (int i = -R; i <= R; ++i) {
                double const dist = std::sqrt(double(i) * i + double(j) * j + double(k) * k);
                if (std::abs(dist - r) < 0.5)
                    acc.addTile(i * w, j * w, k * w, d);
            }
    slot->sortIntoMortonOrder();
    return *slot;
}

template <typename Tr>
std::vector<std::array<std::int64_t, 3>> randomPoints(Container<Tr> const& c, std::size_t n)
{
    int const d = Tr::kMaxDepth;
    std::mt19937_64 rng(1);
    std::uniform_int_distribution<std::int64_t> pick(0, c.tileCount(d) - 1);
    std::uniform_int_distribution<std::int64_t> off(0, Tr::tileVoxelWidth(d) - 1);
    std::vector<std::array<std::int64_t, 3>> pts(n);
    for (auto& p : pts) {
        auto const& t = c.tile(pick(rng), d);
        p = {t.ti() + off(rng), t.tj() + off(rng), t.tk() + off(rng)};
    }
    return pts;
}

template <typename Tr> void BM_LookupCacheHit(benchmark::State& state)
{
    auto const& c = shellTree<Tr>(1 << 20);
    auto acc = c.tileAccessor();
    auto const& t = c.tile(c.tileCount(Tr::kMaxDepth) / 2, Tr::kMaxDepth);
    std::int64_t i = t.ti(), j = t.tj(), k = t.tk();
    std::int64_t const w = t.tileVoxelWidth();
    acc.tile(i, j, k, Tr::kMaxDepth);
    std::int64_t n = 0;
    for (auto _ : state) {
        for (std::int64_t q = 0; q < 1024; ++q) {
            auto const& r = acc.tile(i + (q & 3), j, k, Tr::kMaxDepth);
            benchmark::DoNotOptimize(&r);
        }
        n += 1024;
    }
    state.counters["ns_per_lookup"] =
        benchmark::Counter(double(n), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["tiles"] = double(c.tileCount(-1));
}

template <typename Tr> void BM_LookupRandom(benchmark::State& state)
{
    auto& c = const_cast<Container<Tr>&>(shellTree<Tr>(1 << 20));
    bool const accel = state.range(0) != 0;
    if (accel)
        c.buildAccessorAccelerationStructure(-1);
    else
        c.clearAccessorAccelerationStructure();
    auto const pts = randomPoints(c, 1 << 20);
    auto acc = std::as_const(c).tileAccessor();
    std::size_t q = 0;
    std::int64_t n = 0;
    for (auto _ : state) {
        for (int r = 0; r < 1024; ++r) {
            auto const& p = pts[q++ & (pts.size() - 1)];
            auto const& t = acc.tile(p[0], p[1], p[2], Tr::kMaxDepth);
            benchmark::DoNotOptimize(&t);
        }
        n += 1024;
    }
    state.counters["ns_per_lookup"] =
        benchmark::Counter(double(n), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["tiles"] = double(c.tileCount(-1));
}

template <typename Tr> void BM_AddTileTwoThreads(benchmark::State& state)
{
    auto const& src = shellTree<Tr>(1 << 20);
    int const d = Tr::kMaxDepth;
    std::vector<std::array<std::int64_t, 3>> corners;
    for (std::int64_t t = 0; t < src.tileCount(d); ++t)
        corners.push_back({src.tile(t, d).ti(), src.tile(t, d).tj(), src.tile(t, d).tk()});
    for (auto _ : state) {
        Container<Tr> real("bench", 1.0f);
        Container<Tr>* scratch = real.threadLocalContainer(0);
        std::thread a([&] {
            auto acc = scratch->tileAccessor();
            for (std::size_t q = 0; q < corners.size(); q += 2)
                acc.addTile(corners[q][0], corners[q][1], corners[q][2], d);
        });
        std::thread b([&] {
            auto acc = scratch->tileAccessor();
            for (std::size_t q = 1; q < corners.size(); q += 2)
                acc.addTile(corners[q][0], corners[q][1], corners[q][2], d);
        });
        a.join();
        b.join();
        benchmark::DoNotOptimize(scratch->tileCount(-1));
    }
    state.counters["ns_per_tile"] =
        benchmark::Counter(double(corners.size()) * state.iterations(),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

template <typename Tr> void BM_Refine(benchmark::State& state)
{
    auto const& src = shellTree<Tr>(1 << 20);
    for (auto _ : state) {
        Container<Tr> real("bench", 1.0f);
        TileCornerLists<Tr> created;
        real.refine(src, &created, true);
        benchmark::DoNotOptimize(real.tileCount(-1));
    }
    state.counters["ns_per_tile"] =
        benchmark::Counter(double(src.tileCount(-1)) * state.iterations(),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

template <typename Tr> void BM_RemoveHalf(benchmark::State& state)
{
    auto const& src = shellTree<Tr>(1 << 20);
    int const d = Tr::kMaxDepth;
    TileIndexLists<Tr> rm;
    for (std::int64_t t = 0; t < src.tileCount(d); t += 2)
        rm[d].push_back(t);
    for (auto _ : state) {
        state.PauseTiming();
        Container<Tr> c(src);
        TileMoveLists<Tr> moved;
        state.ResumeTiming();
        c.removeTiles(rm, moved, true);
        benchmark::DoNotOptimize(moved[d].size());
    }
    state.counters["ns_per_removed_tile"] =
        benchmark::Counter(double(rm[d].size()) * state.iterations(),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

} // namespace

BENCHMARK_TEMPLATE(BM_LookupCacheHit, Traits24)->UseRealTime();
BENCHMARK_TEMPLATE(BM_LookupCacheHit, Traits55)->UseRealTime();
BENCHMARK_TEMPLATE(BM_LookupRandom, Traits24)->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK_TEMPLATE(BM_LookupRandom, Traits55)->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK_TEMPLATE(BM_AddTileTwoThreads, Traits24)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_AddTileTwoThreads, Traits55)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_Refine, Traits24)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_Refine, Traits55)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_RemoveHalf, Traits24)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_RemoveHalf, Traits55)->UseRealTime()->Unit(benchmark::kMillisecond);
