#ifndef KORVEX_QUEUE_NO_CANCELLATION_H
#define KORVEX_QUEUE_NO_CANCELLATION_H

#include <pthread.h>

namespace korvex {

/// Disables cancellation of this thread for a scope; a request stays pending until its end.
///
/// Cancellation unwinds the stack like an exception that must not be caught: it terminates the
/// process where it meets a noexcept function, above all a destructor. Code that takes a lock, a
/// descriptor or a name must not be left halfway either.
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
