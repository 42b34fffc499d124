#ifndef QMX_NO_CANCELLATION_H
#define QMX_NO_CANCELLATION_H

#include <pthread.h>

namespace qmx {

/// Disables cancellation of this thread for a scope; a request stays pending until its end. Writing
/// a line makes calls that are cancellation points, from noexcept functions: cancellation there
/// would terminate the process.
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
