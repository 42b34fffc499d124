// Our Adler-32 beside zlib's.
#include <benchmark/benchmark.h>
#include <vector>
#include <zlib.h>

#include "support/Adler32.h"

namespace {

std::vector<unsigned char> dataOf(const benchmark::State& state) {
  std::vector<unsigned char> data(static_cast<std::size_t>(state.range(0)));
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 31);
  return data;
}

void dataSizes(benchmark::internal::Benchmark* benchmark) {
  for (const int size : {16, 100, 1000, 4096, 131072}) benchmark->Arg(size);
  benchmark->ArgName("bytes");
}

void adler32Ours(benchmark::State& state) {
  const std::vector<unsigned char> data = dataOf(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(korvex::adler32(data.data(), data.size()));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(adler32Ours)->Apply(dataSizes);

void adler32Zlib(benchmark::State& state) {
  const std::vector<unsigned char> data = dataOf(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(::adler32(1, data.data(), static_cast<uInt>(data.size())));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(adler32Zlib)->Apply(dataSizes);

}  // namespace
