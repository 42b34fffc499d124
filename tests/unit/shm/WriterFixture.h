#ifndef TESTS_UNIT_WRITER_FIXTURE_H
#define TESTS_UNIT_WRITER_FIXTURE_H

#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <queue>
#include <sstream>
#include <string>
#include <vector>

#include "korvex/ShmWriter.h"
#include "support/Bytes.h"
#include "support/DaemonQueues.h"
#include "support/PlatformDouble.h"
#include "support/ThrownError.h"

/// What the writer's tests have in common: a writer over queues of the queue library's own making,
/// and the headers that it sends as short texts.
namespace korvex::test {

constexpr unsigned kTimeout = 60;
constexpr unsigned kStopTimeout = 30;

// As a timeout it is -1: a deadline in the past, so that a full queue is reported at once.
constexpr unsigned kPastDeadline = 4294967295U;

inline korvex::qmx_shm_message_t headerOf(std::uint32_t type, std::uint32_t len) {
  korvex::qmx_shm_message_t header;
  header.type = type;
  header.len = len;
  return header;
}

/// The printed form of each header in a batch: short, and every field shows.
inline std::vector<std::string> headersOf(const Bytes& batch) {
  std::queue<korvex::ShmBatch::Entry> entries;
  korvex::ShmBatch::getEntriesFromBuffer(entries, batch.data(), batch.size());
  std::vector<std::string> headers;
  for (; !entries.empty(); entries.pop()) {
    std::ostringstream text;
    text << entries.front().header;
    headers.push_back(text.str());
  }
  return headers;
}

inline void expectError(ov_status_t status, const std::string& message,
                        const std::function<void()>& call) {
  EXPECT_EQ(thrownBy(call), (ThrownError{status, message}));
}

class Writer : public testing::Test {
 protected:
  Writer() { korvex::test::platform_double::reset(); }
  ~Writer() override { korvex::test::platform_double::reset(); }

  korvex::ShmWriter& writer() { return *writer_; }
  void connect(korvex::test::DaemonQueues& queues, const std::string& name = "stream",
               bool benchmark = false) {
    writer_ =
        std::make_unique<korvex::ShmWriter>(name, queues.name(), kTimeout, kStopTimeout, benchmark);
  }

  /// An open writer whose open record has been taken away.
  void openOn(korvex::test::DaemonQueues& queues) {
    connect(queues);
    writer().open();
    queues.takeBatch();
  }

  /// What waits in the batch, as one message's headers.
  std::vector<std::string> flushedHeaders(korvex::test::DaemonQueues& queues) {
    writer().flush_shm_buffer(kTimeout);
    return headersOf(queues.takeBatch());
  }

  void destroyWriter() { writer_.reset(); }

  const Bytes data_ = Bytes(200000, 'x');

 private:
  std::unique_ptr<korvex::ShmWriter> writer_;
};

}  // namespace korvex::test

#endif
