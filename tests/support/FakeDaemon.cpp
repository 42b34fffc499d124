#include "support/FakeDaemon.h"

#include <gtest/gtest.h>
#include <korvex/ShmWriter.h>
#include <queue>
#include <utility>

#include "queue/Pause.h"
#include "support/Await.h"
#include "support/Queues.h"
#include "support/WireFormat.h"

namespace korvex::test {
namespace {

constexpr MessageQueue::Limits kReplyLimits = {16, sizeof(qmx_shm_response_t)};
constexpr std::chrono::milliseconds kLongestSleep{1};

std::unique_ptr<MessageQueue> create(const std::string& name, MessageQueue::Limits limits) {
  return std::make_unique<MessageQueue>(name, limits, mode_t{0600});
}

}  // namespace

FakeDaemon::FakeDaemon(MessageQueue::Limits limits)
    : name_(uniqueQueueName()),
      limits_(limits),
      requests_(create(name_, limits)),
      replies_(create(getMessageQueueResponseName(name_), kReplyLimits)) {}

FakeDaemon::~FakeDaemon() {
  finish();
  MessageQueue::remove(name_);
  MessageQueue::remove(getMessageQueueResponseName(name_));
}

void FakeDaemon::serve(Reaction reaction) {
  thread_ = std::thread([this, reaction = std::move(reaction)] { takeBatches(reaction); });
}

void FakeDaemon::finish() {
  isEnding_ = true;
  if (thread_.joinable()) thread_.join();
}

void FakeDaemon::reply(std::uint32_t status, const std::string& text) {
  qmx_shm_response_t record;
  record.assign(status, text.c_str());
  EXPECT_EQ(replies_->trySend(&record, sizeof record, 0), MessageQueue::Outcome::Done);
}

void FakeDaemon::replaceQueues() {
  const std::string replyName = getMessageQueueResponseName(name_);
  MessageQueue::remove(name_);
  MessageQueue::remove(replyName);
  successors_.push_back(create(name_, limits_));
  successors_.push_back(create(replyName, kReplyLimits));
}

std::string FakeDaemon::types() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::string types;
  for (const Record& record : records_) types += std::to_string(record.type);
  return types;
}

std::string FakeDaemon::segments() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::string text;
  for (const Record& record : records_) text += record.type == kSegmentEnd ? "|" : record.data;
  return text;
}

void FakeDaemon::fill() {
  const unsigned char emptyBatch[] = {0xff, 0x00, 0xee, 0x11, 0, 0, 0, 0};
  while (requests_->trySend(emptyBatch, sizeof emptyBatch, 1) == MessageQueue::Outcome::Done) {
  }
}

void FakeDaemon::awaitFull() const {
  ASSERT_TRUE(eventually([this] { return requests_->view().looksFull(); }));
}

void FakeDaemon::awaitRecord(std::uint32_t type) const {
  const std::string wanted = std::to_string(type);
  ASSERT_TRUE(eventually([&] { return types().find(wanted) != std::string::npos; }));
}

void FakeDaemon::takeBatches(const Reaction& reaction) {
  std::vector<unsigned char> buffer(requests_->maxMessageSize());
  Pause pause(kLongestSleep);
  for (;;) {
    const bool isLastLook = isEnding_;
    std::size_t size = 0;
    if (requests_->tryReceive(buffer.data(), buffer.size(), size) == MessageQueue::Outcome::Done) {
      takeBatch(buffer.data(), size, reaction);
      pause.reset();
    } else if (isLastLook) {
      return;
    } else {
      pause.wait(Pause::Clock::time_point::max());
    }
  }
}

void FakeDaemon::takeBatch(const unsigned char* bytes, std::size_t size, const Reaction& reaction) {
  ++batches_;
  std::queue<ShmBatch::Entry> entries;
  ShmBatch::getEntriesFromBuffer(entries, bytes, size);
  for (; !entries.empty(); entries.pop()) {
    const ShmBatch::Entry& entry = entries.front();
    const Record record = {entry.header.type, std::string(reinterpret_cast<const char*>(entry.data),
                                                          entry.header.len)};
    // The reply first: a test that sees the record also finds the reply.
    reaction(*this, record);
    const std::lock_guard<std::mutex> lock(mutex_);
    records_.push_back(record);
  }
}

void staySilent(FakeDaemon&, const FakeDaemon::Record&) {}

FakeDaemon::Reaction replyTo(std::uint32_t type, std::uint32_t status, const std::string& text) {
  return [=](FakeDaemon& daemon, const FakeDaemon::Record& record) {
    if (record.type == type) daemon.reply(status, text);
  };
}

}  // namespace korvex::test
