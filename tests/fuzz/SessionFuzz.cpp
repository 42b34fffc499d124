// Any sequence of records, most of them nearly right, with sinks that fail now and then: after each
// record the answer, what is stored and what is counted are a model's, and nothing else.

#include <array>
#include <cstring>
#include <exception>
#include <memory>
#include <string>

#include "fuzz/Input.h"
#include "korvex/Status.h"
#include "stream/StreamSession.h"
#include "support/StreamModel.h"
#include "support/WireFormat.h"

using namespace korvex::test;
using korvex::receiver::Count;
using korvex::receiver::StreamSession;
using korvex::receiver::StreamSummary;
using Step = StreamModel::Step;

namespace {

constexpr std::size_t kSizes[] = {11, 1, 0, 300};  // the last needs more than the digest's buffer
constexpr std::size_t kLargest = 300;

/// What the records' data is cut from. No two pieces of it are alike.
class Source {
 public:
  Source() {
    std::uint32_t state = 1;
    for (unsigned char& byte : bytes_) {
      state = state * 1664525 + 1013904223;
      byte = static_cast<unsigned char>(state >> 24);
    }
  }

  const unsigned char* next(std::size_t size) {
    const unsigned char* const piece = bytes_.data() + at_;
    at_ = (at_ + size) % (bytes_.size() - kLargest);
    return piece;
  }

  void restart() { at_ = 0; }

 private:
  std::array<unsigned char, 4096> bytes_;
  std::size_t at_ = 0;
};

/// Cheaper to throw than what the daemon's own sinks throw.
struct SinkError : std::exception {
  const char* what() const noexcept override { return "storing: no room"; }
};

/// What all sinks saw.
struct Seen {
  bool isLive = false;
  Step failing = Step::None;
  std::uint64_t opened = 0;
  std::uint64_t completed = 0;
  std::uint64_t abandoned = 0;
  StreamModel::Summary summary;
  char digest[33] = {};  ///< the summary's, of the last stream that was complete
  std::string data;      ///< of the sink that is or was the last

  void failIf(Step step) {
    if (failing != step) return;
    failing = Step::None;
    throw SinkError();
  }
};

class WatchedSink : public korvex::receiver::Sink {
 public:
  explicit WatchedSink(Seen& seen) : seen_(seen) {
    require(!seen_.isLive, "one sink at a time");
    seen_.isLive = true;
    seen_.data.clear();
    ++seen_.opened;
  }
  ~WatchedSink() override {
    require(isDone_, "a sink is completed or abandoned");
    seen_.isLive = false;
  }

  void write(const unsigned char* data, std::size_t size) override {
    require(!isDone_ && size != 0, "writing while open, and something");
    seen_.failIf(Step::Writing);
    seen_.data.append(reinterpret_cast<const char*>(data), size);
  }
  void complete(const StreamSummary& summary, const korvex::receiver::StillFinishing&) override {
    require(!isDone_, "completed once");
    seen_.failIf(Step::Completing);
    note(summary);
    ++seen_.completed;
    require(summary.xxh128.size() == sizeof seen_.digest - 1, "the digest's size");
    std::memcpy(seen_.digest, summary.xxh128.c_str(), sizeof seen_.digest);
  }
  void abandon(const StreamSummary& summary, const std::string& reason) override {
    require(!reason.empty(), "abandoned for a reason");
    note(summary);
    ++seen_.abandoned;
  }
  std::string place() const override { return {}; }

 private:
  void note(const StreamSummary& summary) {
    require(!isDone_, "completed or abandoned once");
    isDone_ = true;
    seen_.summary = {summary.bytes, summary.segments, summary.records};
  }

  Seen& seen_;
  bool isDone_ = false;
};

/// One session after the other, each fed from an input, and the model beside them. Counts go on
/// from one to the next.
class Run {
 public:
  void go(Input input) {
    source_.restart();
    failOnce(Step::None);
    {
      StreamSession session("q", factory_, stats_, log_);
      while (!input.isEmpty()) step(session, input);
      settle(session);
    }
    model_.end();
    compare();
  }

 private:
  void step(StreamSession& session, Input& input) {
    const unsigned what = input.byte();
    const unsigned how = what >> 3;
    if (what % 8 > kStop) settle(session);
    switch (what & 7) {
      case 5:
        return failOnce(static_cast<Step>(how & 3));
      case 6:
        return check(model_.takeDamage(), session.takeDamage("cut"), "damaged batch: cut");
      case 7:
        if (how % 2 != 0) return record(session, signedByte(input), how, input);
        session.end(korvex::receiver::Ending::ReceiverEnded, "ended");
        model_.end();
        return compare();
      default:
        return record(session, what & 7, how, input);
    }
  }

  /// Both ends of a wide range.
  static std::uint64_t signedByte(Input& input) {
    return static_cast<std::uint64_t>(static_cast<std::int8_t>(input.byte()));
  }

  void failOnce(Step step) {
    seen_.failing = step;
    model_.failOnce(step);
  }

  void record(StreamSession& session, std::uint64_t type, unsigned how, Input& input) {
    korvex::receiver::Record record = {};
    record.type = static_cast<std::uint32_t>(type);
    record.sequence = sequence(record.type, how & 7, input);
    // Where data is wrong, it is rare.
    const bool hasData = record.type == kData || how >> 3 == 3;
    const std::size_t size = hasData ? kSizes[how >> 3] : 0;
    record.size = static_cast<std::uint32_t>(size);
    record.data = source_.next(size);
    const bool isGathered = session.gather(record);
    if (!isGathered) settle(session);
    const bool fails = model_.failing() == Step::Writing;
    const auto expected = model_.take({record.type, record.sequence, record.data, size});
    if (isGathered && !fails) return require(expected == StreamModel::Answer::None, "no answer");
    check(expected, isGathered ? session.flush() : session.take(record), "record type ");
  }

  /// What was gathered may wait as long as nothing but the like follows.
  void settle(StreamSession& session) { check(StreamModel::Answer::None, session.flush(), ""); }

  /// Mostly the right one.
  std::uint64_t sequence(std::uint32_t type, unsigned how, Input& input) {
    if (how == 7) return signedByte(input);
    if (type == kOpen) return 0;
    const std::uint64_t next = model_.next();
    if (how == 6) return next - 1;
    return how == 5 ? next + 3 : next;
  }

  void check(StreamModel::Answer expected, const StreamSession::Answer& answer,
             const char* refusal) {
    using Answer = StreamModel::Answer;
    require(answer.has_value() == (expected != Answer::None), "whether there is an answer");
    if (expected == Answer::Receipt) {
      const std::string receipt = model_.receipt();
      require(answer->status == 0 && receipt == answer->message, "the receipt");
      require(std::strcmp(seen_.digest, receipt.c_str() + receipt.size() - 32) == 0,
              "the summary's digest");
    }
    if (expected == Answer::SinkFailure) {
      require(answer->status == 5, "a failed sink's status");
      require(std::strcmp(answer->message, SinkError().what()) == 0, "a failed sink's text");
    }
    if (expected == Answer::Refusal) {
      require(answer->status == korvex::kStatusCorrupt, "a refusal's status");
      require(std::strncmp(answer->message, refusal, std::strlen(refusal)) == 0,
              "a refusal's text");
    }
    compare();
  }

  void compare() const {
    const StreamModel::Counts& counts = model_.counts();
    require(seen_.failing == model_.failing(), "the sink's step that was to fail");
    require(seen_.isLive == model_.hasSink(), "whether there is a sink");
    require(seen_.opened == model_.sinks(), "sinks opened");
    require(seen_.completed == counts.complete, "sinks completed");
    require(seen_.abandoned == seen_.opened - seen_.completed - seen_.isLive, "sinks abandoned");
    require(seen_.data == model_.data(), "what is stored");
    require(seen_.summary.bytes == model_.lastSummary().bytes, "the summary's bytes");
    require(seen_.summary.segments == model_.lastSummary().segments, "the summary's segments");
    require(seen_.summary.records == model_.lastSummary().records, "the summary's records");
    require(stats_.get(Count::StreamsOpened) == counts.opened, "streams opened");
    require(stats_.get(Count::StreamsComplete) == counts.complete, "streams complete");
    require(stats_.get(Count::StreamsIncomplete) == counts.incomplete, "streams incomplete");
    require(stats_.get(Count::Records) == counts.records, "records");
    require(stats_.get(Count::DroppedRecords) == counts.dropped, "dropped records");
    require(stats_.get(Count::Bytes) == counts.bytes, "bytes");
  }

  Source source_;
  Seen seen_;
  StreamModel model_;
  korvex::receiver::Counters stats_;
  korvex::receiver::Observer log_;
  const korvex::receiver::SinkFactory factory_ = [this](const std::string&, std::time_t) {
    seen_.failIf(Step::Opening);
    return std::make_unique<WatchedSink>(seen_);
  };
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static Run run;
  run.go(Input(bytes, size));
  return 0;
}
