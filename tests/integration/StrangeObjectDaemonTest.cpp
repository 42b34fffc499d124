#include <chrono>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <signal.h>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "integration/StrangeObjects.h"
#include "integration/WriterStory.h"
#include "support/Child.h"
#include "support/Late.h"
#include "support/Process.h"
#include "support/Queues.h"

using korvex::test::Process;
using korvex::test::strange::Holder;
using korvex::test::strange::Kind;
using testing::HasSubstr;

namespace {

/// How long a daemon may take to refuse an object: that it starts is most of it.
constexpr auto kRefusalTime = std::chrono::seconds(1) + korvex::test::kSlack;

/// How a daemon ended; without a code when it did not in time.
struct End {
  std::optional<int> code;
  std::string errors;

  bool isLate() const { return !code; }
};

End endOf(const std::vector<std::string>& command) {
  Process daemon(command);
  const auto code = daemon.wait(kRefusalTime);
  return {code, daemon.errors()};
}

/// The inode of what lies under a name, a link itself too; 0 when nothing does.
ino_t inodeOf(const std::string& name) {
  struct stat found = {};
  return ::lstat(("/dev/shm/" + name).c_str(), &found) == 0 ? found.st_ino : 0;
}

std::string replaced(std::string text, const std::string& what, const std::string& by) {
  const auto at = text.find(what);
  return at == std::string::npos ? text : text.replace(at, what.size(), by);
}

class StrangeObjectForDaemon : public testing::TestWithParam<Kind> {
 protected:
  void SetUp() override {
    const std::string obstacle = GetParam().obstacle();
    if (!obstacle.empty()) GTEST_SKIP() << obstacle;
    Process trial(command({"--version"}));
    if (trial.wait() != 0) GTEST_SKIP() << "the other user may not run " << KORVEXD_PROGRAM;
  }

  static std::vector<std::string> command(const std::vector<std::string>& arguments) {
    std::vector<std::string> words;
    if (GetParam().actor == korvex::test::strange::Actor::Unprivileged && korvex::test::isRoot()) {
      const std::string user = std::to_string(korvex::test::kNobody);
      words = {"/usr/bin/setpriv", "--reuid=" + user, "--regid=" + user, "--clear-groups"};
    }
    words.push_back(KORVEXD_PROGRAM);
    words.insert(words.end(), arguments.begin(), arguments.end());
    return words;
  }

  std::vector<std::string> serving(const std::vector<std::string>& more = {}) const {
    std::vector<std::string> arguments = {"--queue", name_, "--discard"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return command(arguments);
  }

  /// A daemon that must not start: it says why, in time, and touches neither the object nor
  /// anything else.
  void expectRefusal(const std::vector<std::string>& daemon, const std::string& place,
                     const std::string& reason) const {
    const ino_t before = inodeOf(place);
    const End end = korvex::test::againWhenLate([&] { return endOf(daemon); },
                                                [](const End& found) { return found.isLate(); });
    EXPECT_FALSE(end.isLate());
    EXPECT_EQ(end.code, 1) << end.errors;
    EXPECT_THAT(end.errors, HasSubstr(reason));
    EXPECT_EQ(inodeOf(place), before);
    EXPECT_EQ(inodeOf(otherThan(place)), 0u);
  }

  /// A daemon that must start, serve a writer, and leave nothing behind.
  void expectService(const std::vector<std::string>& command) const {
    Process daemon(command);
    ASSERT_TRUE(korvex::test::eventually([&] {
      return daemon.errors().find("serving " + name_ + ",") != std::string::npos ||
             daemon.wait(std::chrono::milliseconds(0));
    }));
    const auto tell = [this] {
      return korvex::test::resultOfChild([this] { return WriterStory(name_).whole(); });
    };
    EXPECT_EQ(korvex::test::againWhenLate(tell, WriterStory::hasLateCall), "works");
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.wait(), 0) << daemon.errors();
    EXPECT_EQ(inodeOf(name_), 0u);
    EXPECT_EQ(inodeOf(responseName_), 0u);
  }

  std::string otherThan(const std::string& place) const {
    return place == name_ ? responseName_ : name_;
  }

  void meetWithoutReplace(const std::string& place) const {
    const Holder object = GetParam().place(place);
    if (inodeOf(place) == 0) return expectService(serving());
    expectRefusal(serving(), place,
                  "queue " + place + " exists already; --replace removes the queues of a dead");
  }

  void meetWithReplace(const std::string& place) const {
    const Holder object = GetParam().place(place);
    const std::vector<std::string> daemon = serving({"--replace"});
    const std::string reason = replaced(GetParam().keepsDaemonOut, "NAME", place);
    if (reason.empty()) return expectService(daemon);
    expectRefusal(daemon, place,
                  replaced(reason, "USER", std::to_string(korvex::test::unprivilegedUser())));
  }

  const std::string name_ = korvex::test::uniqueQueueName();
  const std::string responseName_ = name_ + "Response";
  const korvex::test::QueueRemover remover_{name_};
};

}  // namespace

TEST_P(StrangeObjectForDaemon, IsLeftAloneUnlessToldOtherwise) {
  meetWithoutReplace(name_);
  meetWithoutReplace(responseName_);
}

TEST_P(StrangeObjectForDaemon, IsReplacedOnlyWhenLeftByADaemon) {
  meetWithReplace(name_);
  meetWithReplace(responseName_);
}

INSTANTIATE_TEST_SUITE_P(Kinds, StrangeObjectForDaemon,
                         testing::ValuesIn(korvex::test::strange::kinds()),
                         [](const auto& kind) { return std::string(kind.param.name); });
