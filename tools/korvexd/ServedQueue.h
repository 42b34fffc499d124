#ifndef KORVEXD_SERVED_QUEUE_H
#define KORVEXD_SERVED_QUEUE_H

#include <korvex/receiver/Receiver.h>

#include <atomic>
#include <string>
#include <thread>

#include "korvexd/config/Settings.h"
#include "korvexd/report/StreamLog.h"

namespace korvexd {

namespace receiver = korvex::receiver;

/// One queue with everything that is its own: its receiver, the thread of it, what is reported.
class ServedQueue {
 public:
  /// Makes the queues. Throws std::exception when that fails; nothing is left then.
  ServedQueue(const QueueSettings& settings, receiver::SinkFactory openSink);

  /// Waits until the thread has ended, then removes the queues.
  ~ServedQueue();
  ServedQueue(const ServedQueue&) = delete;
  ServedQueue& operator=(const ServedQueue&) = delete;

  /// Serves from now on, until `stop` is set. Throws SystemError when there is no thread for it.
  void start(const std::atomic<bool>& stop);

  /// Waits until it no longer serves. What is reported of it can still be read.
  void join();

  const std::string& name() const noexcept { return receiver_.queue(); }
  const QueueSettings& settings() const noexcept { return settings_; }
  const receiver::Counters& counters() const noexcept { return receiver_.counters(); }
  StreamLog& log() noexcept { return log_; }

 private:
  const QueueSettings settings_;
  StreamLog log_;
  receiver::Receiver receiver_;
  std::thread thread_;
};

}  // namespace korvexd

#endif
