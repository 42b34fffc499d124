#include "korvex/receiver/Receiver.h"

#include <gmock/gmock.h>

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

namespace {

/// Whether the receiver works, as it says, at each moment that a sink sees.
class Moves : public Observer {
 public:
  void working() noexcept override { isWorking_ = true; }
  void waiting() noexcept override { isWorking_ = false; }

  bool isWorking_ = false;
};

class LookingSink : public Sink {
 public:
  LookingSink(Moves& moves, std::vector<bool>& seen) : moves_(moves), seen_(seen) {}

  void write(const unsigned char*, std::size_t) override { look(); }
  void check() override { look(); }
  void complete(const StreamSummary&, const StillFinishing& stillFinishing) override {
    moves_.isWorking_ = false;
    stillFinishing();
    look();
  }
  void abandon(const StreamSummary&, const std::string&) override {}

 private:
  void look() { seen_.push_back(moves_.isWorking_); }

  Moves& moves_;
  std::vector<bool>& seen_;
};

}  // namespace

TEST(Receiver, SaysThatItWorksWheneverASinkIsCalled) {
  const std::string name = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover(name);
  Moves moves;
  std::vector<bool> seen;
  const auto open = [&](const std::string&, std::time_t) {
    return std::make_unique<LookingSink>(moves, seen);
  };
  Receiver receiver({name, {4, 4096}}, open, moves);
  EXPECT_FALSE(receiver.step());
  EXPECT_FALSE(moves.isWorking_) << "nothing is there";
  ShmWriter writer("writer", name, 1, 1, false);
  writer.open();
  writer.writeSegment(reinterpret_cast<const unsigned char*>("abc"), 3);
  writer.flush_shm_buffer(1);
  while (receiver.step()) {
  }
  EXPECT_FALSE(moves.isWorking_);
  writer.close();
  while (receiver.step()) {
  }
  EXPECT_GE(seen.size(), 3u);
  EXPECT_THAT(seen, testing::Each(true));
}
