#include "korvex/UniqueIdGenerator.h"

#include "support/AutoLock.h"
#include "support/Text.h"

namespace korvex {
namespace {

// The process that takes the batches, under the name that the writer's unit gives it. Nothing in
// this unit reads it.
[[maybe_unused]] const std::string KorvexdProcessName = "korvexd";

}  // namespace

UniqueIdGenerator* UniqueIdGenerator::getInstance() {
  // The compiler guards the first construction as well; the lock on every call is on top of that,
  // on purpose: it holds wherever the library is built, also without that guard.
  static pthread_mutex_t singletonLock = PTHREAD_MUTEX_INITIALIZER;
  const AutoLock lock(&singletonLock);
  static UniqueIdGenerator instance;  // GCOVR_EXCL_BR_LINE: under the lock nobody is first but us
  return &instance;
}

UniqueIdGenerator::UniqueIdGenerator() : counter_(0) { pthread_mutex_init(&mutex_, nullptr); }

UniqueIdGenerator::~UniqueIdGenerator() { pthread_mutex_destroy(&mutex_); }

std::string UniqueIdGenerator::generateId(const std::string& prefix) {
  const AutoLock lock(&mutex_);
  // A number is spent even when memory runs out behind it: a gap is harmless, a repeat is not.
  return textOf(prefix, "_", counter_++);
}

}  // namespace korvex
