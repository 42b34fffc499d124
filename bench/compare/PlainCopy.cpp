// No transport at all: one process copies as many bytes as each record takes into a buffer of batch
// size, again from its start when it is full.
#include <cstring>

#include "Transports.h"

namespace bench {
namespace {

class CopyProducer : public Producer {
 public:
  explicit CopyProducer(const Settings& settings)
      : settings_(settings),
        step_(bytesOf(settings) / settings.records),
        source_(step_),
        buffer_(new unsigned char[settings.messageSize]) {}

  void run() override {
    std::size_t used = 0;
    for (std::uint64_t i = 0; i < settings_.records; ++i) {
      if (used + step_ > settings_.messageSize) used = 0;
      std::memcpy(buffer_.get() + used, source_.get(), step_);
      used += step_;
      // The copy must happen although nobody reads it.
      asm volatile("" : : "r"(buffer_.get()) : "memory");
    }
  }

 private:
  Settings settings_;
  std::size_t step_;
  RecordData source_;
  std::unique_ptr<unsigned char[]> buffer_;
};

class CopyTransport : public Transport {
 public:
  explicit CopyTransport(const Settings& settings) : settings_(settings) {}

  std::unique_ptr<Producer> openProducer() override {
    return std::make_unique<CopyProducer>(settings_);
  }

  std::unique_ptr<Receiver> openReceiver() override { return nullptr; }

  bool hasConsumer() const override { return false; }

 private:
  Settings settings_;
};

}  // namespace

std::unique_ptr<Transport> makePlainCopy(const Settings& settings) {
  return std::make_unique<CopyTransport>(settings);
}

}  // namespace bench
