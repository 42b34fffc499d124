#ifndef KORVEX_SUPPORT_NO_CANCELLATION_H
#define KORVEX_SUPPORT_NO_CANCELLATION_H

#include <pthread.h>

namespace korvex {

/// While it lives, this thread is not cancelled; a request waits until afterwards.
///
/// Cancellation unwinds the stack like an exception that nobody may stop: it ends the process where
/// it meets a function that throws nothing, a destructor above all. What takes a lock, a descriptor
/// or a name must not be left half-way either.
class NoCancellation {
 public:
  NoCancellation() noexcept { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  ~NoCancellation() { ::pthread_setcancelstate(before_, nullptr); }
  NoCancellation(const NoCancellation&) = delete;
  NoCancellation& operator=(const NoCancellation&) = delete;

 private:
  int before_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace korvex

#endif
