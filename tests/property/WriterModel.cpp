#include "property/WriterModel.h"

#include <algorithm>

namespace property {
namespace {

constexpr std::uint32_t kLargestLimited = 131072;

constexpr int kNotFound = 7;  // the queue library's numbers
constexpr int kSizeRefused = 18;

[[noreturn]] void failInQueue(int code) { throw Failure{"queue error " + std::to_string(code)}; }

void checkTimeout(std::uint32_t timeout) {
  const std::string start = "Invalid timeout, specified value " + std::to_string(timeout);
  if (timeout < 1) fail(9, start + " was less than minimum allowed value of 1");
  if (timeout > 86400) fail(9, start + " was more than maximum allowed value of 86400");
}

std::uint32_t littleStatus(const Bytes& response) {
  std::uint32_t status = 0;
  for (unsigned i = 4; i > 0; --i)
    status = status * 256 + static_cast<unsigned char>(response[i - 1]);
  return status;
}

}  // namespace

std::optional<QueueModel::Message> QueueModel::pop() {
  if (messages_.empty()) return std::nullopt;
  const auto first = std::max_element(
      messages_.begin(), messages_.end(),
      [](const Message& one, const Message& other) { return one.priority < other.priority; });
  const Message message = *first;
  messages_.erase(first);
  return message;
}

Seen WriterModel::perform(const Operation& operation) {
  seen_ = {};
  try {
    act(operation);
  } catch (const Failure& failure) {
    seen_.text += failure.text;
  }
  for (const auto* queue : {&sendQueue_, &replyQueue_}) {
    seen_.text += *queue ? ", queue holds " + std::to_string((*queue)->messages()) : ", no queue";
  }
  seen_.text += writer_ ? ", writer" : ", no writer";
  if (writer_) seen_.blocks.push_back(writer_->response);
  return seen_;
}

void WriterModel::act(const Operation& operation) {
  const std::string verb = operation.verb->name;
  if (verb == "queues") return makeQueues(operation);
  if (verb == "construct") return construct(operation);
  if (verb == "reply") return reply(operation);
  if (verb == "locale") return;  // no locale reaches a digit
  if (verb == "take") return take();
  if (verb == "drain") {
    while (sendQueue_ && sendQueue_->messages() > 0) take();
    return;
  }
  if (verb == "fill") {
    while (sendQueue_ && !sendQueue_->isFull()) {
      sendQueue_->push(operation.low("priority"), kForeignMessage);
    }
    return;
  }
  if (writer_) actOnWriter(operation);
}

void WriterModel::actOnWriter(const Operation& operation) {
  const std::string verb = operation.verb->name;
  if (verb == "destroy") return destroy();
  if (verb == "open") return open();
  if (verb == "close") return close();
  if (verb == "stop") {
    return finish(4, operation["useStopTimeout"] != 0 ? writer_->stopTimeout : writer_->timeout);
  }
  if (verb == "algorithm") {
    writer_->state = operation.low("state");
    writer_->parameters[0] = operation["p1"];
    writer_->parameters[1] = operation["p2"];
    writer_->parameters[2] = operation["p3"];
    return;
  }
  if (verb == "segment") return segment(operation);
  if (verb == "end") return end();
  if (verb == "write") {
    return write(itemOf(operation), operation.low("timeout"), operation["flush"] != 0);
  }
  if (verb == "flush") return flush(operation.low("timeout"));
  throw Failure{"the model does not know " + verb};
}

void WriterModel::makeQueues(const Operation& operation) {
  destroy();
  sendQueue_.reset();
  replyQueue_.reset();
  if (operation["missing"] != 1) sendQueue_ = QueueModel(sendLimitsOf(operation));
  if (operation["missing"] != 2) replyQueue_ = QueueModel(replyLimitsOf(operation));
}

void WriterModel::construct(const Operation& operation) {
  destroy();
  checkTimeout(operation.low("timeout"));
  if (!sendQueue_ || !replyQueue_) failInQueue(kNotFound);
  writer_ = Writer{operation.text, operation.low("timeout"), operation.low("stopTimeout"),
                   operation["benchmark"] != 0, BatchModel(sendQueue_->messageSize())};
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
  Record& header = writer_->header;
  header.type = 0;
  header.len = 0;
  header.sequence = 0;
  header.segmentCount = 0;
  header.segmentEmpty = 1;
  header.segState = 0;
  header.algParam2 = 0;
  write({header, "", true}, writer_->timeout, true);
  header.sequence = 1;
  writer_->isOpen = true;
}

void WriterModel::close() {
  if (!writer_->isOpen) return;
  finish(3, writer_->timeout);
  writer_->isOpen = false;
}

void WriterModel::finish(std::uint32_t type, std::uint32_t timeout) {
  writer_->header.sequence += 1;
  writer_->header.type = type;
  writer_->header.len = 0;
  fillAlgorithm();
  write({writer_->header, "", true}, timeout, true);
  countSegment();
}

void WriterModel::segment(const Operation& operation) {
  if (!writer_->isOpen) fail(44, "Could not write segment data because ShmWriter is not open");
  if (writer_->state > 1) {
    fail(44, "Could not write segment data because wrong algorithm has been set");
  }
  Record& header = writer_->header;
  fillAlgorithm();
  header.sequence += 1;
  header.type = 1;
  header.len = operation.low("length");
  if (header.len != 0) header.segmentEmpty = 0;
  write({header, dataOf(header.len, operation["data"]), operation["data"] == 0}, writer_->timeout,
        false);
}

void WriterModel::end() {
  if (!writer_->isOpen) fail(44, "Could not end segment data because ShmWriter is not open");
  if (writer_->lastType == 2) return;
  fillAlgorithm();
  writer_->header.sequence += 1;
  writer_->header.type = 2;
  writer_->header.len = 0;
  write({writer_->header, "", true}, writer_->timeout, false);
  countSegment();
}

void WriterModel::fillAlgorithm() {
  writer_->header.segState = writer_->state;
  writer_->header.algParam1 = static_cast<std::uint32_t>(writer_->parameters[0]);
  writer_->header.algParam2 = static_cast<std::uint32_t>(writer_->parameters[1]);
  writer_->header.algParam3 = static_cast<std::uint32_t>(writer_->parameters[2]);
}

void WriterModel::countSegment() {
  if (writer_->header.segmentEmpty != 0) return;
  writer_->header.segmentCount += 1;
  writer_->header.segmentEmpty = 1;
}

void WriterModel::write(const Item& item, std::uint32_t timeout, bool flushed) {
  const std::uint32_t length = item.record.len;
  if (length > kLargestLimited && item.record.segState != 1) {
    fail(85, "Segment too large error.  Received segment of size " + std::to_string(length) +
                 " bytes, but the maximum allowed segment size is 131072 bytes");
  }
  if (writer_->isBenchmark) {
    seen_.text +=
        "WarningA -1 write_data: KORVEX_PERF_BENCHMARK_ENABLED is set to 1. This backup will "
        "fail. Dumping data..";
    return;
  }
  if (!writer_->batch.canStore(length)) {
    flush(timeout);
    if (!writer_->batch.canStore(length)) {
      fail(89, "Could not fit header (type=" + std::to_string(item.record.type) +
                   ") with data length " + std::to_string(length) +
                   " into the batch, even after batch has been flushed");
    }
  }
  writer_->batch.push(item);
  writer_->lastType = item.record.type;
  if (flushed) flush(timeout);
}

void WriterModel::flush(std::uint32_t timeout) {
  if (sendQueue_->isFull()) {
    const std::string stream = writer_->name.empty() ? "" : " on stream " + writer_->name;
    fail(15, "Timed out after waiting " + std::to_string(timeout) + "s to send data to korvexd" +
                 stream);
  }
  sendQueue_->push(1, writer_->batch.used());
  writer_->batch.clear();
  pollReply();
}

void WriterModel::pollReply() {
  // The library refuses every queue whose messages could be larger than the room offered to them.
  if (replyQueue_->messageSize() > 132) failInQueue(kSizeRefused);
  const auto reply = replyQueue_->pop();
  if (!reply) return;
  writer_->response = reply->bytes;
  writer_->response.resize(132, '\0');
  const std::uint32_t status = littleStatus(writer_->response);
  if (status == 0) return;
  const Bytes text = writer_->response.substr(4);
  fail(status, text.substr(0, text.find('\0')));
}

void WriterModel::take() {
  if (!sendQueue_) return;
  const auto message = sendQueue_->pop();
  if (!message) return;
  seen_.text += "message of priority " + std::to_string(message->priority) + "; ";
  seen_.blocks.push_back(message->bytes);
}

void WriterModel::reply(const Operation& operation) {
  if (!replyQueue_ || replyQueue_->isFull()) return;
  replyQueue_->push(operation.low("priority"), replyOf(operation, replyQueue_->messageSize()));
}

}  // namespace property
