#include "queue/MessageQueue.h"

#include <algorithm>
#include <atomic>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/interprocess/ipc/message_queue.hpp>
#include <boost/version.hpp>
#include <cerrno>
#include <exception>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "queue/NoCancellation.h"
#include "queue/SignalsBlocked.h"

#ifndef BOOST_INTERPROCESS_ENABLE_TIMEOUT_WHEN_LOCKING
#error "without the timeout a lock that a dead process kept holds every caller up forever"
#endif
static_assert(BOOST_VERSION >= 106300, "the queue's layout is known from Boost 1.63 on");

namespace korvex {
namespace {

namespace ipc = boost::interprocess;

/// How long one attempt waits for the lock.
constexpr std::chrono::milliseconds kLockPatience{
    BOOST_INTERPROCESS_TIMEOUT_WHEN_LOCKING_DURATION_MS};

/// From Boost 1.78 on, a lock that was found broken is left alone. Before, the caller keeps holding
/// it, and the thread's robust-mutex list keeps pointing into the mapping.
constexpr bool kBrokenLockPinsMapping = BOOST_VERSION < 107800;

[[noreturn]] void throwSystemError(int number) {
  throw ipc::interprocess_exception(ipc::error_info(number));
}

[[noreturn]] void throwDamaged() {
  throw ipc::interprocess_exception(ipc::error_info(ipc::corrupted_error),
                                    "the shared-memory object is not a sound message queue");
}

[[noreturn]] void throwBusy() {
  throw ipc::interprocess_exception(ipc::error_info(ipc::timeout_when_locking_error),
                                    "the message queue's lock stayed taken");
}

/// Set in a thread that is cancelled while it waits. It can be cancelled only once, so further
/// waits, in the destructors on its stack, would hold up the thread that joins it.
thread_local bool isThreadCancelled = false;

/// Only a cancellation keeps a wait from its end.
class WaitWatch {
 public:
  ~WaitWatch() {
    if (!isOver_) isThreadCancelled = true;  // GCOVR_EXCL_BR_LINE: tested in other processes
  }
  void end() noexcept { isOver_ = true; }

 private:
  bool isOver_ = false;
};

void wait(Pause& pause, MessageQueue::Clock::time_point deadline) {
  WaitWatch watch;
  pause.wait(deadline);
  watch.end();
}

/// Returns an errno value. posix_fallocate() starts over after EINTR, so frequent signals could
/// starve it: blocks them and retries.
int allocate(int file, off_t size) {
  const SignalsBlocked blocked;
  int error = 0;
  do {
    error = ::posix_fallocate(file, 0, size);
  } while (error == EINTR);
  return error;
}

/// Allocates the object's memory now. Shared memory is sparse otherwise, and the first process to
/// touch a page that the system cannot provide gets SIGBUS, with the lock held.
void reserve(const std::string& name, off_t size) {
  const int file = ::shm_open(name.c_str(), O_RDWR, 0);
  if (file < 0) throwSystemError(errno);
  const int error = allocate(file, size);
  ::close(file);
  if (error != 0) throwSystemError(error);
}

/// Reserves `size` bytes under a scratch name and releases them: creating the queue would crash
/// (SIGBUS) where this fails.
void tryRoom(const std::string& name, off_t size) {
  const std::string trial = name + ".room";
  const int file = ::shm_open(trial.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
  if (file < 0) throwSystemError(errno);
  const int error = allocate(file, size);
  ::close(file);
  ::shm_unlink(trial.c_str());
  if (error != 0) throwSystemError(error);
}

off_t fileSizeOf(const MessageQueue::Limits& limits) {
  return static_cast<off_t>(QueueView::fileSize(limits.messages, limits.messageSize));
}

}  // namespace

struct MessageQueue::Mapping {
  template <typename... Arguments>
  explicit Mapping(Arguments&&... arguments) : queue(std::forward<Arguments>(arguments)...) {}

  /// Leaves the mapping in place for good. It stays reachable, so that leak checkers do not report
  /// it.
  void pin() noexcept {
    static std::atomic<Mapping*> newestPinned{nullptr};
    olderPinned = newestPinned.exchange(this);
  }

  ipc::message_queue queue;
  std::exception_ptr broken;  ///< what was thrown when the lock turned out to be broken
  Mapping* olderPinned = nullptr;
};

MessageQueue::MessageQueue(const std::string& name, Clock::time_point deadline) {
  open(name, deadline);
}

MessageQueue::MessageQueue(const std::string& name, Limits limits, mode_t mode) {
  const NoCancellation noCancellation;
  const off_t size = fileSizeOf(limits);
  if (size == 0) throw ipc::interprocess_exception(ipc::error_info(ipc::size_error));
  tryRoom(name, size);
  // An int in older releases of the queue library, the system's type in newer ones.
  using Mode = decltype(ipc::permissions().get_permissions());
  const ipc::permissions permissions(static_cast<Mode>(mode));
  try {
    mapping_ = std::make_unique<Mapping>(ipc::create_only, name.c_str(), limits.messages,
                                         limits.messageSize, permissions);
    reserve(name, size);
    view_ = QueueView(name);
    if (view_.state() != QueueView::State::Sound) throwDamaged();
  } catch (const ipc::interprocess_exception& error) {
    // The library leaves behind what it could not finish. Another process's object is not touched.
    if (error.get_error_code() != ipc::already_exists_error) remove(name);
    throw;
  }
}

int MessageQueue::systemErrorOf(const std::exception& error) noexcept {
  using Known = ipc::interprocess_exception;
  const auto* const known = dynamic_cast<const Known*>(&error);  // GCOVR_EXCL_BR_LINE: never null
  return known == nullptr ? 0 : known->get_native_error();
}

MessageQueue::~MessageQueue() {
  // Unmapping would leave a dangling entry in the thread's robust-mutex list; the next robust lock
  // that the thread takes would crash.
  if (kBrokenLockPinsMapping && mapping_->broken) {
    mapping_.release()->pin();
  }
}

void MessageQueue::open(const std::string& name, Clock::time_point deadline) {
  Pause pause(kLongestSleep);
  while (!isOpenedAtOnce(name)) {
    if (Clock::now() >= deadline) {
      view_.state() == QueueView::State::Busy ? throwBusy() : throwDamaged();
    }
    wait(pause, deadline);
  }
}

/// False while the queue is still being created, changed or replaced.
bool MessageQueue::isOpenedAtOnce(const std::string& name) {
  const NoCancellation noCancellation;
  view_ = QueueView(name);
  if (view_.state() == QueueView::State::Unreachable) throwSystemError(view_.systemError());
  if (view_.state() == QueueView::State::Damaged) throwDamaged();
  if (view_.state() != QueueView::State::Sound) return false;
  mapping_ = std::make_unique<Mapping>(ipc::open_only, name.c_str());
  // The library opens by name; only the object in the view has been checked.
  if (view_.isStillNamed(name)) return true;
  mapping_.reset();
  return false;
}

/// Whether a peer with the lock keeps the queue from looking intact for as long as an attempt may
/// wait for the lock. The library trusts the contents, and would follow damage out of the mapping.
bool MessageQueue::isChanging(QueueView::Use use) const {
  if (view_.isIntact(use)) return false;
  const NoCancellation noCancellation;  // as in the library's own wait for the lock
  const auto end = Clock::now() + kLockPatience;
  for (Pause pause(kLongestSleep); !view_.isIntact(use); pause.wait(end)) {
    if (view_.isDamaged(use)) throwDamaged();
    if (Clock::now() >= end) return true;
  }
  return false;
}

/// Runs one operation that takes the lock. A lock that is merely taken is an outcome; every other
/// error propagates.
template <typename Operation>
MessageQueue::Outcome MessageQueue::attempt(QueueView::Use use, Operation operation) {
  if (mapping_->broken) std::rethrow_exception(mapping_->broken);
  if (isChanging(use)) return Outcome::LockTaken;
  try {
    return operation(mapping_->queue) ? Outcome::Done : Outcome::NotReady;
  } catch (const ipc::lock_exception&) {  // GCOVR_EXCL_BR_LINE: the library throws its own only
    mapping_->broken = std::current_exception();
    throw;
  } catch (const ipc::interprocess_exception& error) {
    if (error.get_error_code() != ipc::timeout_when_locking_error) throw;
    return Outcome::LockTaken;
  }
}

MessageQueue::Outcome MessageQueue::trySend(const void* data, std::size_t size, unsigned priority) {
  return attempt(QueueView::Use::Send,
                 [&](ipc::message_queue& queue) { return queue.try_send(data, size, priority); });
}

MessageQueue::Outcome MessageQueue::tryReceive(void* buffer, std::size_t capacity,
                                               std::size_t& size) {
  return attempt(QueueView::Use::Receive, [&](ipc::message_queue& queue) {
    ipc::message_queue::size_type received = 0;
    unsigned priority = 0;
    const bool taken = queue.try_receive(buffer, capacity, received, priority);
    if (taken) size = received;
    return taken;
  });
}

MessageQueue::Outcome MessageQueue::tryReceiveNext(void* buffer, std::size_t capacity,
                                                   std::size_t& size) {
  view_.fetchNext();
  Pause pause(kLongestSleep);
  while (pause.isSpinning() && view_.looksLocked()) pause.wait(Clock::time_point::max());
  return tryReceive(buffer, capacity, size);
}

MessageQueue::Outcome MessageQueue::tryLock() {
  return attempt(QueueView::Use::Either, [](ipc::message_queue& queue) {
    queue.get_num_msg();
    return true;
  });
}

bool MessageQueue::sendBefore(const void* data, std::size_t size, unsigned priority,
                              Clock::time_point deadline) {
  const auto start = Clock::now();
  const auto due = isThreadCancelled ? start : std::max(deadline, start);  // GCOVR_EXCL_BR_LINE
  sendPause_.next();
  // Checking without the lock spares both ends contention for it, which costs more than the copy.
  // The checks may be stale, so an attempt follows whatever they say.
  while (looksBusy() && sendPause_.isSpinning()) wait(sendPause_, due);
  for (bool hasAskedForOwner = false;;) {
    const Outcome outcome = trySend(data, size, priority);
    if (outcome == Outcome::Done) return true;
    if (isTooLate(outcome, due, hasAskedForOwner)) return false;
    do {
      wait(sendPause_, due);
    } while (looksBusy() && Clock::now() < due);
  }
}

/// Whether it is time to give up after this outcome. While the lock is taken it is unknown whether
/// there is room, and the lock is released in a moment unless its owner is dead. Finding out may
/// scan every process, so it is done once.
bool MessageQueue::isTooLate(Outcome outcome, Clock::time_point due,
                             bool& hasAskedForOwner) const noexcept {
  if (Clock::now() < due) return false;
  if (outcome == Outcome::NotReady || view_.looksFull()) return true;
  if (!std::exchange(hasAskedForOwner, true) && view_.isLockOwnerGone()) return true;
  return Clock::now() - due >= kLockGrace - kLockPatience;
}

bool MessageQueue::remove(const std::string& name) noexcept {
  // Not through the queue library, which allocates memory for it and swallows the failure.
  return ::shm_unlink(name.c_str()) == 0;
}

}  // namespace korvex
