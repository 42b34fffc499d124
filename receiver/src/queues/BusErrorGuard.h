#ifndef KORVEX_RECEIVER_SURVIVE_CUT_H
#define KORVEX_RECEIVER_SURVIVE_CUT_H

#include <functional>
#include <stdexcept>

#include "korvex/receiver/BusErrorGuard.h"

namespace korvex::receiver {

/// The memory of a queue ended before the queue did.
class QueueCut : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Runs a step that touches queues. Throws QueueCut when it touched memory that its file no longer
/// has, because somebody cut it, or that the system could not give: the system sends a signal then,
/// which would end the daemon and every other stream with it.
///
/// The step is left where it was, without its destructors. That is right here because the queue's
/// memory is touched by nothing but plain reads, writes and copies of the queue library; what it
/// leaves behind is the queue's lock, and the queue is lost anyway.
void surviveCut(const std::function<void()>& step);

}  // namespace korvex::receiver

#endif
