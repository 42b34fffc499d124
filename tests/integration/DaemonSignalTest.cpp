// Signals that end a program which does not expect them, and that a daemon must live with.

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <unistd.h>

#include "integration/DaemonFixture.h"

using korvex::test::eventually;
using testing::HasSubstr;
using testing::SizeIs;

namespace {

constexpr rlim_t kLargestFile = 100000;

class DaemonSignal : public DaemonFixture {
 protected:
  /// A daemon whose log goes into a pipe that nobody reads any more.
  std::unique_ptr<Process> startWithoutReader() const {
    int ends[2];
    EXPECT_EQ(::pipe(ends), 0);
    ::close(ends[0]);
    auto daemon = std::make_unique<Process>(
        std::vector<std::string>{"/bin/sh", "-c", "exec \"$@\" 2>&" + std::to_string(ends[1]), "sh",
                                 KORVEXD_PROGRAM, "--queue", queue_, "--output", output_});
    ::close(ends[1]);
    EXPECT_TRUE(eventually([this] { return korvex::test::queueExists(queue_); }));
    return daemon;
  }

  /// Streams so many bytes. What the producer hears.
  std::string outcomeOf(std::size_t size) const {
    const auto to = writer();
    try {
      to->open();
      write(*to, std::string(size, 'x'));
      to->close();
      return awaitReply(*to).message;
    } catch (const Ov_ErrnoException& error) {
      return error.getMessage();
    }
  }
};

}  // namespace

TEST_F(DaemonSignal, OfALogWithoutReaderCostsNoStream) {
  const auto daemon = startWithoutReader();
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(stream("abc"), "stored bytes=3 xxh128=06b05ab6733a618578af5f94892f3950");
  }
  EXPECT_THAT(streams(false), SizeIs(3));
  end(*daemon);
}

TEST_F(DaemonSignal, OfAFileSizeLimitCostsOnlyThatStream) {
  const auto daemon = start();
  const rlimit limit = {kLargestFile, kLargestFile};
  ASSERT_EQ(::prlimit(daemon->id(), RLIMIT_FSIZE, &limit, nullptr), 0);
  EXPECT_THAT(outcomeOf(kLargestFile + 1), HasSubstr("error 27 (File too large)"));
  EXPECT_THAT(outcomeOf(kLargestFile), HasSubstr("stored bytes=100000 "));
  end(*daemon);
}

// Only a fault of its own queues is the daemon's to survive; who sends the signal means the
// process.
TEST_F(DaemonSignal, ThatSomebodySendsForAFaultEndsIt) {
  const auto daemon = start();
  daemon->signal(SIGBUS);
  EXPECT_EQ(daemon->wait(), -SIGBUS);
}
