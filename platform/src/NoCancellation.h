#ifndef QMX_NO_CANCELLATION_H
#define QMX_NO_CANCELLATION_H

#include <pthread.h>

namespace qmx {

/// While it lives, this thread is not cancelled; a request waits until afterwards. A line is
/// written by calls that a thread can be cancelled in, from functions that throw nothing: the
/// process would end there.
class NoCancellation {
 public:
  NoCancellation() noexcept { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  ~NoCancellation() { ::pthread_setcancelstate(before_, nullptr); }
  NoCancellation(const NoCancellation&) = delete;
  NoCancellation& operator=(const NoCancellation&) = delete;

 private:
  int before_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace qmx

#endif
