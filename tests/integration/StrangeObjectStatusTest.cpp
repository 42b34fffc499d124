// `korvex status` and `korvex clean` meet everything that may lie under a queue's name.

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "integration/StrangeObjects.h"
#include "integration/ToolRun.h"
#include "support/Child.h"
#include "support/DaemonQueues.h"
#include "support/SharedObject.h"

namespace {

using korvex::test::ToolRun;
using korvex::test::strange::Holder;
using korvex::test::strange::Kind;
using testing::HasSubstr;

class StrangeObjectForStatus : public testing::TestWithParam<Kind> {
 protected:
  void SetUp() override {
    const std::string obstacle = GetParam().obstacle();
    if (!obstacle.empty()) GTEST_SKIP() << obstacle;
    if (run({"--version"}).code != 0) GTEST_SKIP() << "the other user may not run the tool";
  }

  static ToolRun run(const std::vector<std::string>& arguments) {
    std::vector<std::string> words;
    if (GetParam().actor == korvex::test::strange::Actor::Unprivileged && korvex::test::isRoot()) {
      const std::string user = std::to_string(korvex::test::kNobody);
      words = {"/usr/bin/setpriv", "--reuid=" + user, "--regid=" + user, "--clear-groups"};
    }
    words.push_back(KORVEX_PROGRAM);
    words.insert(words.end(), arguments.begin(), arguments.end());
    return korvex::test::runProgram(words);
  }

  static bool isThere(const std::string& place) {
    struct stat found = {};
    return ::lstat(("/dev/shm/" + place).c_str(), &found) == 0;
  }

  /// The bytes of a file that is not too large to be looked at; else nothing.
  static Bytes bytesOf(const std::string& place) {
    struct stat found = {};
    const std::string path = "/dev/shm/" + place;
    const bool isFile = ::lstat(path.c_str(), &found) == 0 && S_ISREG(found.st_mode);
    return isFile && found.st_size < 100000 ? korvex::test::bytesOfFile(path) : Bytes();
  }

  void expectStatus(const std::string& place) const {
    const Holder object = GetParam().place(place);
    const bool wasThere = isThere(place);
    const Bytes before = bytesOf(place);
    const ToolRun found = run({"status", "--json", "--queue", name_});
    EXPECT_EQ(found.code, wasThere ? 0 : 1) << found.errors;
    EXPECT_EQ(found.json()["queues"].size(), wasThere ? 1u : 0u);
    EXPECT_EQ(run({"status", "--queue", name_}).code, wasThere ? 0 : 1);
    const ToolRun all = run({"status", "--json"});
    EXPECT_EQ(all.code, 0) << all.errors;
    EXPECT_FALSE(all.json().is_null());
    EXPECT_EQ(bytesOf(place), before) << "not even the lock may be touched";
  }

  /// Removes what a daemon would replace, and refuses what it would refuse.
  void expectCleaning(const std::string& place) const {
    const Holder object = GetParam().place(place);
    if (!isThere(place)) return;
    const bool mayGo = GetParam().keepsDaemonOut.empty();
    const ToolRun found = run({"clean", "--yes", "--queue", name_});
    EXPECT_EQ(found.code, mayGo ? 0 : 1) << found.output << found.errors;
    EXPECT_EQ(isThere(place), !mayGo);
    EXPECT_THAT(found.output + found.errors, HasSubstr(mayGo ? "removed " + name_ : name_));
  }

  const std::string name_ = korvex::test::uniqueQueueName("strange");
  const std::string responseName_ = name_ + "Response";
};

}  // namespace

TEST_P(StrangeObjectForStatus, IsShownAndLeftAsItIs) {
  expectStatus(name_);
  expectStatus(responseName_);
}

TEST_P(StrangeObjectForStatus, IsCleanedOnlyWhenLeftByADaemon) {
  expectCleaning(name_);
  expectCleaning(responseName_);
}

INSTANTIATE_TEST_SUITE_P(Kinds, StrangeObjectForStatus,
                         testing::ValuesIn(korvex::test::strange::kinds()),
                         [](const auto& kind) { return std::string(kind.param.name); });
