#include "korvex/UniqueIdGenerator.h"

#include "support/AutoLock.h"
#include "support/Text.h"

namespace korvex {
namespace {

// The process that takes the batches, under the name that the writer's unit gives it. Nothing in
// this unit reads it.
[[maybe_unused]] const std::string KorvexdProcessName = "korvexd";

// Of getInstance() alone, out here because forks take it too.
pthread_mutex_t singletonLock = PTHREAD_MUTEX_INITIALIZER;

}  // namespace

/// Takes both locks of the process's generator over a fork. A child that was forked while another
/// thread held one would find it taken forever.
///
/// Always the outer lock first. Nobody else holds one while it waits for the other, so this cannot
/// lock anybody out. Made while the library is loaded: the first draw would be too late.
class UniqueIdGenerator::ForkGuard {
 public:
  ForkGuard() { ::pthread_atfork(lockBoth, unlockBoth, unlockBoth); }

  static UniqueIdGenerator* guarded;  ///< under singletonLock; null before the first getInstance()

 private:
  static void lockBoth() {
    ::pthread_mutex_lock(&singletonLock);
    if (guarded != nullptr) ::pthread_mutex_lock(&guarded->mutex_);
  }

  static void unlockBoth() {
    if (guarded != nullptr) ::pthread_mutex_unlock(&guarded->mutex_);
    ::pthread_mutex_unlock(&singletonLock);
  }

  static const ForkGuard madeAtLoad;
};

UniqueIdGenerator* UniqueIdGenerator::ForkGuard::guarded = nullptr;
const UniqueIdGenerator::ForkGuard UniqueIdGenerator::ForkGuard::madeAtLoad;

UniqueIdGenerator* UniqueIdGenerator::getInstance() {
  // The compiler guards the first construction as well; the lock on every call is on top of that,
  // on purpose: it holds wherever the library is built, also without that guard.
  const AutoLock lock(&singletonLock);
  static UniqueIdGenerator instance;  // GCOVR_EXCL_BR_LINE: under the lock nobody is first but us
  ForkGuard::guarded = &instance;
  return &instance;
}

UniqueIdGenerator::UniqueIdGenerator() : counter_(0) { pthread_mutex_init(&mutex_, nullptr); }

UniqueIdGenerator::~UniqueIdGenerator() { pthread_mutex_destroy(&mutex_); }

std::string UniqueIdGenerator::generateId(const std::string& prefix) {
  std::ostringstream id = plainStream();
  const AutoLock lock(&mutex_);
  id << prefix << "_" << counter_;
  // A number that is in the text is spent, even when memory runs out while the text is copied: a
  // gap is harmless, a repeat is not. One that never got there is still to be had.
  ++counter_;
  return id.str();
}

}  // namespace korvex
