#include "Producer.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <korvex/ShmWriter.h>
#include <korvex/Status.h>
#include <memory>
#include <qmx/error.h>
#include <thread>
#include <vector>

#include "Pattern.h"
#include "korvex/receiver/StreamDigest.h"

namespace korvex::test {
namespace {

using Clock = Call::Clock;

constexpr std::chrono::milliseconds kReceiptPatience{400};
constexpr std::chrono::milliseconds kReceiptPeriod{1};
constexpr std::size_t kLargestPiece = 65536 - 1024;

bool isAskedToEnd() {
  sigset_t pending;
  ::sigpending(&pending);
  return ::sigismember(&pending, kEndSignal) == 1;
}

Clock::rep ticksOf(Clock::time_point moment) { return moment.time_since_epoch().count(); }

Clock::time_point momentOf(Clock::rep ticks) { return Clock::time_point(Clock::duration(ticks)); }

class Producer {
 public:
  explicit Producer(const Load& load) : load_(load), piece_(kLargestPiece) {}

  Ending run() {
    try {
      timed([&] {
        writer_ = std::make_unique<korvex::ShmWriter>("faults", load_.queue, kTimeoutSeconds,
                                                      kTimeoutSeconds, false);
      });
      for (std::uint64_t i = 0; i < load_.streams && mayGoOn(); ++i) {
        sendStream(Pattern(load_.number + i, load_.size));
      }
    } catch (const Ov_ErrnoException& error) {
      ending_.outcome = error.getStatus() == korvex::kStatusTimedOut ? "timed-out" : "failed";
    } catch (const std::exception&) {
      // The queue is gone or broken. Which error it is, others look at.
      ending_.outcome = "failed";
    }
    timed([&] { writer_.reset(); });
    return ending_;
  }

 private:
  template <typename Function>
  void timed(Function call) {
    const auto begin = Clock::now();
    try {
      call();
    } catch (...) {
      note({begin, Clock::now()});
      throw;
    }
    note({begin, Clock::now()});
  }

  void note(const Call& call) {
    if (call.end - call.begin > kCallLimit) ending_.slowCalls.push_back(call);
  }

  bool mayGoOn() const { return ending_.outcome == "complete" && !isAskedToEnd(); }

  void sendStream(const Pattern& pattern) {
    timed([&] { writer_->open(); });
    korvex::receiver::StreamDigest digest;
    std::size_t size = 8;
    for (std::uint64_t sent = 0; sent < pattern.size(); sent += size) {
      size = std::min<std::uint64_t>(pattern.size() - sent, nextSize());
      pattern.fill(piece_.data(), size, sent);
      digest.add(piece_.data(), size);
      timed([&] { writer_->writeSegment(piece_.data(), size); });
    }
    timed([&] { writer_->endSegment(); });
    timed([&] { writer_->close(); });
    awaitReceipt("stored " + digest.expected().text());
  }

  /// Small and large records in turn.
  std::size_t nextSize() {
    turn_ = turn_ * 5 + 3;
    return turn_ % 4 == 0 ? kLargestPiece : 8 * (1 + turn_ % 200);
  }

  /// An earlier producer's receipt may come first, when it died before it took it.
  void awaitReceipt(const std::string& expected) {
    const auto end = Clock::now() + kReceiptPatience;
    while (writer_->getResponse().message != expected) {
      if (Clock::now() >= end) {
        ending_.outcome = "no-receipt";
        return;
      }
      std::this_thread::sleep_for(kReceiptPeriod);
      timed([&] { writer_->flush_shm_buffer(kTimeoutSeconds); });
    }
    ++ending_.receipts;
  }

  const Load& load_;
  std::vector<unsigned char> piece_;
  std::unique_ptr<korvex::ShmWriter> writer_;
  Ending ending_ = {"complete", 0, {}};
  std::uint32_t turn_ = 1;
};

}  // namespace

std::ostream& operator<<(std::ostream& out, const Ending& ending) {
  out << ending.outcome << ' ' << ending.receipts << ' ' << ending.slowCalls.size();
  for (const Call& call : ending.slowCalls) {
    out << ' ' << ticksOf(call.begin) << ' ' << ticksOf(call.end);
  }
  return out << '\n';
}

std::istream& operator>>(std::istream& in, Ending& ending) {
  std::size_t calls = 0;
  in >> ending.outcome >> ending.receipts >> calls;
  Clock::rep begin = 0;
  Clock::rep end = 0;
  while (calls-- > 0 && in >> begin >> end) {
    ending.slowCalls.push_back({momentOf(begin), momentOf(end)});
  }
  return in;
}

int produce(const Load& load) {
  std::cout << Producer(load).run() << std::flush;
  return std::cout ? 0 : 1;
}

}  // namespace korvex::test
