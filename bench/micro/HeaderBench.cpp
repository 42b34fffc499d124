// A record's header, written and read.
#include <benchmark/benchmark.h>
#include <korvex/ShmCommon.h>

namespace {

using korvex::qmx_shm_message_t;

constexpr std::size_t kHeaderSize = 48;

qmx_shm_message_t filledHeader() {
  qmx_shm_message_t header;
  header.type = 1;
  header.len = 1000;
  header.sequence = 123456789;
  header.segmentCount = 42;
  header.algParam1 = 7;
  return header;
}

void headerSerialize(benchmark::State& state) {
  qmx_shm_message_t header = filledHeader();
  unsigned char bytes[kHeaderSize];
  for (auto _ : state) {
    ++header.sequence;
    benchmark::DoNotOptimize(header.serializeToBuffer(bytes));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(headerSerialize);

void headerRead(benchmark::State& state) {
  unsigned char bytes[kHeaderSize];
  filledHeader().serializeToBuffer(bytes);
  qmx_shm_message_t header;
  for (auto _ : state) {
    benchmark::DoNotOptimize(header.deserializeFromBuffer(bytes));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(headerRead);

}  // namespace
