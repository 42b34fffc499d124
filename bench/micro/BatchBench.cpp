// Packing records into a batch and taking them out again, beside a plain copy of the same bytes.
#include <cstring>
#include <korvex/ShmBatch.h>
#include <queue>

#include "Fill.h"

namespace {

using namespace bench;
using korvex::qmx_shm_message_t;
using korvex::ShmBatch;

qmx_shm_message_t headerFor(std::size_t recordSize) {
  qmx_shm_message_t header;
  header.type = 1;
  header.len = static_cast<std::uint32_t>(recordSize);
  return header;
}

/// The limit: header and data as one block that is already there.
void plainCopy(benchmark::State& state) {
  const auto recordSize = static_cast<std::size_t>(state.range(0));
  const std::vector<unsigned char> record = recordBytes(recordSize);
  const auto buffer = std::make_unique<unsigned char[]>(kBufferSize);
  unsigned char* place = buffer.get() + kMetaDataSize;
  const auto put = [&] {
    std::memcpy(place, record.data(), record.size());
    place += record.size();
    benchmark::ClobberMemory();
  };
  measureFills(state, recordSize, put, [&] { place = buffer.get() + kMetaDataSize; });
}
BENCHMARK(plainCopy)->Apply(recordSizes);

void batchPushBack(benchmark::State& state) {
  const auto recordSize = static_cast<std::size_t>(state.range(0));
  const std::vector<unsigned char> record = recordBytes(recordSize);
  qmx_shm_message_t header = headerFor(recordSize);
  ShmBatch batch(kBufferSize);
  const auto put = [&] {
    ++header.sequence;
    batch.pushBack(ShmBatch::Entry(header, record.data()));
  };
  measureFills(state, recordSize, put, [&] { batch.clear(); });
}
BENCHMARK(batchPushBack)->Apply(recordSizes);

void fill(ShmBatch& batch, std::size_t recordSize) {
  const std::vector<unsigned char> record = recordBytes(recordSize);
  const ShmBatch::Entry entry(headerFor(recordSize), record.data());
  while (batch.canStore(entry)) batch.pushBack(entry);
}

void countEntries(benchmark::State& state, const ShmBatch& batch) {
  state.SetItemsProcessed(state.iterations() * batch.getNumEntries());
}

/// The library's reader: all entries of a batch as a queue.
void getEntriesFromBuffer(benchmark::State& state) {
  ShmBatch batch(kBufferSize);
  fill(batch, static_cast<std::size_t>(state.range(0)));
  std::queue<ShmBatch::Entry> entries;
  for (auto _ : state) {
    ShmBatch::getEntriesFromBuffer(entries, batch.getRaw(), batch.getRawSize());
    benchmark::DoNotOptimize(entries);
  }
  countEntries(state, batch);
}
BENCHMARK(getEntriesFromBuffer)->ArgName("bytes")->Arg(16)->Arg(100)->Arg(1000)->Arg(4096);

/// The same walk without the queue, header by header.
void walkHeaders(benchmark::State& state) {
  ShmBatch batch(kBufferSize);
  fill(batch, static_cast<std::size_t>(state.range(0)));
  qmx_shm_message_t header;
  for (auto _ : state) {
    const unsigned char* position = batch.getRaw() + kMetaDataSize;
    for (unsigned i = 0; i < batch.getNumEntries(); ++i) {
      position = header.deserializeFromBuffer(position) + header.len;
      benchmark::DoNotOptimize(header);
    }
  }
  countEntries(state, batch);
}
BENCHMARK(walkHeaders)->ArgName("bytes")->Arg(16)->Arg(100)->Arg(1000)->Arg(4096);

}  // namespace
