#include "korvex/UniqueIdGenerator.h"

#include "support/AutoLock.h"
#include "support/Text.h"

namespace korvex {
namespace {

// The receiving process, named as in the writer's unit. Not used in this unit.
[[maybe_unused]] const std::string KorvexdProcessName = "korvexd";

}  // namespace

/// Reinitialises both locks of the process's generator in a forked child: one that another thread
/// held at that moment would stay taken forever.
///
/// The parent takes neither lock before the fork: a thread in generateId() may hold a lock of its
/// own that another fork handler wants, and the two would deadlock. The counter is one aligned
/// word, so it is consistent at any moment. Created when the library is loaded, together with the
/// generator: a fork during a first call would leave the compiler's static initialisation guard
/// taken too.
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
  // The compiler guards the first construction too. The lock on every call is there on purpose: it
  // holds even where the library is built without that guard.
  const AutoLock lock(&singletonLock);
  static UniqueIdGenerator instance;  // GCOVR_EXCL_BR_LINE: the lock lets one thread in
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
  // A number that is in the text is used up, even if memory runs out while the text is copied: a
  // gap is harmless, a repeat is not. A number that never got there is used next time.
  ++counter_;
  return id.str();
}

}  // namespace korvex
