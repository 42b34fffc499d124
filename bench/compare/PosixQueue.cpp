// The kernel's message queue.
#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <mqueue.h>
#include <string>
#include <sys/resource.h>
#include <system_error>

#include "Transports.h"

namespace bench {
namespace {

constexpr unsigned kPriority = 1;
constexpr mode_t kMode = 0600;

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

/// Without this the kernel allows 800 KiB for all queues of a user together.
void liftLimit() {
  const rlimit unlimited = {RLIM_INFINITY, RLIM_INFINITY};
  static_cast<void>(::setrlimit(RLIMIT_MSGQUEUE, &unlimited));
}

/// A setting of the system's message queues.
long systemLimit(const char* name) {
  long value = 0;
  std::ifstream(std::string("/proc/sys/fs/mqueue/") + name) >> value;
  return value;
}

class Queue {
 public:
  Queue(const std::string& name, int flags) : queue_(::mq_open(name.c_str(), flags)) {
    if (queue_ == kNone) fail("mq_open");
  }
  Queue(const std::string& name, mq_attr limits)
      : queue_(::mq_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, kMode, &limits)) {}
  ~Queue() {
    if (isOpen()) ::mq_close(queue_);
  }
  Queue(const Queue&) = delete;
  Queue& operator=(const Queue&) = delete;

  bool isOpen() const { return queue_ != kNone; }
  mqd_t get() const { return queue_; }

 private:
  static constexpr mqd_t kNone = -1;
  mqd_t queue_;
};

// A message goes in pieces of the queue's size. One that is shorter, and be it empty, ends it. So
// everything can be carried within the limits that a system has by default.
class PosixSender : public Sender {
 public:
  PosixSender(const Settings& settings, std::size_t pieceSize)
      : queue_(settings.name, O_WRONLY), pieceSize_(pieceSize), joined_(largestMessage(settings)) {}

  void send(Bytes head, Bytes body) override {
    Bytes rest = joined_.join(head, body);
    while (rest.size >= pieceSize_) {
      sendPiece({rest.data, pieceSize_});
      rest = {rest.data + pieceSize_, rest.size - pieceSize_};
    }
    sendPiece(rest);
  }

 private:
  void sendPiece(Bytes piece) {
    const auto* const bytes = reinterpret_cast<const char*>(piece.data);
    if (::mq_send(queue_.get(), bytes, piece.size, kPriority) != 0) fail("mq_send");
  }

  Queue queue_;
  std::size_t pieceSize_;
  JoinBuffer joined_;
};

class PosixReceiver : public Receiver {
 public:
  PosixReceiver(const Settings& settings, std::size_t pieceSize)
      : queue_(settings.name, O_RDONLY),
        pieceSize_(pieceSize),
        buffer_(new unsigned char[largestMessage(settings) + pieceSize]) {}

  Bytes receive() override {
    std::size_t size = 0;
    for (;;) {
      auto* const place = reinterpret_cast<char*>(buffer_.get() + size);
      const ssize_t got = ::mq_receive(queue_.get(), place, pieceSize_, nullptr);
      if (got < 0) fail("mq_receive");
      size += static_cast<std::size_t>(got);
      if (static_cast<std::size_t>(got) < pieceSize_) return {buffer_.get(), size};
    }
  }

 private:
  Queue queue_;
  std::size_t pieceSize_;
  std::unique_ptr<unsigned char[]> buffer_;
};

class PosixQueueTransport : public Transport {
 public:
  explicit PosixQueueTransport(const Settings& settings) : settings_(settings) {
    settings_.name = "/" + settings.name;
    liftLimit();
    // One byte more than a message, so that each goes in one piece.
    limits_.mq_maxmsg = static_cast<long>(settings.depth);
    limits_.mq_msgsize = static_cast<long>(largestMessage(settings) + 1);
    if (create()) return;
    limits_.mq_maxmsg = std::min(limits_.mq_maxmsg, systemLimit("msg_max"));
    limits_.mq_msgsize = std::min(limits_.mq_msgsize, systemLimit("msgsize_max"));
    if (!create()) fail("mq_open");
    note_ = "within the system's limits: " + std::to_string(limits_.mq_maxmsg) + " messages of " +
            std::to_string(limits_.mq_msgsize) + " bytes";
  }
  ~PosixQueueTransport() override { ::mq_unlink(settings_.name.c_str()); }

  std::unique_ptr<Producer> openProducer() override {
    return makeProducer(settings_, std::make_unique<PosixSender>(settings_, pieceSize()));
  }

  std::unique_ptr<Receiver> openReceiver() override {
    return std::make_unique<PosixReceiver>(settings_, pieceSize());
  }

  std::string note() const override { return note_; }

 private:
  bool create() { return Queue(settings_.name, limits_).isOpen(); }

  std::size_t pieceSize() const { return static_cast<std::size_t>(limits_.mq_msgsize); }

  Settings settings_;
  mq_attr limits_ = {};
  std::string note_;
};

}  // namespace

std::unique_ptr<Transport> makePosixQueue(const Settings& settings) {
  return std::make_unique<PosixQueueTransport>(settings);
}

}  // namespace bench
