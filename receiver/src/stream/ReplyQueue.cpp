#include "korvex/receiver/ReplyQueue.h"

#include "korvex/ShmWriter.h"
#include "queue/MessageQueue.h"
#include "queues/BusErrorGuard.h"
#include "queues/QueueObject.h"

namespace korvex::receiver {

struct ReplyQueue::Opened {
  explicit Opened(const std::string& queue)
      : name(getMessageQueueResponseName(queue)), replies(name, MessageQueue::Clock::now()) {}

  std::string name;
  MessageQueue replies;
};

ReplyQueue::ReplyQueue(const std::string& queue) : opened_(std::make_unique<Opened>(queue)) {}

ReplyQueue::~ReplyQueue() = default;

ReplyQueue::ReplyQueue(ReplyQueue&&) noexcept = default;

ReplyQueue& ReplyQueue::operator=(ReplyQueue&&) noexcept = default;

std::optional<qmx_shm_response_t> ReplyQueue::take() {
  qmx_shm_response_t reply;
  std::size_t size = 0;
  const auto outcome =
      surviveBusError([&] { return opened_->replies.tryReceive(&reply, sizeof reply, size); });
  if (outcome != MessageQueue::Outcome::Done) return std::nullopt;
  return reply;
}

bool ReplyQueue::isStillNamed() const noexcept {
  const QueueView& view = opened_->replies.view();
  const auto size = QueueView::fileSize(view.maxMessages(), view.maxMessageSize());
  struct stat found = {};
  return view.isStillNamed(opened_->name) && QueueObject::look(opened_->name, found) &&
         static_cast<std::uint64_t>(found.st_size) >= size;
}

std::size_t ReplyQueue::messages() const noexcept {
  try {
    return surviveBusError([this] { return opened_->replies.view().messages(); });
  } catch (const MemoryLost&) {
    return 0;
  }
}

std::size_t ReplyQueue::capacity() const noexcept { return opened_->replies.view().maxMessages(); }

}  // namespace korvex::receiver
