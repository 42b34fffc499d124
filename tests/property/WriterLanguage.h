#ifndef TESTS_PROPERTY_WRITER_LANGUAGE_H
#define TESTS_PROPERTY_WRITER_LANGUAGE_H

#include <optional>
#include <string>

#include "property/Item.h"
#include "property/World.h"

namespace korvex::test {

/// What a producer and the daemon at the other end can do.
///
/// `queues` makes both queues again (`missing` 1: no send queue, 2: no response queue) and
/// `construct` a writer on them, whose name is the text; both destroy the writer before. `take`,
/// `drain`, `fill` and `reply` are the daemon's side; `locale` is the process's own. What needs a
/// writer does nothing without one.
const Language& writerLanguage();

/// What a queue can hold; no queue holds 0 messages or 0 bytes.
struct QueueLimits {
  std::size_t messages;
  std::size_t messageSize;
};

struct QueueMessage {
  unsigned priority;
  Bytes bytes;
};

/// One of the two queues, from the daemon's end.
class QueueEnd {
 public:
  virtual ~QueueEnd() = default;
  virtual std::size_t messages() const = 0;
  virtual std::size_t messageSize() const = 0;

  /// False when it is full.
  virtual bool send(const QueueMessage& message) = 0;

  /// Nothing when it is empty.
  virtual std::optional<QueueMessage> take() = 0;
};

struct WriterSettings {
  std::string name;
  std::uint32_t timeout;
  std::uint32_t stopTimeout;
  bool isBenchmark;
};

struct Algorithm {
  std::uint32_t state;
  std::uint64_t parameters[3];
};

/// The language's meaning: which operation it is, and how its outcome is shown.
class WriterWorld : public World {
 protected:
  virtual QueueEnd* sendQueue() const = 0;
  virtual QueueEnd* replyQueue() const = 0;

 private:
  void act(const Operation& operation) final;
  void actOnWriter(const Operation& operation);
  void showState() final;
  void makeQueues(const Operation& operation);
  void take();
  void drain();
  void fill(unsigned priority);
  void reply(const Operation& operation);

  virtual void setGrouping(bool isOn) = 0;

  /// Each absent where there are no limits.
  virtual void makeQueues(std::optional<QueueLimits> send, std::optional<QueueLimits> reply) = 0;
  virtual void construct(const WriterSettings& settings) = 0;

  /// The writer's last reply; nothing without a writer.
  virtual std::optional<Bytes> response() const = 0;

  /// What the operation logged.
  virtual std::string logged() { return ""; }

  virtual void destroy() = 0;
  virtual void open() = 0;
  virtual void close() = 0;
  virtual void stop(bool useStopTimeout) = 0;
  virtual void setAlgorithm(const Algorithm& algorithm) = 0;

  /// The item's data, but told to be of this length.
  virtual void writeSegment(const Item& item, std::uint64_t length) = 0;
  virtual void endSegment() = 0;
  virtual void write(const Item& item, std::uint32_t timeout, bool flush) = 0;
  virtual void flush(std::uint32_t timeout) = 0;
};

}  // namespace korvex::test

#endif
