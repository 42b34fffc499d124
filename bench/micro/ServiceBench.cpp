// Identifiers and the logger.
#include <benchmark/benchmark.h>
#include <korvex/Logger.h>
#include <korvex/UniqueIdGenerator.h>
#include <string>

namespace {

void generateId(benchmark::State& state) {
  const std::string prefix = "job";
  for (auto _ : state) {
    benchmark::DoNotOptimize(korvex::UniqueIdGenerator::getInstance()->generateId(prefix));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(generateId)->Threads(1)->Threads(2)->UseRealTime();

void disabledLogTrace(benchmark::State& state) {
  korvex::server::Logger logger("bench");
  for (auto _ : state) {
    logger.logTrace("disabledLogTrace", "value=%d", 7);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(disabledLogTrace);

}  // namespace
