#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sstream>

#include "queue/MessageQueue.h"
#include "status/Clean.h"
#include "support/Await.h"
#include "support/Queues.h"

namespace {

using korvex::MessageQueue;
using korvex::tool::CleanOptions;
using nlohmann::json;
using testing::EndsWith;

/// A pair of queues that nobody has open.
class CleanedPair : public testing::Test {
 protected:
  CleanedPair() {
    const auto deadline = MessageQueue::Clock::now() + korvex::test::kPatience;
    MessageQueue batches(name_, {4, 64}, 0600);
    const MessageQueue replies(name_ + "Response", {4, 132}, 0600);
    EXPECT_TRUE(batches.sendBefore("12345", 5, 0, deadline));
    EXPECT_TRUE(batches.sendBefore("123456789", 9, 0, deadline));
    options_.queue = "/" + name_;
    options_.json = true;
  }

  json clean() {
    out_.str("");
    errors_.str("");
    const korvex::tool::StopSignal stop;
    const auto ending = korvex::tool::runClean(options_, stop, out_, errors_);
    const json found = json::parse(out_.str());
    EXPECT_EQ(found["exitCode"], ending.exitCode);
    return found;
  }

  const std::string name_ = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover_{name_};
  CleanOptions options_;
  std::ostringstream out_;
  std::ostringstream errors_;
};

}  // namespace

TEST_F(CleanedPair, IsKeptUntilSomebodyAgrees) {
  const std::string refusal = "nothing was removed: without a terminal --yes is needed";
  const json kept = clean();
  EXPECT_EQ(kept["exitCode"], 1);
  EXPECT_EQ(kept["error"], refusal);
  EXPECT_EQ(kept["queues"][0]["removed"], false);
  EXPECT_EQ(errors_.str(), "korvex: " + refusal + "\n");
  EXPECT_TRUE(korvex::test::queueExists(name_));
  options_.yes = true;
  const json cleaned = clean();
  EXPECT_EQ(cleaned["exitCode"], 0);
  EXPECT_EQ(cleaned["error"], "");
  EXPECT_EQ(errors_.str(), "");
  ASSERT_EQ(cleaned["queues"].size(), 1u);
  json queue = cleaned["queues"][0];
  EXPECT_THAT(queue["found"].get<std::string>(),
              EndsWith(" process serves it, messages waiting: 2 (14 B)"));
  queue.erase("found");
  EXPECT_EQ(queue,
            json({{"name", name_}, {"halfMade", false}, {"removed", true}, {"obstacle", ""}}));
  EXPECT_FALSE(korvex::test::queueExists(name_));
}
