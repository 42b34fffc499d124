#ifndef TESTS_SUPPORT_DAEMON_QUEUES_H
#define TESTS_SUPPORT_DAEMON_QUEUES_H

#include <boost/interprocess/ipc/message_queue.hpp>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>

#include "support/Queues.h"
#include "support/WireFormat.h"

namespace korvex::test {

/// One message as the queue library delivers it.
struct Message {
  Bytes bytes;
  unsigned priority;
};

/// One queue made by the queue library itself, independent of the code under test. Removed at the
/// end.
class RawQueue {
 public:
  RawQueue(std::string name, std::size_t messages, std::size_t messageSize)
      : name_(std::move(name)),
        queue_(boost::interprocess::create_only, name_.c_str(), messages, messageSize) {}
  ~RawQueue() { boost::interprocess::message_queue::remove(name_.c_str()); }
  RawQueue(const RawQueue&) = delete;
  RawQueue& operator=(const RawQueue&) = delete;

  const std::string& name() const { return name_; }
  std::size_t waiting() { return queue_.get_num_msg(); }

  void post(const void* data, std::size_t size, unsigned priority = 0) {
    if (!queue_.try_send(data, size, priority)) throw std::runtime_error(name_ + " is full");
  }

  /// Takes a message; throws if there is none, so that a test fails instead of hanging.
  Message take() {
    Message message{Bytes(queue_.get_max_msg_size()), 0};
    boost::interprocess::message_queue::size_type size = 0;
    if (!queue_.try_receive(message.bytes.data(), message.bytes.size(), size, message.priority)) {
      throw std::runtime_error(name_ + " is empty");
    }
    message.bytes.resize(size);
    return message;
  }

 private:
  std::string name_;
  boost::interprocess::message_queue queue_;
};

/// The pair of queues that a daemon offers to one producer.
class DaemonQueues {
 public:
  explicit DaemonQueues(std::size_t messageSize = 4096, std::size_t messages = 4,
                        std::size_t replySize = kReplySize)
      : name_(uniqueQueueName()),
        send_(name_, messages, messageSize),
        response_(name_ + "Response", 4, replySize) {}

  const std::string& name() const { return name_; }
  RawQueue& send() { return send_; }
  RawQueue& response() { return response_; }
  Bytes takeBatch() { return send_.take().bytes; }

  void reply(std::uint32_t status, const std::string& text) {
    const Bytes bytes = replyBytes(status, text);
    response_.post(bytes.data(), bytes.size());
  }

 private:
  std::string name_;
  RawQueue send_;
  RawQueue response_;
};

}  // namespace korvex::test

#endif
