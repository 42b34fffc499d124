#include "korvexd/sink/DigestedBlocks.h"

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
    changed_.wait(lock, [this] { return submitted_ - digested_ < kBlocks; });
  }
  Block& next = block(submitted_);
  if (next.bytes == nullptr) next.bytes.reset(new unsigned char[kBlockSize]);
  return next.bytes.get();
}

void DigestedBlocks::submit(std::size_t size) {
  if (wanted_ == ExtraDigest::None) return;
  if (!thread_.joinable()) {
    if (size < kBlockSize) return sha256_.update(current(), size);
    thread_ = startThread("a stream's digest", [this] { run(); });
  }
  block(submitted_).size = size;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++submitted_;
  }
  changed_.notify_all();
}

std::string DigestedBlocks::hex() {
  if (wanted_ == ExtraDigest::None) return "";
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return submitted_ == digested_; });
  if (failure_) std::rethrow_exception(failure_);
  return sha256_.hex();
}

void DigestedBlocks::run() noexcept {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return isOver_ || digested_ < submitted_; });
    if (isOver_) return;
    digestNext(lock);
  }
}

void DigestedBlocks::digestNext(std::unique_lock<std::mutex>& lock) {
  const Block& next = block(digested_);
  lock.unlock();
  std::exception_ptr failure;
  try {
    sha256_.update(next.bytes.get(), next.size);
  } catch (const std::exception&) {
    failure = std::current_exception();
  }
  lock.lock();
  if (failure) failure_ = failure;
  ++digested_;
  changed_.notify_all();
}

}  // namespace korvexd
