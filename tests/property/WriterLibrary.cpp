#include "property/WriterLibrary.h"

#include <atomic>
#include <boost/interprocess/ipc/message_queue.hpp>
#include <ctime>
#include <limits>
#include <unistd.h>

#include "korvex/ShmWriter.h"
#include "support/PlatformDouble.h"

namespace korvex::test {
namespace {

namespace ipc = boost::interprocess;

// One for this process and its children, so that it can clean up after a child that crashed.
const std::string kQueueName = "korvex-property-" + std::to_string(::getpid());
const std::string kReplyQueueName = kQueueName + "Response";

// Even the longest timeout, 2^31 - 1 seconds, ends in 1970.
constexpr std::time_t kLate = std::numeric_limits<int>::min();

std::atomic<unsigned> clockReadings{0};

/// Makes a queue, removes it, never waits.
class RealQueue : public QueueEnd {
 public:
  RealQueue(const std::string& name, QueueLimits limits)
      : name_(name),
        queue_(ipc::create_only, name.c_str(), limits.messages, limits.messageSize,
               ipc::permissions(0600)) {}
  ~RealQueue() override { ipc::message_queue::remove(name_.c_str()); }

  std::size_t messages() const override { return queue_.get_num_msg(); }
  std::size_t messageSize() const override { return queue_.get_max_msg_size(); }

  bool send(const QueueMessage& message) override {
    const void* const data =
        message.bytes.empty() ? "" : static_cast<const void*>(message.bytes.data());
    return queue_.try_send(data, message.bytes.size(), message.priority);
  }

  std::optional<QueueMessage> take() override {
    QueueMessage message{0, Bytes(messageSize())};
    ipc::message_queue::size_type size = 0;
    if (!queue_.try_receive(message.bytes.data(), message.bytes.size(), size, message.priority)) {
      return std::nullopt;
    }
    message.bytes.resize(size);
    return message;
  }

 private:
  std::string name_;
  mutable ipc::message_queue queue_;
};

std::unique_ptr<QueueEnd> made(const std::string& name, std::optional<QueueLimits> limits) {
  return limits ? std::make_unique<RealQueue>(name, *limits) : nullptr;
}

}  // namespace

void WriterLibrary::removeLeftQueues() {
  ipc::message_queue::remove(kQueueName.c_str());
  ipc::message_queue::remove(kReplyQueueName.c_str());
}

unsigned WriterLibrary::clockReads() { return clockReadings; }

WriterLibrary::WriterLibrary() {
  removeLeftQueues();
  korvex::test::platform_double::reset();
}

WriterLibrary::~WriterLibrary() = default;

std::optional<Bytes> WriterLibrary::response() const {
  if (!writer_) return std::nullopt;
  const auto* const bytes = reinterpret_cast<const unsigned char*>(&writer_->getResponse());
  return Bytes(bytes, bytes + sizeof(qmx_shm_response_t));
}

std::string WriterLibrary::logged() {
  std::string text;
  for (const korvex::test::platform_double::Call& call : korvex::test::platform_double::calls()) {
    text += call.function + ' ' + std::to_string(call.code) + ' ' + call.text;
  }
  korvex::test::platform_double::reset();
  return text;
}

void WriterLibrary::makeQueues(std::optional<QueueLimits> send, std::optional<QueueLimits> reply) {
  sendQueue_.reset();
  replyQueue_.reset();
  sendQueue_ = made(kQueueName, send);
  replyQueue_ = made(kReplyQueueName, reply);
}

void WriterLibrary::construct(const WriterSettings& settings) {
  writer_ = std::make_unique<ShmWriter>(settings.name, kQueueName, settings.timeout,
                                        settings.stopTimeout, settings.isBenchmark);
}

void WriterLibrary::destroy() { writer_.reset(); }

void WriterLibrary::open() { writer_->open(); }

void WriterLibrary::close() { writer_->close(); }

void WriterLibrary::stop(bool useStopTimeout) { writer_->stop(useStopTimeout); }

void WriterLibrary::setAlgorithm(const Algorithm& algorithm) {
  writer_->setSegmentAlg(static_cast<korvex_seg_state_t>(algorithm.state), algorithm.parameters[0],
                         algorithm.parameters[1], algorithm.parameters[2]);
}

void WriterLibrary::writeSegment(const Item& item, std::uint64_t length) {
  writer_->writeSegment(pointerTo(item), length);
}

void WriterLibrary::endSegment() { writer_->endSegment(); }

void WriterLibrary::write(const Item& item, std::uint32_t timeout, bool flush) {
  const qmx_shm_message_t header = libraryHeader(item.header);
  writer_->write_data(&header, pointerTo(item), timeout, flush);
}

void WriterLibrary::flush(std::uint32_t timeout) { writer_->flush_shm_buffer(timeout); }

}  // namespace korvex::test

// The program's own definition comes before the C library's.
extern "C" std::time_t time(std::time_t* place) noexcept {
  ++korvex::test::clockReadings;
  if (place != nullptr) *place = korvex::test::kLate;
  return korvex::test::kLate;
}
