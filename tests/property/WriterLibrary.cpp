#include "property/WriterLibrary.h"

#include <unistd.h>

#include <boost/interprocess/ipc/message_queue.hpp>

#include <qmx/error.h>

#include "korvex/ShmWriter.h"
#include "property/LibraryRecord.h"
#include "support/PlatformDouble.h"

namespace property {
namespace {

namespace ipc = boost::interprocess;

// One for this process and its children, so that it can clean up after a child that crashed.
const std::string kQueueName = "korvex-property-" + std::to_string(::getpid());
const std::string kReplyQueueName = kQueueName + "Response";

}  // namespace

/// The daemon's end of a queue: makes it, removes it, never waits.
class WriterLibrary::Queue {
 public:
  Queue(const std::string& name, QueueLimits limits)
      : name_(name),
        queue_(ipc::create_only, name.c_str(), limits.messages, limits.messageSize,
               ipc::permissions(0600)) {}
  ~Queue() { ipc::message_queue::remove(name_.c_str()); }
  Queue(const Queue&) = delete;
  Queue& operator=(const Queue&) = delete;

  std::size_t messages() { return queue_.get_num_msg(); }
  std::size_t messageSize() const { return queue_.get_max_msg_size(); }

  bool send(const Bytes& bytes, unsigned priority) {
    return queue_.try_send(bytes.data(), bytes.size(), priority);
  }

  bool take(Bytes& bytes, unsigned& priority) {
    bytes.resize(messageSize());
    ipc::message_queue::size_type size = 0;
    if (!queue_.try_receive(&bytes[0], bytes.size(), size, priority)) return false;
    bytes.resize(size);
    return true;
  }

 private:
  std::string name_;
  ipc::message_queue queue_;
};

void WriterLibrary::removeLeftQueues() {
  ipc::message_queue::remove(kQueueName.c_str());
  ipc::message_queue::remove(kReplyQueueName.c_str());
}

WriterLibrary::WriterLibrary() { removeLeftQueues(); }

WriterLibrary::~WriterLibrary() = default;

Seen WriterLibrary::perform(const Operation& operation) {
  seen_ = {};
  platform_double::reset();
  std::string error;
  try {
    act(operation);
  } catch (const Ov_ErrnoException& raised) {
    error = textOfError(raised.getStatus(), raised.getMessage(), raised.getLocation());
  } catch (const ipc::interprocess_exception& raised) {
    error = "queue error " + std::to_string(raised.get_error_code());
  } catch (const std::exception& raised) {
    error = std::string("unexpected exception: ") + raised.what();
  }
  for (const platform_double::Call& call : platform_double::calls()) {
    seen_.text += call.function + ' ' + std::to_string(call.code) + ' ' + call.text;
  }
  seen_.text += error;
  addState();
  return seen_;
}

void WriterLibrary::addState() {
  for (const auto* queue : {&sendQueue_, &replyQueue_}) {
    seen_.text += *queue ? ", queue holds " + std::to_string((*queue)->messages()) : ", no queue";
  }
  seen_.text += writer_ ? ", writer" : ", no writer";
  if (!writer_) return;
  const korvex::qmx_shm_response_t& response = writer_->getResponse();
  seen_.blocks.emplace_back(reinterpret_cast<const char*>(&response), sizeof response);
}

void WriterLibrary::act(const Operation& operation) {
  const std::string verb = operation.verb->name;
  if (verb == "queues") return makeQueues(operation);
  if (verb == "construct") return construct(operation);
  if (verb == "reply") {
    if (!replyQueue_) return;
    const Bytes reply = replyOf(operation, replyQueue_->messageSize());
    replyQueue_->send(reply, operation.low("priority"));
    return;
  }
  if (verb == "locale") return locale_.set(operation["grouping"] != 0);
  if (verb == "take") return take();
  if (verb == "drain") {
    while (sendQueue_ && sendQueue_->messages() > 0) take();
    return;
  }
  if (verb == "fill") {
    while (sendQueue_ && sendQueue_->send(kForeignMessage, operation.low("priority"))) {
    }
    return;
  }
  if (writer_) actOnWriter(operation);
}

void WriterLibrary::actOnWriter(const Operation& operation) {
  const std::string verb = operation.verb->name;
  if (verb == "destroy") return writer_.reset();
  if (verb == "open") return writer_->open();
  if (verb == "close") return writer_->close();
  if (verb == "stop") return writer_->stop(operation["useStopTimeout"] != 0);
  if (verb == "algorithm") {
    const auto state = static_cast<korvex_seg_state_t>(operation.low("state"));
    return writer_->setSegmentAlg(state, operation["p1"], operation["p2"], operation["p3"]);
  }
  if (verb == "segment") {
    const LibraryData data(operation.low("length"), operation["data"]);
    return writer_->writeSegment(data.pointer(), operation["length"]);
  }
  if (verb == "end") return writer_->endSegment();
  if (verb == "write") return write(operation);
  if (verb == "flush") return writer_->flush_shm_buffer(operation.low("timeout"));
  throw std::logic_error("nobody knows " + verb);
}

void WriterLibrary::makeQueues(const Operation& operation) {
  writer_.reset();
  sendQueue_.reset();
  replyQueue_.reset();
  if (operation["missing"] != 1) {
    sendQueue_ = std::make_unique<Queue>(kQueueName, sendLimitsOf(operation));
  }
  if (operation["missing"] != 2) {
    replyQueue_ = std::make_unique<Queue>(kReplyQueueName, replyLimitsOf(operation));
  }
}

void WriterLibrary::construct(const Operation& operation) {
  writer_.reset();
  writer_ = std::make_unique<korvex::ShmWriter>(
      operation.text, kQueueName, operation.low("timeout"), operation.low("stopTimeout"),
      operation["benchmark"] != 0);
}

void WriterLibrary::write(const Operation& operation) {
  const Record record = recordOf(operation);
  const LibraryData data(record.len, operation["data"]);
  const korvex::qmx_shm_message_t header = libraryRecord(record);
  writer_->write_data(&header, data.pointer(), operation.low("timeout"), operation["flush"] != 0);
}

void WriterLibrary::take() {
  Bytes bytes;
  unsigned priority = 0;
  if (!sendQueue_ || !sendQueue_->take(bytes, priority)) return;
  seen_.text += "message of priority " + std::to_string(priority) + "; ";
  seen_.blocks.push_back(bytes);
}

}  // namespace property
