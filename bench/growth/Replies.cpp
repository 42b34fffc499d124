#include "Replies.h"

#include <chrono>
#include <cmath>
#include <korvex/RecordType.h>
#include <korvex/ShmBatch.h>
#include <korvex/ShmWriter.h>
#include <random>
#include <stdexcept>
#include <thread>

#include "queue/MessageQueue.h"

namespace bench {
namespace {

using korvex::MessageQueue;
using korvex::ShmBatch;
using Clock = MessageQueue::Clock;

constexpr std::chrono::seconds kPatience{60};
constexpr unsigned kPriority = 1;

// Seconds.
constexpr double kShortestRest = 0.005;
constexpr double kLongestRest = 2;

class Rests {
 public:
  void sleep() {
    std::this_thread::sleep_for(std::chrono::duration<double>(std::exp(logarithm_(random_))));
  }

 private:
  std::minstd_rand random_{1};
  std::uniform_real_distribution<double> logarithm_{std::log(kShortestRest),
                                                    std::log(kLongestRest)};
};

/// One queue pair, and an empty stream in a single batch, which the daemon answers with a receipt.
class AnsweredBatch {
 public:
  explicit AnsweredBatch(const std::string& queue)
      : batches_(queue, deadline()),
        replies_(korvex::getMessageQueueResponseName(queue), deadline()),
        stream_(batches_.maxMessageSize()) {
    korvex::qmx_shm_message_t header;
    header.type = korvex::kTypeOpen;
    stream_.pushBack({header, nullptr});
    header.type = korvex::kTypeClose;
    header.sequence = 2;  // what follows the open record carries 2
    stream_.pushBack({header, nullptr});
  }

  /// Milliseconds from the batch to its reply.
  double send() {
    const auto end = deadline();
    const auto start = Clock::now();
    if (!batches_.sendBefore(stream_.getRaw(), stream_.getRawSize(), kPriority, end)) {
      fail("no room");
    }
    while (replies_.view().messages() == 0 && Clock::now() < end) std::this_thread::yield();
    const std::chrono::duration<double, std::milli> waited = Clock::now() - start;
    takeReply(end);
    return waited.count();
  }

 private:
  static Clock::time_point deadline() { return Clock::now() + kPatience; }

  [[noreturn]] static void fail(const std::string& what) {
    throw std::runtime_error("a batch was not answered: " + what);
  }

  void takeReply(Clock::time_point end) {
    korvex::qmx_shm_response_t reply;
    std::size_t size = 0;
    while (replies_.tryReceive(&reply, sizeof reply, size) != MessageQueue::Outcome::Done) {
      if (Clock::now() >= end) fail("no reply came in time");
    }
    if (reply.status != 0) fail("status " + std::to_string(reply.status));
  }

  MessageQueue batches_;
  MessageQueue replies_;
  ShmBatch stream_;
};

}  // namespace

std::vector<double> waitsForReplies(const std::string& queue, unsigned batches) {
  AnsweredBatch batch(queue);
  Rests rests;
  std::vector<double> found;
  while (found.size() < batches) {
    rests.sleep();
    found.push_back(batch.send());
  }
  return found;
}

}  // namespace bench
