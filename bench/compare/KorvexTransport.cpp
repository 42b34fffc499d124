// The library itself, and the queue below it with the library's way of waiting.
#include <chrono>
#include <korvex/ShmWriter.h>
#include <stdexcept>
#include <utility>

#include "Transports.h"
#include "queue/MessageQueue.h"
#include "queue/Pause.h"

namespace bench {
namespace {

using korvex::MessageQueue;

constexpr unsigned kTimeoutSeconds = 60;
constexpr unsigned kPriority = 1;
constexpr mode_t kMode = 0600;
constexpr std::size_t kResponses = 16;
constexpr std::chrono::milliseconds kLongestSleep{4};

MessageQueue::Clock::time_point deadline() {
  return MessageQueue::Clock::now() + std::chrono::seconds(kTimeoutSeconds);
}

/// A queue that is removed by whoever made it.
class OwnedQueue {
 public:
  OwnedQueue(const std::string& name, MessageQueue::Limits limits)
      : name_(name), queue_(name, limits, kMode) {}
  ~OwnedQueue() { MessageQueue::remove(name_); }
  OwnedQueue(const OwnedQueue&) = delete;
  OwnedQueue& operator=(const OwnedQueue&) = delete;

 private:
  std::string name_;
  MessageQueue queue_;
};

class QueueSender : public Sender {
 public:
  explicit QueueSender(const Settings& settings)
      : queue_(settings.name, deadline()), joined_(largestMessage(settings)) {}

  void send(Bytes head, Bytes body) override {
    const Bytes message = joined_.join(head, body);
    if (!queue_.sendBefore(message.data, message.size, kPriority, deadline())) {
      throw std::runtime_error("the queue stayed full");
    }
  }

 private:
  MessageQueue queue_;
  JoinBuffer joined_;
};

/// How a receiver takes a message: as the queue gives it, or as the library's daemon does, which
/// fetches the bytes before it takes the lock.
enum class Taking { Plain, FetchedAhead };

class QueueReceiver : public Receiver {
 public:
  QueueReceiver(const Settings& settings, Taking taking)
      : queue_(settings.name, deadline()),
        buffer_(new unsigned char[queue_.maxMessageSize()]),
        taking_(taking) {}

  Bytes receive() override {
    const auto end = deadline();
    korvex::Pause pause(kLongestSleep);
    for (;;) {
      std::size_t size = 0;
      if (queue_.view().messages() != 0 && take(size)) return {buffer_.get(), size};
      if (MessageQueue::Clock::now() >= end) throw std::runtime_error("the queue stayed empty");
      pause.wait(end);
    }
  }

 private:
  bool take(std::size_t& size) { return outcome(size) == MessageQueue::Outcome::Done; }

  MessageQueue::Outcome outcome(std::size_t& size) {
    const std::size_t capacity = queue_.maxMessageSize();
    if (taking_ == Taking::FetchedAhead) {
      return queue_.tryReceiveNext(buffer_.get(), capacity, size);
    }
    korvex::Pause pause(kLongestSleep);
    while (pause.isSpinning() && queue_.view().looksLocked()) pause.wait(deadline());
    return queue_.tryReceive(buffer_.get(), capacity, size);
  }

  MessageQueue queue_;
  std::unique_ptr<unsigned char[]> buffer_;
  Taking taking_;
};

class PolledQueueTransport : public Transport {
 public:
  PolledQueueTransport(const Settings& settings, Taking taking)
      : settings_(settings),
        queue_(settings.name, {settings.depth, largestMessage(settings)}),
        taking_(taking) {}

  std::unique_ptr<Producer> openProducer() override {
    return makeProducer(settings_, std::make_unique<QueueSender>(settings_));
  }

  std::unique_ptr<Receiver> openReceiver() override {
    return std::make_unique<QueueReceiver>(settings_, taking_);
  }

 private:
  Settings settings_;
  OwnedQueue queue_;
  Taking taking_;
};

class WriterProducer : public Producer {
 public:
  explicit WriterProducer(const Settings& settings)
      : settings_(settings),
        data_(settings.recordSize),
        writer_("benchmark", settings.name, kTimeoutSeconds, kTimeoutSeconds, false) {}

  void run() override {
    writer_.setSegmentAlg(KORVEX_SEG_STATE_LIMITED, 0, 0, 0);
    writer_.open();
    for (std::uint64_t i = 0; i < settings_.records; ++i) {
      writer_.writeSegment(data_.get(), settings_.recordSize);
    }
    writer_.close();
  }

 private:
  Settings settings_;
  RecordData data_;
  korvex::ShmWriter writer_;
};

class KorvexTransport : public Transport {
 public:
  explicit KorvexTransport(const Settings& settings)
      : settings_(settings),
        queue_(settings.name, {settings.depth, settings.messageSize}),
        responses_(korvex::getMessageQueueResponseName(settings.name),
                   {kResponses, sizeof(korvex::qmx_shm_response_t)}) {}

  std::unique_ptr<Producer> openProducer() override {
    return std::make_unique<WriterProducer>(settings_);
  }

  std::unique_ptr<Receiver> openReceiver() override {
    return std::make_unique<QueueReceiver>(settings_, Taking::FetchedAhead);
  }

 private:
  Settings settings_;
  OwnedQueue queue_;
  OwnedQueue responses_;
};

}  // namespace

std::unique_ptr<Transport> makeKorvex(const Settings& settings) {
  return std::make_unique<KorvexTransport>(settings);
}

std::unique_ptr<Transport> makePolledQueue(const Settings& settings) {
  return std::make_unique<PolledQueueTransport>(settings, Taking::Plain);
}

std::unique_ptr<Transport> makeFetchedQueue(const Settings& settings) {
  return std::make_unique<PolledQueueTransport>(settings, Taking::FetchedAhead);
}

}  // namespace bench
