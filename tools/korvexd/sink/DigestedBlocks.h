#ifndef KORVEXD_DIGESTED_BLOCKS_H
#define KORVEXD_DIGESTED_BLOCKS_H

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "common/Sha256.h"
#include "korvexd/sink/ExtraDigest.h"

namespace korvexd {

/// Blocks of a stream's data. A thread of its own computes their SHA-256 while they are being
/// written: a core takes longer for that than for all the rest.
///
/// The owner fills a block, submits it, and may read it until it asks for the next. A stream that
/// fits into one block never starts the thread. Used by one thread.
class DigestedBlocks {
 public:
  static constexpr std::size_t kBlockSize = std::size_t{256} * 1024;

  /// How far the digest may be behind.
  static constexpr std::size_t kBlocks = 8;

  /// Waking the other thread may take as long as digesting a block. So each sleeps until half of
  /// the blocks are there for it.
  static constexpr std::size_t kWorthWaking = kBlocks / 2;

  explicit DigestedBlocks(ExtraDigest wanted) noexcept : wanted_(wanted) {}
  ~DigestedBlocks();
  DigestedBlocks(const DigestedBlocks&) = delete;
  DigestedBlocks& operator=(const DigestedBlocks&) = delete;

  /// The block to fill, of kBlockSize bytes; the same one until it is submitted. Waits while all
  /// are on their way.
  unsigned char* current();

  /// Digests the first `size` bytes of the current block; only the last one may be partly filled.
  /// Takes longer where the system has no thread to give.
  void submit(std::size_t size);

  /// The digest of everything that was submitted: 64 lower-case hex digits; empty if none is
  /// wanted. If digesting any block has failed, throws what that threw.
  std::string hex();

 private:
  struct Block {
    std::unique_ptr<unsigned char[]> bytes;
    std::size_t size = 0;
  };

  Block& block(std::uint64_t number) { return blocks_[number % kBlocks]; }
  std::uint64_t pending() const noexcept { return submitted_ - digested_; }
  void run() noexcept;
  void digestNext(std::unique_lock<std::mutex>& lock);
  bool hasThread();

  const ExtraDigest wanted_;
  std::array<Block, kBlocks> blocks_;
  korvex::common::Sha256 sha256_;  ///< the thread's, while blocks are on their way
  std::mutex mutex_;
  std::condition_variable changed_;
  std::uint64_t submitted_ = 0;  ///< written by the owner, under the mutex
  std::uint64_t digested_ = 0;   ///< guarded by the mutex
  bool isAwaited_ = false;       ///< guarded by the mutex
  bool isOver_ = false;          ///< guarded by the mutex
  std::exception_ptr failure_;   ///< to digest a block; the thread's, while blocks are on their way
  std::thread thread_;
};

}  // namespace korvexd

#endif
