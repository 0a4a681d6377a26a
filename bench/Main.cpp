// The benchmarks' main: libTavi carries a main of its own, which only an object file wins over.
#include <benchmark/benchmark.h>

BENCHMARK_MAIN();
