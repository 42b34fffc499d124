// The writer's operations per record, tracing off and on, beside a plain copy of the same bytes
// under the same conditions.
#include <cstring>
#include <fcntl.h>
#include <korvex/ShmWriter.h>
#include <qmx/trace.h>
#include <unistd.h>

#include "Drain.h"
#include "Fill.h"

namespace {

using namespace bench;
using korvex::ShmWriter;

constexpr unsigned kTimeout = 10;

/// An open writer whose batches are sent and taken between the measured fills.
class DrainedWriter {
 public:
  DrainedWriter() : queues_(kBufferSize), writer_("micro", queues_.name(), kTimeout, 0, false) {
    writer_.open();
    queues_.takeMessage();
  }
  ~DrainedWriter() { writer_.close(); }

  ShmWriter& writer() { return writer_; }

  void restart() {
    writer_.flush_shm_buffer(kTimeout);
    queues_.takeMessage();
  }

 private:
  DrainedQueues queues_;
  ShmWriter writer_;
};

/// Trace lines on, and where the platform writes them, standard error, to nowhere.
class Tracing {
 public:
  Tracing() : standardError_(::dup(STDERR_FILENO)) {
    const int nowhere = ::open("/dev/null", O_WRONLY);
    ::dup2(nowhere, STDERR_FILENO);
    ::close(nowhere);
    *__qmxlog_trace_location() = 1;
  }
  ~Tracing() {
    *__qmxlog_trace_location() = 0;
    ::dup2(standardError_, STDERR_FILENO);
    ::close(standardError_);
  }
  Tracing(const Tracing&) = delete;
  Tracing& operator=(const Tracing&) = delete;

 private:
  int standardError_;
};

/// The limit for the writer: a copy into a buffer that is then sent and taken, as its batch is.
void plainCopySent(benchmark::State& state) {
  const auto recordSize = static_cast<std::size_t>(state.range(0));
  const std::vector<unsigned char> record = recordBytes(recordSize);
  const auto buffer = std::make_unique<unsigned char[]>(kBufferSize);
  DrainedQueues queues(kBufferSize);
  unsigned char* place = buffer.get() + kMetaDataSize;
  const auto put = [&] {
    std::memcpy(place, record.data(), record.size());
    place += record.size();
    benchmark::ClobberMemory();
  };
  const auto restart = [&] {
    queues.queue().trySend(buffer.get(), static_cast<std::size_t>(place - buffer.get()), 1);
    queues.takeMessage();
    place = buffer.get() + kMetaDataSize;
  };
  measureFills(state, recordSize, put, restart);
}
BENCHMARK(plainCopySent)->Apply(recordSizes);

void measureWriteSegment(benchmark::State& state) {
  const auto recordSize = static_cast<std::size_t>(state.range(0));
  const std::vector<unsigned char> record = recordBytes(recordSize);
  DrainedWriter drained;
  korvex::ChannelWriter& writer = drained.writer();
  measureFills(
      state, recordSize, [&] { writer.writeSegment(record.data(), recordSize); },
      [&] { drained.restart(); });
}

void writeSegment(benchmark::State& state) { measureWriteSegment(state); }
BENCHMARK(writeSegment)->Apply(recordSizes);

void writeSegmentTraced(benchmark::State& state) {
  const Tracing tracing;
  measureWriteSegment(state);
}
BENCHMARK(writeSegmentTraced)->ArgName("bytes")->Arg(16)->Arg(1000)->UseManualTime();

void writeData(benchmark::State& state) {
  const auto recordSize = static_cast<std::size_t>(state.range(0));
  const std::vector<unsigned char> record = recordBytes(recordSize);
  DrainedWriter drained;
  korvex::qmx_shm_message_t header;
  header.type = 1;
  header.len = static_cast<std::uint32_t>(recordSize);
  const auto put = [&] {
    ++header.sequence;
    drained.writer().write_data(&header, record.data(), kTimeout, false);
  };
  measureFills(state, recordSize, put, [&] { drained.restart(); });
}
BENCHMARK(writeData)->Apply(recordSizes);

}  // namespace
