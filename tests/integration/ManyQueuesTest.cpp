// One daemon for everything that a large host backs up.

#include <gmock/gmock.h>
#include <sys/resource.h>

#include "integration/DaemonFixture.h"

using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr unsigned kDescriptorsPerQueue = 2;
constexpr unsigned kOtherDescriptors = 50;

class ManyQueues : public DaemonFixture, public testing::WithParamInterface<unsigned> {
 protected:
  ManyQueues() {
    for (unsigned number = 0; number < GetParam(); ++number) {
      names_.push_back(queue_ + "-" + std::to_string(number));
      removers_.push_back(std::make_unique<korvex::test::QueueRemover>(names_.back()));
    }
  }

  std::unique_ptr<Process> startAll() const {
    std::vector<std::string> command = {KORVEXD_PROGRAM,      "--discard", "--max-messages", "2",
                                        "--max-message-size", "1000"};
    for (const std::string& name : names_) command.insert(command.end(), {"--queue", name});
    auto daemon = std::make_unique<Process>(command);
    EXPECT_TRUE(awaitLog(*daemon, "serving ", GetParam())) << daemon->errors();
    return daemon;
  }

  std::vector<std::string> names_;
  std::vector<std::unique_ptr<korvex::test::QueueRemover>> removers_;
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(On, ManyQueues, testing::Values(256, 1000),
                         testing::PrintToStringParamName());

TEST_P(ManyQueues, EachTakesItsStream) {
  rlimit limit = {};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
  if (limit.rlim_max < GetParam() * kDescriptorsPerQueue + kOtherDescriptors) {
    GTEST_SKIP() << "a process may open only " << limit.rlim_max << " files here";
  }
  const auto daemon = startAll();
  // A page for the batches of a queue, and one for its replies.
  EXPECT_THAT(daemon->errors(),
              HasSubstr("queues: " + std::to_string(GetParam()) + ", needing " +
                        std::to_string((GetParam() * 8 + 1023) / 1024) + " MiB of /dev/shm"));
  std::vector<std::unique_ptr<korvex::ShmWriter>> writers;
  for (const std::string& name : names_) {
    writers.push_back(writer(name));
    writers.back()->open();
  }
  for (const auto& to : writers) {
    write(*to, "abc");
    to->close();
  }
  for (const auto& from : writers) {
    EXPECT_THAT(awaitReply(*from).message, StartsWith("stored bytes=3 "));
  }
  end(*daemon);
}
