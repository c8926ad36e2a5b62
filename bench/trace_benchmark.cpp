// What a trace statement costs while there is no trace library: one test of a flag, under 2 ns.

#include "link/clock/Trel_Trace.h"

#include <benchmark/benchmark.h>

#include <cstdint>

namespace {

void TraceStatementWhileOff(benchmark::State& state) {
  std::int32_t number = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(number);
    Trel_Trace::Line("a line with %d", number);
  }
}
BENCHMARK(TraceStatementWhileOff);

} // namespace
