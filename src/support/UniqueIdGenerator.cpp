#include "korvex/UniqueIdGenerator.h"

#include "support/AutoLock.h"
#include "support/Text.h"

namespace korvex {
namespace {

// The process that takes the batches, under the name that the writer's unit gives it. Nothing in
// this unit reads it.
[[maybe_unused]] const std::string KorvexdProcessName = "korvexd";

}  // namespace

/// Gives a forked child both locks of the process's generator as new: one that another thread held
/// at that moment would stay taken forever.
///
/// The parent takes neither for it. A thread may draw while it holds a lock of its own that another
/// fork handler wants, and the two would wait for each other. The counter is one aligned word, so
/// it is whole at any moment. Made while the library is loaded, and the generator with it: a first
/// call that a fork interrupts would leave the compiler's guard taken as well.
class UniqueIdGenerator::ForkGuard {
 public:
  ForkGuard() {
    getInstance();
    ::pthread_atfork(nullptr, nullptr, renewLocks);
  }

  static pthread_mutex_t* singletonLock;
  static UniqueIdGenerator* generator;

 private:
  static void renewLocks() {
    ::pthread_mutex_init(singletonLock, nullptr);
    ::pthread_mutex_init(&generator->mutex_, nullptr);
  }

  static const ForkGuard madeAtLoad;
};

pthread_mutex_t* UniqueIdGenerator::ForkGuard::singletonLock = nullptr;
UniqueIdGenerator* UniqueIdGenerator::ForkGuard::generator = nullptr;
const UniqueIdGenerator::ForkGuard UniqueIdGenerator::ForkGuard::madeAtLoad;

UniqueIdGenerator* UniqueIdGenerator::getInstance() {
  static pthread_mutex_t singletonLock = PTHREAD_MUTEX_INITIALIZER;
  // The compiler guards the first construction as well; the lock on every call is on top of that,
  // on purpose: it holds wherever the library is built, even without that guard.
  const AutoLock lock(&singletonLock);
  static UniqueIdGenerator instance;  // GCOVR_EXCL_BR_LINE: under the lock nobody is first but us
  ForkGuard::singletonLock = &singletonLock;
  ForkGuard::generator = &instance;
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
