// A flush, beside a bare send and receive of the same message.
#include <chrono>
#include <korvex/ShmWriter.h>
#include <vector>

#include "Drain.h"
#include "Fill.h"

namespace {

using namespace bench;
using Clock = std::chrono::steady_clock;

constexpr unsigned kTimeout = 10;
constexpr std::size_t kSmallestFilled = kMetaDataSize + kHeaderSize;

void messageSizes(benchmark::internal::Benchmark* benchmark) {
  for (const int size : {4096, 65536, 262144}) benchmark->Arg(size);
  benchmark->ArgName("bytes")->UseManualTime();
}

template <typename Operation>
void measure(benchmark::State& state, Operation operation) {
  const auto start = Clock::now();
  operation();
  const std::chrono::duration<double> taken = Clock::now() - start;
  state.SetIterationTime(taken.count());
}

void bareSendAndReceive(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  const std::vector<unsigned char> message(size, 1);
  DrainedQueues queues(size);
  for (auto _ : state) {
    measure(state, [&] {
      queues.queue().trySend(message.data(), size, 1);
      queues.takeMessage();
    });
  }
}
BENCHMARK(bareSendAndReceive)->Apply(messageSizes);

/// A batch of exactly the message's size, filled with one record outside the measured time.
void flushAndReceive(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  DrainedQueues queues(size);
  korvex::ShmWriter writer("micro", queues.name(), kTimeout, 0, false);
  korvex::qmx_shm_message_t header;
  header.segState = KORVEX_SEG_STATE_UNLIMITED;
  header.len = static_cast<std::uint32_t>(size - kSmallestFilled);
  const std::vector<unsigned char> data(size, 1);
  for (auto _ : state) {
    writer.write_data(&header, data.data(), kTimeout, false);
    measure(state, [&] {
      writer.flush_shm_buffer(kTimeout);
      queues.takeMessage();
    });
  }
}
BENCHMARK(flushAndReceive)->Apply(messageSizes);

}  // namespace
