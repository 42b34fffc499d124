#include "property/WriterModel.h"

#include <algorithm>

namespace korvex::test {
namespace {

constexpr std::uint32_t kLargestLimited = 131072;
constexpr std::uint32_t kUnlimitedState = 1;

constexpr int kNotFound = 7;  // the queue library's numbers
constexpr int kSizeRefused = 18;

[[noreturn]] void failInQueue(int code) { throw Failure{"queue error " + std::to_string(code)}; }

void checkTimeout(std::uint32_t timeout) {
  const std::string start = "Invalid timeout, specified value " + std::to_string(timeout);
  if (timeout < 1) fail(9, start + " was less than minimum allowed value of 1");
  if (timeout > 86400) fail(9, start + " was more than maximum allowed value of 86400");
}

std::unique_ptr<ModelQueue> made(std::optional<QueueLimits> limits) {
  return limits ? std::make_unique<ModelQueue>(*limits) : nullptr;
}

}  // namespace

bool ModelQueue::send(const QueueMessage& message) {
  if (isFull()) return false;
  messages_.push_back(message);
  return true;
}

std::optional<QueueMessage> ModelQueue::take() {
  if (messages_.empty()) return std::nullopt;
  const auto first = std::max_element(messages_.begin(), messages_.end(),
                                      [](const QueueMessage& one, const QueueMessage& other) {
                                        return one.priority < other.priority;
                                      });
  const QueueMessage message = *first;
  messages_.erase(first);
  return message;
}

std::optional<Bytes> WriterModel::response() const {
  if (!writer_) return std::nullopt;
  return writer_->response;
}

void WriterModel::makeQueues(std::optional<QueueLimits> send, std::optional<QueueLimits> reply) {
  sendQueue_ = made(send);
  replyQueue_ = made(reply);
}

void WriterModel::construct(const WriterSettings& settings) {
  checkTimeout(settings.timeout);
  if (!sendQueue_ || !replyQueue_) failInQueue(kNotFound);
  writer_ = Writer{settings, ModelBatch(sendQueue_->messageSize())};
}

void WriterModel::destroy() {
  if (!writer_) return;
  try {
    close();
  } catch (const Failure&) {
    // Lost, as the destructor's errors are.
  }
  writer_.reset();
}

void WriterModel::open() {
  if (writer_->isOpen) return;
  Header fresh;
  fresh.algParam1 = writer_->header.algParam1;  // kept, unlike the second
  fresh.algParam3 = writer_->header.algParam3;
  writer_->header = fresh;
  write({fresh, {}, true}, writer_->settings.timeout, true);
  writer_->header.sequence = 1;
  writer_->isOpen = true;
}

void WriterModel::close() {
  if (!writer_->isOpen) return;
  finish(kClose, writer_->settings.timeout);
  writer_->isOpen = false;
}

void WriterModel::stop(bool useStopTimeout) {
  const WriterSettings& settings = writer_->settings;
  finish(kStop, useStopTimeout ? settings.stopTimeout : settings.timeout);
}

void WriterModel::finish(std::uint32_t type, std::uint32_t timeout) {
  writeNext(type, {}, timeout, true);
  countSegment();
}

void WriterModel::writeSegment(const Item& item, std::uint64_t length) {
  if (!writer_->isOpen) fail(44, "Could not write segment data because ShmWriter is not open");
  if (writer_->algorithm.state > kUnlimitedState) {
    fail(44, "Could not write segment data because wrong algorithm has been set");
  }
  Item told = item;
  told.header.len = static_cast<std::uint32_t>(length);
  if (told.header.len != 0) writer_->header.segmentEmpty = 0;
  writeNext(kData, told, writer_->settings.timeout, false);
}

void WriterModel::endSegment() {
  if (!writer_->isOpen) fail(44, "Could not end segment data because ShmWriter is not open");
  if (writer_->lastType == kSegmentEnd) return;
  writeNext(kSegmentEnd, {}, writer_->settings.timeout, false);
  countSegment();
}

/// With the stream's own header, of which the item gives the length alone.
void WriterModel::writeNext(std::uint32_t type, const Item& item, std::uint32_t timeout,
                            bool flushes) {
  Header& header = writer_->header;
  header.type = type;
  header.len = item.header.len;
  header.sequence += 1;
  header.segState = writer_->algorithm.state;
  header.algParam1 = static_cast<std::uint32_t>(writer_->algorithm.parameters[0]);
  header.algParam2 = static_cast<std::uint32_t>(writer_->algorithm.parameters[1]);
  header.algParam3 = static_cast<std::uint32_t>(writer_->algorithm.parameters[2]);
  write({header, item.data, item.isNull}, timeout, flushes);
}

void WriterModel::countSegment() {
  if (writer_->header.segmentEmpty != 0) return;
  writer_->header.segmentCount += 1;
  writer_->header.segmentEmpty = 1;
}

void WriterModel::write(const Item& item, std::uint32_t timeout, bool flushes) {
  const std::uint32_t length = item.header.len;
  if (length > kLargestLimited && item.header.segState != kUnlimitedState) {
    fail(85, "Segment too large error.  Received segment of size " + std::to_string(length) +
                 " bytes, but the maximum allowed segment size is 131072 bytes");
  }
  if (writer_->settings.isBenchmark) {
    return say(
        "WarningA -1 write_data: KORVEX_PERF_BENCHMARK_ENABLED is set to 1. This backup will "
        "fail. Dumping data..");
  }
  if (!writer_->batch.canStore(length)) {
    flush(timeout);
    if (!writer_->batch.canStore(length)) {
      fail(89, "Could not fit header (type=" + std::to_string(item.header.type) +
                   ") with data length " + std::to_string(length) +
                   " into the batch, even after batch has been flushed");
    }
  }
  writer_->batch.push(item);
  writer_->lastType = item.header.type;
  if (flushes) flush(timeout);
}

void WriterModel::flush(std::uint32_t timeout) {
  if (sendQueue_->isFull()) {
    const std::string& name = writer_->settings.name;
    fail(15, "Timed out after waiting " + std::to_string(timeout) + "s to send data to korvexd" +
                 (name.empty() ? "" : " on stream " + name));
  }
  sendQueue_->send({1, writer_->batch.used()});
  writer_->batch.clear();
  pollReply();
}

void WriterModel::pollReply() {
  // The library refuses every queue whose messages could be larger than the room offered to them.
  if (replyQueue_->messageSize() > kReplySize) failInQueue(kSizeRefused);
  const auto reply = replyQueue_->take();
  if (!reply) return;
  writer_->response = reply->bytes;
  writer_->response.resize(kReplySize, 0);
  const std::uint32_t status = replyStatus(writer_->response);
  if (status != 0) fail(status, replyText(writer_->response));
}

}  // namespace korvex::test
