// Any sequence of records, most of them nearly right, with sinks that fail now and then: a stream
// is complete only when its sink holds all of it.
#include <spdlog/spdlog.h>

#include <cerrno>
#include <string>

#include "Bytes.h"
#include "korvexd/StreamSession.h"
#include "korvexd/SystemError.h"

using korvex_fuzz::Input;
using korvex_fuzz::require;
using korvexd::StreamSession;
using korvexd::StreamSummary;

namespace {

constexpr std::uint32_t kOpen = 0;
constexpr std::uint32_t kData = 1;
constexpr std::uint32_t kClose = 3;

/// What the sinks of one session saw.
struct Seen {
  int live = 0;
  int failing = 0;  ///< 1: the next write, 2: the next completion, 3: the next opening
  std::uint64_t opened = 0;
  std::uint64_t completed = 0;
  std::string data;  ///< of the stream that is open
};

class WatchedSink : public korvexd::Sink {
 public:
  explicit WatchedSink(Seen& seen) : seen_(seen) {
    seen_.data.clear();
    ++seen_.opened;
    require(++seen_.live == 1, "one sink at a time");
  }
  ~WatchedSink() override {
    require(isDone_, "a sink is completed or abandoned");
    --seen_.live;
  }

  void write(const unsigned char* data, std::size_t size) override {
    require(!isDone_ && size != 0, "writing while open, and something");
    failOn(1);
    seen_.data.append(reinterpret_cast<const char*>(data), size);
  }
  void complete(const StreamSummary& summary) override {
    require(!isDone_, "completed once");
    failOn(2);
    isDone_ = true;
    ++seen_.completed;
    require(summary.bytes == seen_.data.size(), "the summary's bytes");
  }
  void abandon(const StreamSummary&, const std::string& reason) override {
    require(!isDone_ && !reason.empty(), "abandoned once, for a reason");
    isDone_ = true;
  }
  std::string place() const override { return {}; }

 private:
  void failOn(int step) {
    if (seen_.failing != step) return;
    seen_.failing = 0;
    throw korvexd::SystemError("storing", ENOSPC);
  }

  Seen& seen_;
  bool isDone_ = false;
};

/// A session that is fed from an input, and what it must have stored.
class Run {
 public:
  explicit Run(Input input) : input_(input), session_("q", factory(), stats_) {}

  void go() {
    while (!input_.isEmpty()) step();
    session_.end("over");
    require(seen_.live == 0, "no sink is left");
  }

 private:
  korvexd::SinkFactory factory() {
    return [this](const std::string&, std::time_t) -> std::unique_ptr<korvexd::Sink> {
      if (seen_.failing == 3) {
        seen_.failing = 0;
        throw korvexd::SystemError("opening", EACCES);
      }
      return std::make_unique<WatchedSink>(seen_);
    };
  }

  void step() {
    const unsigned what = input_.byte();
    switch (what & 7) {
      case 5:
        seen_.failing = static_cast<int>(what >> 3 & 3);
        return;
      case 6:
        check(session_.takeDamage("cut"), false, 0);
        return;
      case 7:
        session_.end("ended");
        require(seen_.live == 0, "an end leaves no sink");
        return;
      default:
        return record(what & 7, what >> 3);
    }
  }

  void record(std::uint32_t type, unsigned how) {
    korvex::qmx_shm_message_t header;
    header.type = how == 31 ? input_.word() : type;
    header.sequence = sequence(type, how & 7);
    std::size_t size = type == kData || how == 30 ? 1 + (how >> 3) * 5U : 0;
    const std::uint8_t* const data = input_.piece(size);
    header.len = static_cast<std::uint32_t>(size);
    const std::uint64_t completed = seen_.completed;
    if (header.type == kOpen) expected_.clear();
    const std::size_t before = seen_.data.size();
    const auto answer = session_.take({header, size == 0 ? nullptr : data});
    if (header.type == kData && seen_.data.size() > before)
      expected_.append(reinterpret_cast<const char*>(data), size);
    check(answer, header.type == kClose, completed);
  }

  /// Mostly the right one.
  std::uint64_t sequence(std::uint32_t type, unsigned how) {
    if (type == kOpen) return sequence_ = how == 7 ? input_.word() : 0;
    if (how == 7) return sequence_ = input_.word();
    if (how == 6) return sequence_;
    const std::uint64_t step = sequence_ == 0 ? 2 : 1;
    return sequence_ += step + (how == 5 ? 3 : 0);
  }

  void check(const StreamSession::Answer& answer, bool isClose, std::uint64_t completedBefore) {
    if (!answer) return;
    require(answer->message[0] != '\0', "an answer says something");
    if (answer->status != 0) {
      require(seen_.live == 0, "a failure ends the stream");
      return;
    }
    require(isClose && seen_.completed == completedBefore + 1, "a receipt answers a close");
    require(seen_.data == expected_, "what is stored is what was taken");
    const std::string begin = "stored bytes=" + std::to_string(expected_.size()) + " xxh128=";
    require(std::string(answer->message).compare(0, begin.size(), begin) == 0, "the receipt");
  }

  Input input_;
  Seen seen_;
  korvexd::Stats stats_;
  StreamSession session_;
  std::uint64_t sequence_ = 0;
  std::string expected_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static const bool isQuiet = (spdlog::set_level(spdlog::level::off), true);
  require(isQuiet, "no log lines");
  Run(Input(bytes, size)).go();
  return 0;
}
