#include "korvexd/ServedQueue.h"

#include <utility>

#include "korvexd/os/Thread.h"

namespace korvexd {

ServedQueue::ServedQueue(const QueueSettings& settings, receiver::SinkFactory openSink)
    : settings_(settings),
      log_(settings.receiver.queue, settings.capture),
      receiver_(settings.receiver, std::move(openSink), log_) {}

ServedQueue::~ServedQueue() { join(); }

void ServedQueue::start(const std::atomic<bool>& stop) {
  thread_ = startThread("queue " + name(), [this, &stop] { receiver_.run(stop); });
}

void ServedQueue::join() {
  if (thread_.joinable()) thread_.join();
}

}  // namespace korvexd
