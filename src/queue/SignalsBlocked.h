#ifndef KORVEX_QUEUE_SIGNALS_BLOCKED_H
#define KORVEX_QUEUE_SIGNALS_BLOCKED_H

#include <signal.h>

namespace korvex {

/// Blocks all signals to this thread for a scope.
class SignalsBlocked {
 public:
  SignalsBlocked() noexcept {
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t before_;
};

}  // namespace korvex

#endif
