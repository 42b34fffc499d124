#ifndef TESTS_SUPPORT_FAKE_DAEMON_H
#define TESTS_SUPPORT_FAKE_DAEMON_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <korvex/ShmBatch.h>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "queue/MessageQueue.h"

namespace korvex::test {

/// The receiving end of a queue pair, in this process, that answers as the test says.
///
/// Until serve() it takes nothing. From then on a thread of its own takes batch after batch, keeps
/// the records and calls the reaction for each. The queues go with the object.
class FakeDaemon {
 public:
  struct Record {
    std::uint32_t type;
    std::string data;
  };
  using Reaction = std::function<void(FakeDaemon&, const Record&)>;

  static constexpr MessageQueue::Limits kLimits = {4, 4096};

  explicit FakeDaemon(MessageQueue::Limits limits = kLimits);
  ~FakeDaemon();
  FakeDaemon(const FakeDaemon&) = delete;
  FakeDaemon& operator=(const FakeDaemon&) = delete;

  const std::string& queue() const { return name_; }

  void serve(Reaction reaction);

  /// Takes what is still in the queue, then stops.
  void finish();

  /// Puts a reply into the response queue, before serve() or from the reaction.
  void reply(std::uint32_t status, const std::string& text);

  /// Removes the queues' names and creates others with the same names, which are not served.
  void replaceQueues();

  /// The types of the records so far, as digits in their order: "01123".
  std::string types() const;

  /// The data of the records so far, a "|" for each segment end.
  std::string segments() const;

  /// Fills the queue with empty batches; for the reaction.
  void fill();

  /// Batches not taken yet.
  std::size_t waiting() const { return requests_->view().messages(); }

  /// Waits until the queue has no room left; for the reaction.
  void awaitFull() const;

  /// How many batches have been taken.
  std::size_t batches() const { return batches_; }

  /// Waits until a record of the type has come.
  void awaitRecord(std::uint32_t type) const;

 private:
  void takeBatches(const Reaction& reaction);
  void takeBatch(const unsigned char* bytes, std::size_t size, const Reaction& reaction);

  std::string name_;
  MessageQueue::Limits limits_;
  std::unique_ptr<MessageQueue> requests_;
  std::unique_ptr<MessageQueue> replies_;
  std::vector<std::unique_ptr<MessageQueue>> successors_;
  mutable std::mutex mutex_;
  std::vector<Record> records_;
  std::atomic<std::size_t> batches_{0};
  std::atomic<bool> isEnding_{false};
  std::thread thread_;
};

/// Takes everything and never answers.
void staySilent(FakeDaemon& daemon, const FakeDaemon::Record& record);

/// Answers a record of the type.
FakeDaemon::Reaction replyTo(std::uint32_t type, std::uint32_t status, const std::string& text);

}  // namespace korvex::test

#endif
