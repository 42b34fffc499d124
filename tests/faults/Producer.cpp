#include "Producer.h"

#include <korvex/ShmWriter.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

#include "Pattern.h"
#include "StreamDigest.h"

namespace korvex_faults {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kReceiptPatience{400};
constexpr std::chrono::milliseconds kReceiptPeriod{1};
constexpr std::size_t kLargestPiece = 65536 - 1024;

class Producer {
 public:
  explicit Producer(const Load& load) : load_(load), piece_(kLargestPiece) {}

  Ending run() {
    try {
      timed([&] {
        writer_ = std::make_unique<korvex::ShmWriter>("faults", load_.queue, kTimeoutSeconds,
                                                      kTimeoutSeconds, false);
      });
      for (std::uint64_t i = 0; i < load_.streams && ending_.outcome == "complete"; ++i) {
        sendStream(Pattern(load_.number + i, load_.size));
      }
    } catch (const std::exception&) {
      // Most are told that nobody takes their data any more. Which error it is, others look at.
      ending_.outcome = "failed";
    }
    timed([&] { writer_.reset(); });
    return ending_;
  }

 private:
  template <typename Call>
  void timed(Call call) {
    const auto start = Clock::now();
    const auto note = [&] {
      const std::chrono::duration<double, std::milli> taken = Clock::now() - start;
      ending_.longestMs = std::max(ending_.longestMs, taken.count());
    };
    try {
      call();
    } catch (...) {
      note();
      throw;
    }
    note();
  }

  void sendStream(const Pattern& pattern) {
    timed([&] { writer_->open(); });
    korvex::tool::StreamDigest digest;
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
  Ending ending_ = {"complete", 0, 0};
  std::uint32_t turn_ = 1;
};

}  // namespace

int produce(const Load& load) {
  const Ending ending = Producer(load).run();
  std::printf("%s %llu %.1f\n", ending.outcome.c_str(),
              static_cast<unsigned long long>(ending.receipts), ending.longestMs);
  return 0;
}

}  // namespace korvex_faults
