#include "korvexd/ServedQueue.h"

#include <utility>

#include "korvexd/os/Thread.h"

namespace korvexd {

ServedQueue::ServedQueue(const QueueSettings& settings, receiver::SinkFactory openSink)
    : settings_(settings),
      log_(settings.receiver.queue, settings.capture),
      receiver_(settings.receiver, std::move(openSink), log_) {}

ServedQueue::~ServedQueue() {
  stop();
  join();
}

void ServedQueue::start() {
  hasEnded_ = false;
  thread_ = startThread("queue " + name(), [this] {
    receiver_.run(stop_);
    hasEnded_ = true;
  });
}

void ServedQueue::change(const QueueSettings& settings, receiver::SinkFactory openSink,
                         std::shared_ptr<Capture> capture) {
  log_.captureWith(std::move(capture));
  log_.expectChange();
  receiver_.change(settings.receiver, std::move(openSink));
  settings_ = settings;
}

void ServedQueue::retire() noexcept {
  isRetiring_ = true;
  receiver_.retire();
}

void ServedQueue::join() {
  if (thread_.joinable()) thread_.join();
}

bool ServedQueue::serves(const QueueSettings& settings) const {
  return !isRetiring_ && settings == settings_ && !log_.wasChangeRefused();
}

}  // namespace korvexd
