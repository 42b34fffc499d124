#include "ManualQueue.h"
#include "Transports.h"

namespace bench {
namespace {

class ManualSender : public Sender {
 public:
  explicit ManualSender(const Settings& settings)
      : queue_(openManualQueue(settings.name.c_str())), joined_(largestMessage(settings)) {}

  void send(Bytes head, Bytes body) override {
    const Bytes message = joined_.join(head, body);
    queue_->send(message.data, message.size);
  }

 private:
  std::unique_ptr<ManualQueue> queue_;
  JoinBuffer joined_;
};

class ManualReceiver : public Receiver {
 public:
  explicit ManualReceiver(const Settings& settings)
      : queue_(openManualQueue(settings.name.c_str())),
        capacity_(largestMessage(settings)),
        buffer_(new unsigned char[capacity_]) {}

  Bytes receive() override { return {buffer_.get(), queue_->receive(buffer_.get(), capacity_)}; }

 private:
  std::unique_ptr<ManualQueue> queue_;
  std::size_t capacity_;
  std::unique_ptr<unsigned char[]> buffer_;
};

class ManualQueueTransport : public Transport {
 public:
  explicit ManualQueueTransport(const Settings& settings)
      : settings_(settings),
        queue_(createManualQueue(settings.name.c_str(), settings.depth, largestMessage(settings))) {
  }
  ~ManualQueueTransport() override { removeManualQueue(settings_.name.c_str()); }

  std::unique_ptr<Producer> openProducer() override {
    return makeProducer(settings_, std::make_unique<ManualSender>(settings_));
  }

  std::unique_ptr<Receiver> openReceiver() override {
    return std::make_unique<ManualReceiver>(settings_);
  }

 private:
  Settings settings_;
  std::unique_ptr<ManualQueue> queue_;
};

}  // namespace

std::unique_ptr<Transport> makeManualQueue(const Settings& settings) {
  return std::make_unique<ManualQueueTransport>(settings);
}

}  // namespace bench
