#ifndef BENCH_MICRO_FILL_H
#define BENCH_MICRO_FILL_H

#include <benchmark/benchmark.h>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

/// What every measurement of packing shares, so that their figures can be held beside each other:
/// the record sizes, the buffer, and how the buffer is filled again and again.
namespace bench {

constexpr std::size_t kHeaderSize = 48;
constexpr std::size_t kMetaDataSize = 8;
constexpr std::size_t kBufferSize = 256 * 1024;

/// The record sizes, 16 bytes to 128 KiB.
inline void recordSizes(benchmark::internal::Benchmark* benchmark) {
  for (const int size : {16, 100, 1000, 4096, 65536, 131072}) benchmark->Arg(size);
  benchmark->ArgName("bytes")->UseManualTime();
}

inline std::size_t recordsPerFill(std::size_t recordSize) {
  return (kBufferSize - kMetaDataSize) / (kHeaderSize + recordSize);
}

/// Bytes of a header and data, not all alike.
inline std::vector<unsigned char> recordBytes(std::size_t recordSize) {
  std::vector<unsigned char> bytes(kHeaderSize + recordSize);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i * 31);
  return bytes;
}

/// Measures `put`, called as often as records fit into the buffer. `restart` empties the buffer and
/// is not measured.
template <typename Put, typename Restart>
void measureFills(benchmark::State& state, std::size_t recordSize, Put put, Restart restart) {
  using Clock = std::chrono::steady_clock;
  const std::size_t records = recordsPerFill(recordSize);
  for (auto _ : state) {
    const auto start = Clock::now();
    for (std::size_t i = 0; i < records; ++i) put();
    const std::chrono::duration<double> taken = Clock::now() - start;
    state.SetIterationTime(taken.count());
    restart();
  }
  const auto total = state.iterations() * static_cast<std::int64_t>(records);
  state.SetItemsProcessed(total);
  state.SetBytesProcessed(total * static_cast<std::int64_t>(kHeaderSize + recordSize));
}

}  // namespace bench

#endif
