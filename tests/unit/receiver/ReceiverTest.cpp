#include "korvex/receiver/Receiver.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "korvex/ShmWriter.h"
#include "support/Queues.h"

using korvex::ShmWriter;
using korvex::receiver::Observer;
using korvex::receiver::Receiver;
using korvex::receiver::Sink;
using korvex::receiver::StillFinishing;
using korvex::receiver::StreamSummary;
using testing::ElementsAre;

namespace {

/// Sinks of one receiver, the first of which is still finishing when the receiver is to end.
struct Streams {
  std::atomic<bool> stop{false};
  std::vector<std::string> ends;
};

class SlowSink : public Sink {
 public:
  explicit SlowSink(Streams& streams) : streams_(streams) {}

  void write(const unsigned char*, std::size_t) override {}
  void complete(const StreamSummary&, const StillFinishing& stillFinishing) override {
    stillFinishing();  // meets what the next producer has sent
    streams_.stop = true;
    streams_.ends.push_back("complete");
  }
  void abandon(const StreamSummary&, const std::string& reason) override {
    streams_.ends.push_back(reason);
  }

 private:
  Streams& streams_;
};

/// Ends its receiver when it was asked a third time.
class AskedSink : public Sink {
 public:
  explicit AskedSink(std::atomic<bool>& stop) : stop_(stop) {}

  void write(const unsigned char*, std::size_t) override {}
  void check() override { stop_ = ++asked_ == 3; }
  void complete(const StreamSummary&, const StillFinishing&) override {}
  void abandon(const StreamSummary&, const std::string&) override {}

 private:
  std::atomic<bool>& stop_;
  int asked_ = 0;
};

}  // namespace

TEST(Receiver, TakesAtItsEndWhatCameDuringAFinish) {
  const std::string name = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover(name);
  Streams streams;
  Observer silent;
  const auto open = [&](const std::string&, std::time_t) {
    return std::make_unique<SlowSink>(streams);
  };
  Receiver receiver({name, {4, 4096}}, open, silent);
  ShmWriter first("first", name, 1, 1, false);
  first.open();
  first.close();
  ShmWriter second("second", name, 1, 1, false);
  second.open();
  receiver.run(streams.stop);
  EXPECT_THAT(streams.ends, ElementsAre("complete", "the daemon ended"));
}

// Asking takes a system call or two. At each look at the queue, that would cost a processor.
TEST(Receiver, AsksASinkAFewTimesASecondOnly) {
  const std::string name = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover(name);
  std::atomic<bool> stop{false};
  Observer silent;
  const auto open = [&](const std::string&, std::time_t) {
    return std::make_unique<AskedSink>(stop);
  };
  Receiver receiver({name, {4, 4096}}, open, silent);
  ShmWriter producer("silent", name, 1, 1, false);
  producer.open();
  const auto start = std::chrono::steady_clock::now();
  receiver.run(stop);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
}
