#include <gmock/gmock.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "korvex/receiver/SystemError.h"
#include "korvexd/exec/Descendants.h"
#include "support/FewDescriptors.h"

using korvexd::childrenOfThisProcess;
using testing::Contains;
using testing::Not;

namespace {

std::string failureToFindChildren() {
  try {
    childrenOfThisProcess();
    return "";
  } catch (const korvex::receiver::SystemError& error) {
    return error.what();
  }
}

}  // namespace

TEST(Descendants, AreFoundByTheirParentWhateverTheirName) {
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    ::prctl(PR_SET_NAME, ") Z 1 (");
    while (::write(ready[1], "x", 1) == 1) ::pause();
    ::_exit(1);
  }
  char byte = 0;
  EXPECT_EQ(::read(ready[0], &byte, 1), 1);
  EXPECT_THAT(childrenOfThisProcess(), Contains(child));
  ::kill(child, SIGKILL);
  EXPECT_EQ(::waitpid(child, nullptr, 0), child);
  EXPECT_THAT(childrenOfThisProcess(), Not(Contains(child)));
  for (const int end : ready) ::close(end);
}

// A keeper that took its engine for gone would leave it alive.
TEST(Descendants, AreNotTakenForGoneForWantOfDescriptors) {
  const korvex::test::FewDescriptors one(1);  // for the list of processes
  EXPECT_THAT(failureToFindChildren(),
              testing::MatchesRegex("reading /proc/[0-9]+/stat: error 24 .Too many open files."));
}
