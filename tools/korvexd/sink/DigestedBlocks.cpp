#include "korvexd/sink/DigestedBlocks.h"

#include <exception>

#include "korvexd/os/Thread.h"

namespace korvexd {

DigestedBlocks::~DigestedBlocks() {
  if (!thread_.joinable()) return;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    isOver_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

unsigned char* DigestedBlocks::current() {
  {
    std::unique_lock<std::mutex> lock(mutex_);
    if (pending() == kBlocks) changed_.wait(lock, [this] { return pending() <= kWorthWaking; });
  }
  Block& next = block(submitted_);
  if (next.bytes == nullptr) next.bytes.reset(new unsigned char[kBlockSize]);
  return next.bytes.get();
}

void DigestedBlocks::submit(std::size_t size) {
  if (wanted_ == ExtraDigest::None) return;
  const bool isShortStream = submitted_ == 0 && size < kBlockSize;
  if (isShortStream || !hasThread()) return sha256_.update(current(), size);
  block(submitted_).size = size;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++submitted_;
    if (pending() < kWorthWaking) return;
  }
  changed_.notify_all();
}

/// A stream that needs more time is better than one that fails.
bool DigestedBlocks::hasThread() {
  if (thread_.joinable()) return true;
  try {
    thread_ = startThread("a stream's digest", [this] { run(); });
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

std::string DigestedBlocks::hex() {
  if (wanted_ == ExtraDigest::None) return "";
  std::unique_lock<std::mutex> lock(mutex_);
  isAwaited_ = true;
  changed_.notify_all();
  changed_.wait(lock, [this] { return pending() == 0; });
  isAwaited_ = false;
  if (failure_) std::rethrow_exception(failure_);
  return sha256_.hex();
}

void DigestedBlocks::run() noexcept {
  std::unique_lock<std::mutex> lock(mutex_);
  const auto hasWork = [this] {
    return isOver_ || pending() >= kWorthWaking || (isAwaited_ && pending() > 0);
  };
  for (;;) {
    changed_.wait(lock, hasWork);
    while (pending() > 0 && !isOver_) digestNext(lock);
    if (isOver_) return;
  }
}

void DigestedBlocks::digestNext(std::unique_lock<std::mutex>& lock) {
  const Block& next = block(digested_);
  lock.unlock();
  try {
    sha256_.update(next.bytes.get(), next.size);
  } catch (const std::exception&) {
    failure_ = std::current_exception();
  }
  lock.lock();
  ++digested_;
  if (pending() <= kWorthWaking) changed_.notify_all();
}

}  // namespace korvexd
