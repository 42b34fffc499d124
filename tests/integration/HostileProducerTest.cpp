// A process that is no writer fills one queue with anything, while an honest one works beside it.

#include <algorithm>
#include <boost/interprocess/ipc/message_queue.hpp>
#include <gmock/gmock.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

#include "integration/DaemonFixture.h"
#include "support/HostileBatches.h"
#include "support/SharedCounter.h"

using korvex::test::contentsOf;
using korvex::test::eventually;
using testing::IsEmpty;
using testing::StartsWith;
using RawQueue = boost::interprocess::message_queue;

namespace {

constexpr std::uint32_t kSeed = 20260921;
constexpr unsigned kMessages = 10000;
constexpr unsigned kPieces = 1000;
constexpr std::size_t kPieceSize = 5000;

/// A lock that a busy daemon has for long is no reason to give up.
template <typename Operation>
bool succeeds(Operation operation) {
  try {
    return operation();
  } catch (const boost::interprocess::interprocess_exception& error) {
    if (error.get_error_code() != boost::interprocess::timeout_when_locking_error) throw;
    return false;
  }
}

void post(RawQueue& queue, const korvex::test::hostile::Bytes& message) {
  const auto tryToSend = [&] { return queue.try_send(message.data(), message.size(), 0); };
  if (!eventually([&] { return succeeds(tryToSend); })) ::_exit(1);
}

/// The n-th part of the honest stream.
std::string piece(unsigned number) {
  std::string text;
  while (text.size() < kPieceSize) text += std::to_string(number * kPieceSize + text.size()) + " ";
  text.resize(kPieceSize);
  return text;
}

/// A daemon of two queues, one of which has a hostile producer.
class HostileProducer : public DaemonFixture {
 protected:
  void TearDown() override {
    if (hostile_ > 0) ::kill(hostile_, SIGKILL);
    if (hostile_ > 0) ::waitpid(hostile_, nullptr, 0);
  }

  /// Sends all messages in a process of its own.
  void startHostile() {
    hostile_ = ::fork();
    if (hostile_ != 0) return;
    RawQueue queue(boost::interprocess::open_only, other_.c_str());
    korvex::test::hostile::Batches batches(kSeed);
    for (unsigned i = 0; i < kMessages; ++i) {
      post(queue, batches.next());
      sent_.raise();
    }
    post(queue, korvex::test::hostile::Batches::last());
    ::_exit(0);
  }

  /// One honest stream, a part of it for every few hostile messages. Returns what was sent.
  std::string streamMeanwhile(korvex::ShmWriter& to, Process& daemon) const {
    std::string all;
    to.open();
    for (unsigned i = 0; i < kPieces; ++i) {
      const auto isTime = [&] {
        // Nobody else reads what it says.
        daemon.errors();
        return sent_.value() >= i * (kMessages / kPieces);
      };
      if (!eventually(isTime)) throw std::runtime_error("the hostile producer is stuck");
      all += piece(i);
      write(to, piece(i));
    }
    to.close();
    return all;
  }

  /// Takes the replies that lie there until the receipt of the last hostile stream. Its open record
  /// has the daemon withdraw all that are older.
  bool takeRepliesUntilReceipt(Process& daemon) const {
    RawQueue replies(boost::interprocess::open_only, (other_ + "Response").c_str());
    return eventually([&] {
      daemon.errors();
      korvex::qmx_shm_response_t reply;
      RawQueue::size_type size = 0;
      unsigned priority = 0;
      const auto tryToReceive = [&] {
        return replies.try_receive(&reply, sizeof reply, size, priority);
      };
      return succeeds(tryToReceive) && std::string(reply.message).rfind("stored bytes=12 ", 0) == 0;
    });
  }

  /// The data of the complete streams of a queue, in the order in which they were opened.
  std::vector<std::string> storedOf(const std::string& queue) const {
    std::vector<std::pair<unsigned long, std::string>> found;
    for (const std::string& name : streams(false)) {
      if (name.rfind(queue + "-", 0) != 0) continue;
      found.emplace_back(std::stoul(name.substr(name.rfind('-') + 1)), dataOf(name));
    }
    std::sort(found.begin(), found.end());
    std::vector<std::string> data;
    for (auto& stream : found) data.push_back(std::move(stream.second));
    return data;
  }

  const std::string other_ = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover otherRemover_{other_};
  const std::string statsFile_ = folder_ / "stats";
  korvex::test::SharedCounter sent_;
  pid_t hostile_ = -1;
};

/// What must have become of the hostile messages.
korvex::test::hostile::Model expectedOfHostile() {
  korvex::test::hostile::Model model;
  korvex::test::hostile::Batches batches(kSeed);
  for (unsigned i = 0; i < kMessages; ++i) model.take(batches.next());
  model.take(korvex::test::hostile::Batches::last());
  return model;
}

}  // namespace

TEST_F(HostileProducer, HarmsNobodyAndStoresNothingWrong) {
  SCOPED_TRACE("seed " + std::to_string(kSeed));
  const auto daemon =
      start({"--queue", other_, "--max-message-size", "16K", "--stats", statsFile_});
  ASSERT_TRUE(awaitLog(*daemon, "serving " + other_ + ","));
  startHostile();
  const auto honest = writer();
  const std::string sent = streamMeanwhile(*honest, *daemon);
  EXPECT_THAT(awaitReply(*honest).message, StartsWith("stored bytes=5000000 xxh128="));
  EXPECT_TRUE(storedOf(queue_) == std::vector<std::string>{sent});

  ASSERT_TRUE(takeRepliesUntilReceipt(*daemon)) << sent_.value() << " messages were sent";
  EXPECT_EQ(daemon->wait(std::chrono::milliseconds(0)), std::nullopt) << "it must live";
  EXPECT_EQ(stream(other_, "abc"), "stored bytes=3 xxh128=06b05ab6733a618578af5f94892f3950");
  end(*daemon);
  for (const std::string& name : {queue_, queue_ + "Response", other_, other_ + "Response"})
    EXPECT_FALSE(korvex::test::queueExists(name)) << name;
  EXPECT_THAT(unfinishedQueuesOf(*daemon), IsEmpty());

  const korvex::test::hostile::Model model = expectedOfHostile();
  std::vector<std::string> right = model.complete();
  right.push_back("abc");
  EXPECT_EQ(storedOf(other_), right);
  const auto counts = nlohmann::json::parse(contentsOf(statsFile_))["queues"][other_];
  EXPECT_EQ(counts["bad_batches"], model.badBatches());
  EXPECT_EQ(counts["streams_complete"], right.size());
}
