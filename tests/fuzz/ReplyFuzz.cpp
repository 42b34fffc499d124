// Any replies at all, of any length, on the queue of a real writer: it raises what they say and
// keeps what it got, and nothing of the reply before. Besides, a reply's text ends within its
// field, and what passes for a receipt is one, digit by digit.
#include <algorithm>
#include <boost/interprocess/ipc/message_queue.hpp>
#include <cstring>
#include <korvex/ShmWriter.h>
#include <string>
#include <unistd.h>

#include "fuzz/Input.h"
#include "korvex/receiver/Receipt.h"
#include "shm/ReplyText.h"
#include "support/WireFormat.h"

using korvex::ShmWriter;
using namespace korvex::test;

namespace {

namespace ipc = boost::interprocess;

constexpr int kMostSteps = 3;  // of an input; each costs several turns on a queue
constexpr std::size_t kMostReplies = kMostSteps;
constexpr unsigned char kRecordData[] = {1, 2, 3, 4};
constexpr std::size_t kRecordSize = kHeaderSize + sizeof kRecordData;
constexpr std::size_t kMostRecords = 2;
constexpr std::size_t kBatchSize = kMetaDataSize + kMostRecords * kRecordSize;
constexpr unsigned kTimeout = 1;  // never waited for: the daemon's end takes every batch at once

/// Reads a receipt in the slowest and plainest way there is.
bool isReceipt(const std::string& text) {
  const std::string before = "stored bytes=", between = " xxh128=";
  if (text.compare(0, before.size(), before) != 0) return false;
  std::size_t at = before.size();
  std::string digits;
  while (at < text.size() && text[at] >= '0' && text[at] <= '9') digits += text[at++];
  const std::string most = "18446744073709551615";
  if (digits.empty() || digits.size() > most.size()) return false;
  if (digits.size() == most.size() && digits > most) return false;
  if (digits.size() > 1 && digits[0] == '0') return false;
  if (text.compare(at, between.size(), between) != 0) return false;
  const std::string digest = text.substr(at + between.size());
  return digest.size() == 32 && digest.find_first_not_of("0123456789abcdef") == std::string::npos;
}

/// What a writer makes of a message: what is missing of a short one is zero.
struct Reply {
  unsigned char bytes[kReplySize] = {};
  std::size_t size = 0;

  std::uint32_t status() const {
    std::uint32_t value = 0;
    std::memcpy(&value, bytes, sizeof value);
    return value;
  }
  std::string text() const {
    const char* const begin = reinterpret_cast<const char*>(bytes) + sizeof(std::uint32_t);
    const void* const end = std::memchr(begin, '\0', kReplyTextSize);
    return {begin, end == nullptr ? begin + kReplyTextSize : static_cast<const char*>(end)};
  }
};

/// What writer and tool read in a reply.
void checkText(const Reply& received) {
  korvex::qmx_shm_response_t reply;
  static_assert(sizeof reply == kReplySize, "travels as raw memory");
  std::memcpy(static_cast<void*>(&reply), received.bytes, sizeof reply);
  const std::string text = received.text();
  require(korvex::replyText(reply) == text, "the writer's text");
  require(korvex::receiver::textOf(reply) == text, "the tool's text");

  const auto receipt = korvex::receiver::Receipt::parse(text);
  require(receipt.has_value() == isReceipt(text), "the verdict on a receipt");
  if (!receipt) return;
  require(receipt->xxh128 == text.substr(text.size() - 32), "the receipt's digest");
  require(text.find(std::to_string(receipt->bytes) + " ") != std::string::npos,
          "the receipt's bytes");
}

/// A writer's batch, and the replies that wait for it.
class WriterModel {
 public:
  void post(const Reply& reply) { replies_[replyCount_++] = reply; }
  bool isIdle() const { return replyCount_ == 0 && records_ == 0; }

  /// Begins an operation, of which the following ask.
  void begin() { sent_ = 0; }

  /// False when the operation ends with an error, the daemon's.
  bool flush() {
    sizes_[sent_++] = kMetaDataSize + records_ * kRecordSize;
    records_ = 0;
    if (replyCount_ == 0) return true;
    response_ = replies_[0];
    std::copy_n(replies_ + 1, --replyCount_, replies_);
    return response_.status() == 0;
  }
  bool write(bool flushes) {
    if (records_ == kMostRecords && !flush()) return false;
    ++records_;
    return !flushes || flush();
  }

  std::size_t sent() const { return sent_; }
  std::size_t sentSize(std::size_t batch) const { return sizes_[batch]; }
  const Reply& response() const { return response_; }

 private:
  Reply replies_[kMostReplies];
  std::size_t replyCount_ = 0;
  Reply response_;
  std::size_t records_ = 0;
  std::size_t sizes_[2] = {};  ///< of the batches that the operation sends
  std::size_t sent_ = 0;
};

/// The daemon's end, made by the queue library itself. The names are gone as soon as both ends are
/// open: whatever ends the process, it leaves nothing.
class Queues {
 public:
  const std::string& name() const { return name_; }

  void removeNames() const {
    ipc::message_queue::remove(name_.c_str());
    ipc::message_queue::remove(responseName_.c_str());
  }

  void post(const Reply& reply) {
    require(response_.try_send(reply.bytes, reply.size, 0), "posting a reply");
  }

  bool isEmpty() { return send_.get_num_msg() == 0 && response_.get_num_msg() == 0; }

  /// Takes the next batch and returns its size.
  std::size_t take() {
    unsigned char batch[kBatchSize];
    ipc::message_queue::size_type size = 0;
    unsigned priority = 0;
    require(send_.try_receive(batch, sizeof batch, size, priority), "taking a batch");
    return size;
  }

 private:
  const std::string name_ = "korvex-fuzz-" + std::to_string(::getpid());
  const std::string responseName_ = korvex::getMessageQueueResponseName(name_);
  ipc::message_queue send_{ipc::create_only, name_.c_str(), kMostReplies, kBatchSize};
  ipc::message_queue response_{ipc::create_only, responseName_.c_str(), kMostReplies, kReplySize};
};

/// One writer for all inputs. Each begins without a reply and without a record.
class Run {
 public:
  Run() : writer_("", queues_.name(), kTimeout, kTimeout, false) { queues_.removeNames(); }

  void go(Input input) {
    for (int left = kMostSteps; left > 0 && !input.isEmpty(); --left) step(input);
    while (!model_.isIdle()) flush();
    require(queues_.isEmpty(), "nothing more was sent, and no reply left");
  }

 private:
  void step(Input& input) {
    const unsigned what = input.byte();
    switch (what & 3) {
      case 0:
        return flush();
      case 1:
        for (unsigned others = what >> 3; others % 4 != 0; --others) write(false);
        return write((what & 4) != 0);
      default:
        return post(input, what >> 2);
    }
  }

  /// Its first bytes are the input's, so that a short input may give a long reply.
  void post(Input& input, std::size_t others) {
    std::size_t size = input.byte() % (kReplySize + 1);
    const std::uint8_t* const piece = input.piece(size);
    Reply reply;
    reply.size = std::min(size + 2 * others, kReplySize);
    std::memset(reply.bytes, 'x', reply.size);
    if (size != 0) std::memcpy(reply.bytes, piece, size);
    queues_.post(reply);
    model_.post(reply);
    checkText(reply);
  }

  void flush() {
    model_.begin();
    check(model_.flush(), [this] { writer_.flush_shm_buffer(kTimeout); });
  }

  void write(bool flushes) {
    korvex::qmx_shm_message_t header;
    header.type = 1;
    header.len = sizeof kRecordData;
    model_.begin();
    check(model_.write(flushes),
          [&] { writer_.write_data(&header, kRecordData, kTimeout, flushes); });
  }

  template <typename Operation>
  void check(bool succeeds, Operation operation) {
    try {
      operation();
      require(succeeds, "an error is raised");
    } catch (const Ov_ErrnoException& error) {
      require(!succeeds, "only an error is raised");
      require(error.getStatus() == model_.response().status(), "the error's status");
      require(error.getMessage() == model_.response().text(), "the error's text");
      require(error.getLocation().empty(), "the error's location");
    }
    require(std::memcmp(&writer_.getResponse(), model_.response().bytes, kReplySize) == 0,
            "the reply last received");
    for (std::size_t batch = 0; batch < model_.sent(); ++batch)
      require(queues_.take() == model_.sentSize(batch), "the batch's size");
  }

  Queues queues_;
  ShmWriter writer_;
  WriterModel model_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static Run run;
  run.go(Input(bytes, size));
  return 0;
}
