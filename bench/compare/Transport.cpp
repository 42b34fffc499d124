#include "Transport.h"

#include <cstring>
#include <korvex/ShmBatch.h>
#include <utility>

namespace bench {
namespace {

constexpr std::uint32_t kTypeSegmentData = 1;

korvex::qmx_shm_message_t headerOf(const Settings& settings) {
  korvex::qmx_shm_message_t header;
  header.type = kTypeSegmentData;
  header.len = static_cast<std::uint32_t>(settings.recordSize);
  header.segmentEmpty = 0;
  return header;
}

/// One message per record.
class RecordProducer : public Producer {
 public:
  RecordProducer(const Settings& settings, std::unique_ptr<Sender> sender)
      : settings_(settings), sender_(std::move(sender)), data_(settings.recordSize) {}

  void run() override {
    korvex::qmx_shm_message_t header = headerOf(settings_);
    unsigned char head[48];
    for (std::uint64_t i = 0; i < settings_.records; ++i) {
      ++header.sequence;
      header.serializeToBuffer(head);
      sender_->send({head, sizeof head}, {data_.get(), settings_.recordSize});
    }
  }

 private:
  Settings settings_;
  std::unique_ptr<Sender> sender_;
  RecordData data_;
};

/// The library's batch in front of another transport.
class BatchProducer : public Producer {
 public:
  BatchProducer(const Settings& settings, std::unique_ptr<Sender> sender)
      : settings_(settings),
        sender_(std::move(sender)),
        data_(settings.recordSize),
        batch_(settings.messageSize) {}

  void run() override {
    korvex::qmx_shm_message_t header = headerOf(settings_);
    for (std::uint64_t i = 0; i < settings_.records; ++i) {
      ++header.sequence;
      const korvex::ShmBatch::Entry entry(header, data_.get());
      if (!batch_.canStore(entry)) flush();
      batch_.pushBack(entry);
    }
    flush();
  }

 private:
  void flush() {
    sender_->send({batch_.getRaw(), batch_.getRawSize()}, {nullptr, 0});
    batch_.clear();
  }

  Settings settings_;
  std::unique_ptr<Sender> sender_;
  RecordData data_;
  korvex::ShmBatch batch_;
};

class OpaqueProducer : public Producer {
 public:
  OpaqueProducer(const Settings& settings, std::unique_ptr<Sender> sender)
      : settings_(settings), sender_(std::move(sender)), data_(settings.messageSize) {}

  void run() override {
    const std::uint64_t messages = opaqueMessages(settings_);
    for (std::uint64_t i = 0; i < messages; ++i) {
      sender_->send({data_.get(), settings_.messageSize}, {nullptr, 0});
    }
  }

 private:
  Settings settings_;
  std::unique_ptr<Sender> sender_;
  RecordData data_;
};

}  // namespace

std::unique_ptr<Producer> makeProducer(const Settings& settings, std::unique_ptr<Sender> sender) {
  switch (settings.framing) {
    case Framing::Record:
      return std::make_unique<RecordProducer>(settings, std::move(sender));
    case Framing::Batch:
      return std::make_unique<BatchProducer>(settings, std::move(sender));
    case Framing::Opaque:
      break;
  }
  return std::make_unique<OpaqueProducer>(settings, std::move(sender));
}

Bytes JoinBuffer::join(Bytes head, Bytes body) {
  if (body.size == 0) return head;
  std::memcpy(bytes_.get(), head.data, head.size);
  std::memcpy(bytes_.get() + head.size, body.data, body.size);
  return {bytes_.get(), head.size + body.size};
}

RecordData::RecordData(std::size_t size) : bytes_(new unsigned char[size]) {
  for (std::size_t i = 0; i < size; ++i) bytes_[i] = static_cast<unsigned char>(i * 31 + i / 251);
}

}  // namespace bench
