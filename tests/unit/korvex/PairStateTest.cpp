#include <cerrno>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "status/PairState.h"
#include "unit/korvex/Pairs.h"

namespace {

using korvex::tool::PairState;
using korvex::tool::QueueState;
using testing::ElementsAre;
using testing::IsEmpty;
using Condition = korvex::receiver::QueueStatus::Condition;

PairState servedPair() { return korvex::test::pairOf("q", PairState::Service::Served); }

}  // namespace

TEST(PairProblems, NameWhatIsNoQueue) {
  struct Row {
    mode_t mode;
    Condition condition;
    std::string problem;
  };
  const std::string forbidden =
      "cannot be opened by user " + std::to_string(::geteuid()) + ": Permission denied";
  for (const Row& row : {Row{S_IFDIR, Condition::Damaged, "is a folder, not a queue"},
                         Row{S_IFLNK, Condition::Damaged, "is a symbolic link, not a queue"},
                         Row{S_IFIFO, Condition::Damaged, "is a pipe, not a queue"},
                         Row{S_IFSOCK, Condition::Damaged, "is a socket, not a queue"},
                         Row{S_IFCHR, Condition::Damaged, "is a device, not a queue"},
                         Row{S_IFREG, Condition::Unreachable, forbidden},
                         Row{S_IFREG, Condition::Unfinished, "is half made"},
                         Row{S_IFREG, Condition::Damaged, "is damaged, or not a queue"}}) {
    PairState pair = servedPair();
    pair.replies.object.mode = row.mode;
    pair.replies.condition = row.condition;
    pair.replies.systemError = EACCES;
    EXPECT_THAT(pair.problems(), ElementsAre("qResponse " + row.problem));
    pair.batches = pair.replies;
    EXPECT_EQ(pair.problems().size(), 2u);
  }
}

TEST(PairProblems, NameDeadOwnersAndFullQueues) {
  PairState pair = servedPair();
  pair.batches.messages = 9;
  pair.replies.condition = Condition::Busy;
  pair.replies.lockOwner = QueueState::Owner::Unknown;
  EXPECT_THAT(pair.problems(), IsEmpty());
  pair.batches.messages = 10;
  pair.batches.lockOwner = QueueState::Owner::Dead;
  pair.batches.lockedBy.id = 8;
  EXPECT_THAT(pair.problems(), ElementsAre("the lock of q is held by thread 8, which is dead",
                                           "q is full: 10 messages wait"));
}
