#ifndef TESTS_PROPERTY_WRITER_MODEL_H
#define TESTS_PROPERTY_WRITER_MODEL_H

#include <optional>
#include <string>
#include <vector>

#include "property/BatchModel.h"
#include "property/WriterLanguage.h"

namespace property {

/// A queue as its two ends see it: the highest priority leaves first, equal ones in their order.
class QueueModel {
 public:
  struct Message {
    std::uint64_t priority;
    Bytes bytes;
  };

  explicit QueueModel(QueueLimits limits) : limits_(limits) {}

  bool isFull() const { return messages_.size() >= limits_.messages; }
  std::size_t messages() const { return messages_.size(); }
  std::size_t messageSize() const { return limits_.messageSize; }
  void push(std::uint64_t priority, const Bytes& bytes) { messages_.push_back({priority, bytes}); }
  std::optional<Message> pop();

 private:
  QueueLimits limits_;
  std::vector<Message> messages_;
};

/// How a writer and its two queues must behave. Deadlines always have passed here: a full queue
/// is an error at once.
class WriterModel : public Model {
 public:
  Seen perform(const Operation& operation) override;

  /// Bytes that the writer's batch has left, and the send queue's message size; 0 without.
  std::uint64_t room() const { return writer_ ? writer_->batch.room() : 0; }
  std::uint64_t messageSize() const { return sendQueue_ ? sendQueue_->messageSize() : 0; }

 private:
  struct Writer {
    std::string name;
    std::uint32_t timeout;
    std::uint32_t stopTimeout;
    bool isBenchmark;
    BatchModel batch;
    bool isOpen = false;
    Record header{};
    Bytes response = Bytes(132, '\0');
    std::uint32_t lastType = 4;
    std::uint32_t state = 0;
    std::uint64_t parameters[3] = {0, 0, 0};
  };

  void act(const Operation& operation);
  void actOnWriter(const Operation& operation);
  void makeQueues(const Operation& operation);
  void construct(const Operation& operation);
  void destroy();
  void open();
  void close();
  void finish(std::uint32_t type, std::uint32_t timeout);
  void segment(const Operation& operation);
  void end();
  void fillAlgorithm();
  void countSegment();
  void write(const Item& item, std::uint32_t timeout, bool flush);
  void flush(std::uint32_t timeout);
  void pollReply();
  void take();
  void reply(const Operation& operation);

  std::optional<QueueModel> sendQueue_;
  std::optional<QueueModel> replyQueue_;
  std::optional<Writer> writer_;
  Seen seen_;
};

}  // namespace property

#endif
