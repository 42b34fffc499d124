// The program is its own keeper: an engine's keeper is another process of the same program.

#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "korvexd/exec/Engine.h"
#include "korvexd/exec/ExecStore.h"

using korvexd::Engine;
using korvexd::Keepers;
using korvexd::keeper::Event;
using korvexd::keeper::Report;

namespace {

constexpr int kExitCode = 3;
constexpr const char* kDead = "dead";  // the last word of an engine whose keeper ends at once

void report(Event event, int value) {
  const Report report = {event, false, value, 0};
  ::send(korvexd::keeper::kControl, &report, sizeof report, 0);
}

/// Its engine has ended; so does the keeper, once there is an order that it leaves unread.
int keepAnEndedEngine() {
  const std::string last = "no space left\n";
  report(Event::Started, 0);
  if (::write(STDERR_FILENO, last.data(), last.size()) < 0) return 1;
  report(Event::Exited, kExitCode);
  pollfd order = {korvexd::keeper::kControl, POLLIN, 0};
  return ::poll(&order, 1, -1) == 1 ? 0 : 1;
}

void awaitAChildsEnd() {
  siginfo_t end = {};
  ASSERT_EQ(::waitid(P_ALL, 0, &end, WEXITED | WNOWAIT), 0);
}

}  // namespace

// The socket fails once, before it hands out what the keeper said.
TEST(Engine, KnowsItsEndDespiteAnUnreadOrder) {
  Keepers keepers;
  std::vector<std::string> lines;
  Engine engine(keepers, {"/program", {"word"}, {}, std::chrono::hours(1)},
                [&](const std::string& line) { lines.push_back(line); });
  engine.announceComplete();
  awaitAChildsEnd();
  engine.look();
  EXPECT_TRUE(engine.hasStarted());
  ASSERT_TRUE(engine.end());
  EXPECT_EQ(engine.end()->event, Event::Exited);
  EXPECT_EQ(engine.end()->value, kExitCode);
  EXPECT_EQ(engine.lastError(), "no space left");
  EXPECT_EQ(lines, std::vector<std::string>{"no space left"});
  EXPECT_TRUE(engine.isGone());
}

TEST(ExecStore, OpensNoStreamWhoseKeeperIsGone) {
  korvexd::ExecStore store([] { return false; });
  try {
    store.open({{"true", kDead}, std::chrono::hours(1)}, "q", 0);
    ADD_FAILURE() << "it was opened";
  } catch (const std::exception& error) {
    EXPECT_STREQ(error.what(), "the engine's keeper was killed");
  }
  constexpr auto kNotStarted = static_cast<std::size_t>(korvexd::EngineFailure::NotStarted);
  EXPECT_EQ(store.failuresOf("q")[kNotStarted], 1u);
}

int main(int argc, char** argv) {
  if (korvexd::isKeeper(argc, argv)) {
    return argv[argc - 1] == std::string(kDead) ? 0 : keepAnEndedEngine();
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
