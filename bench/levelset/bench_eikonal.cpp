// Throughput of the eikonal update: the exported isotropic and anisotropic forms and the form
// the tile sweeps inline.
#include <hexmold/levelset/detail/eikonal_inline.h>
#include <hexmold/levelset/eikonal.h>

#include <benchmark/benchmark.h>

#include <cfloat>
#include <random>
#include <vector>

namespace {

/// Neighbour values around a surface, a mix of one-, two- and three-neighbour solutions, on
/// both sides; built once, outside the timed loops.
struct Inputs {
    std::vector<float> a, b, c, v;
};

constexpr int kInputCount = 4096;
constexpr float kSpacing = 0.25f;

Inputs const& inputs()
{
    static Inputs const data = [] {
        Inputs in;
        std::mt19937 rng(1);
        std::uniform_real_distribution<float> base(0.0f, 10.0f);
        std::uniform_real_distribution<float> offset(0.0f, 2.0f * kSpacing);
        for (int n = 0; n < kInputCount; ++n) {
            float const sign = n % 2 ? -1.0f : 1.0f;
            float const s = base(rng);
            in.a.push_back(sign * s);
            in.b.push_back(sign * (s + offset(rng)));
            in.c.push_back(sign * (s + (n % 3 ? offset(rng) : 8.0f)));
            in.v.push_back(sign * FLT_MAX);
        }
        return in;
    }();
    return data;
}

void setRate(benchmark::State& state)
{
    state.counters["updates"] =
        benchmark::Counter(double(state.iterations()) * kInputCount, benchmark::Counter::kIsRate);
}

void BM_SolveEikonalIsotropic(benchmark::State& state)
{
    Inputs const& in = inputs();
    for (auto _ : state) {
        for (int n = 0; n < kInputCount; ++n)
            benchmark::DoNotOptimize(
                CoreGL::solveEikonal(kSpacing, in.a[n], in.b[n], in.c[n], in.v[n]));
    }
    setRate(state);
}

void BM_SolveEikonalAnisotropic(benchmark::State& state)
{
    Inputs const& in = inputs();
    float const hy = 0.5f * kSpacing, hz = 1.5f * kSpacing;
    for (auto _ : state) {
        for (int n = 0; n < kInputCount; ++n)
            benchmark::DoNotOptimize(
                CoreGL::solveEikonal(kSpacing, hy, hz, in.a[n], in.b[n], in.c[n], in.v[n]));
    }
    setRate(state);
}

void BM_SolveEikonalInline(benchmark::State& state)
{
    Inputs const& in = inputs();
    float const twoHSquared = CoreGL::detail::eikonalTwoHSquared(kSpacing);
    float const threeHSquared = CoreGL::detail::eikonalThreeHSquared(kSpacing);
    for (auto _ : state) {
        for (int n = 0; n < kInputCount; ++n) {
            // As the sweep calls it: on the positive side, the sign restored afterwards.
            float const sign = 0.0f > in.v[n] ? -1.0f : 1.0f;
            float const magnitude = CoreGL::detail::solveEikonalInline(
                kSpacing, twoHSquared, threeHSquared, sign * in.a[n], sign * in.b[n],
                sign * in.c[n], in.v[n]);
            benchmark::DoNotOptimize(sign * magnitude);
        }
    }
    setRate(state);
}

} // namespace

BENCHMARK(BM_SolveEikonalIsotropic);
BENCHMARK(BM_SolveEikonalAnisotropic);
BENCHMARK(BM_SolveEikonalInline);

BENCHMARK_MAIN();
