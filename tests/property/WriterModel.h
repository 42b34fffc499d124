#ifndef TESTS_PROPERTY_WRITER_MODEL_H
#define TESTS_PROPERTY_WRITER_MODEL_H

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "property/BatchModel.h"
#include "property/WriterLanguage.h"

namespace korvex::test {

/// A queue as its two ends see it: the highest priority leaves first, equal ones in their order.
class ModelQueue : public QueueEnd {
 public:
  explicit ModelQueue(QueueLimits limits) : limits_(limits) {}

  bool isFull() const { return messages_.size() >= limits_.messages; }
  std::size_t messages() const override { return messages_.size(); }
  std::size_t messageSize() const override { return limits_.messageSize; }
  bool send(const QueueMessage& message) override;
  std::optional<QueueMessage> take() override;

 private:
  QueueLimits limits_;
  std::vector<QueueMessage> messages_;
};

/// How a writer and its two queues must behave. Deadlines always have passed here: a full queue
/// is an error at once.
class WriterModel : public WriterWorld {
 public:
  /// Bytes that remain in the writer's batch, and the send queue's message size; 0 without.
  std::uint64_t room() const { return writer_ ? writer_->batch.room() : 0; }
  std::uint64_t messageSize() const { return sendQueue_ ? sendQueue_->messageSize() : 0; }

 private:
  struct Writer {
    WriterSettings settings;
    ModelBatch batch;
    bool isOpen = false;
    Header header{};
    Bytes response = Bytes(kReplySize, 0);
    std::uint32_t lastType = kStop;
    Algorithm algorithm{};
  };

  QueueEnd* sendQueue() const override { return sendQueue_.get(); }
  QueueEnd* replyQueue() const override { return replyQueue_.get(); }
  std::optional<Bytes> response() const override;
  void setGrouping(bool) override {}  // no locale reaches a digit
  void makeQueues(std::optional<QueueLimits> send, std::optional<QueueLimits> reply) override;
  void construct(const WriterSettings& settings) override;
  void destroy() override;
  void open() override;
  void close() override;
  void stop(bool useStopTimeout) override;
  void setAlgorithm(const Algorithm& algorithm) override { writer_->algorithm = algorithm; }
  void writeSegment(const Item& item, std::uint64_t length) override;
  void endSegment() override;
  void write(const Item& item, std::uint32_t timeout, bool flushes) override;
  void flush(std::uint32_t timeout) override;

  void writeNext(std::uint32_t type, const Item& item, std::uint32_t timeout, bool flushes);
  void finish(std::uint32_t type, std::uint32_t timeout);
  void countSegment();
  void pollReply();

  std::unique_ptr<ModelQueue> sendQueue_;
  std::unique_ptr<ModelQueue> replyQueue_;
  std::optional<Writer> writer_;
};

}  // namespace korvex::test

#endif
