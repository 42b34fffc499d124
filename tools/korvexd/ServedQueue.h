#ifndef KORVEXD_SERVED_QUEUE_H
#define KORVEXD_SERVED_QUEUE_H

#include <atomic>
#include <korvex/receiver/Receiver.h>
#include <optional>
#include <string>
#include <thread>

#include "korvexd/config/Settings.h"
#include "korvexd/report/StreamLog.h"

namespace korvexd {

namespace receiver = korvex::receiver;

/// One queue with everything that is its own: its receiver, the thread of it, what is reported.
class ServedQueue {
 public:
  /// Creates the queues. Throws std::exception and then leaves nothing behind.
  ServedQueue(const QueueSettings& settings, receiver::SinkFactory openSink);

  /// Stops serving and removes the queues.
  ~ServedQueue();
  ServedQueue(const ServedQueue&) = delete;
  ServedQueue& operator=(const ServedQueue&) = delete;

  /// Serves from now on. Throws SystemError when there is no thread for it.
  void start();

  /// Serves as these settings say, from the next stream on; messages are captured at once.
  void change(const QueueSettings& settings, receiver::SinkFactory openSink,
              std::shared_ptr<Capture> capture);

  /// Refuses new streams from now on; the open one continues.
  void retire() noexcept;

  bool isRetiring() const noexcept { return isRetiring_; }

  /// Whether it was to retire, and no stream is open any more.
  bool hasRetired() const noexcept { return receiver_.hasRetired(); }

  /// Asks the thread to stop serving; does not wait.
  void stop() noexcept { stop_ = true; }

  /// Whether the thread serves no more, or never did.
  bool hasEnded() const noexcept { return hasEnded_; }

  /// Waits for that, after it was asked to. The queue's statistics can still be read.
  void join();

  /// Whether it is served as these settings say, or will be soon.
  bool serves(const QueueSettings& settings) const;

  const std::string& name() const noexcept { return receiver_.queue(); }
  const QueueSettings& settings() const noexcept { return settings_; }
  const receiver::Counters& counters() const noexcept { return receiver_.counters(); }
  StreamLog& log() noexcept { return log_; }

 private:
  QueueSettings settings_;
  StreamLog log_;
  receiver::Receiver receiver_;
  std::thread thread_;
  bool isRetiring_ = false;
  std::atomic<bool> stop_{false};
  std::atomic<bool> hasEnded_{true};
};

}  // namespace korvexd

#endif
