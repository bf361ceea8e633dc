// Google Benchmark entry of the substrate benchmarks.
#include <benchmark/benchmark.h>
BENCHMARK_MAIN();
