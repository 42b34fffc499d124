#include "queue/QueueView.h"

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "queue/LockOwner.h"
#include "queue/NoCancellation.h"
#include "queue/QueueLayout.h"

namespace korvex {
namespace {

constexpr std::uint64_t kMostEntriesChecked = 65536;  // a hostile object may claim any number
constexpr std::uint64_t kNoSlot = 0;                  // the init word is there, never a slot
constexpr std::size_t kCacheLine = 64;
constexpr std::size_t kBlock = 16384;

/// How many checks must find odd fields under a free lock before a queue counts as damaged. Between
/// two reads of one check a peer may have taken the lock, changed a field twice and released the
/// lock; that this happens in every one of several checks is out of the question.
constexpr unsigned kLooksUntilDamaged = 3;

/// Prefaulted pages are mapped a second time and count twice in the RSS, so their total is capped.
constexpr std::size_t kMostFetchableBytes = std::size_t{8} << 20;
std::atomic<std::size_t> fetchableBytes{0};

#ifdef MADV_POPULATE_READ
constexpr int kPopulateForReading = MADV_POPULATE_READ;
#else
constexpr int kPopulateForReading = 22;  // Linux 5.14 and newer
#endif

constexpr std::size_t kLongestPath = sizeof "/dev/shm//" + NAME_MAX;

/// The header's fields as they were read once.
class Header {
 public:
  explicit Header(const unsigned char* untrusted) : bytes_(untrusted) {}

  std::uint32_t word(std::size_t offset) const { return read<std::uint32_t>(offset); }
  std::uint64_t size(std::size_t offset) const { return read<std::uint64_t>(offset); }

 private:
  template <typename Integer>
  Integer read(std::size_t offset) const {
    Integer value;
    std::memcpy(&value, bytes_ + offset, sizeof value);
    return value;
  }

  const unsigned char* bytes_;
};

/// Reads memory that other processes write to.
template <typename Integer>
Integer load(const unsigned char* window, std::size_t offset) noexcept {
  return __atomic_load_n(reinterpret_cast<const Integer*>(window + offset), __ATOMIC_ACQUIRE);
}

/// Checks what the creator fixed for the life of the queue.
bool areLimitsSound(const Header& header, std::uint64_t fileSize) {
  return header.size(kIndexPointerOffset) == kIndexPointer &&
         QueueView::fileSize(header.size(kMaxMessagesOffset), header.size(kMaxMessageSizeOffset)) ==
             fileSize;
}

/// Checks what every message changes. When the ring wraps, the queue library counts `first` down
/// from N, and a build without optimisation stores N, which is out of range, for a moment.
bool isFillSound(const Header& header) {
  const std::uint64_t messages = header.size(kMaxMessagesOffset);
  return header.size(kMessagesOffset) <= messages && header.size(kFirstMessageOffset) < messages;
}

template <typename Integer>
bool readNumber(int file, std::uint64_t offset, Integer& value) {
  return ::pread(file, &value, sizeof value, static_cast<off_t>(offset)) == ssize_t{sizeof value};
}

/// Whether each index entry points to a slot, and no slot claims more bytes than it has. The queue
/// library trusts both.
bool areSlotsSound(int file, const Header& header) {
  const std::uint64_t messages = header.size(kMaxMessagesOffset);
  const Slots slots(messages, header.size(kMaxMessageSizeOffset));
  for (std::uint64_t entry = 0; entry < std::min(messages, kMostEntriesChecked); ++entry) {
    std::uint64_t value = 0;
    std::uint64_t length = 0;
    if (!readNumber(file, Slots::entryOffset(entry), value)) return false;
    const std::uint64_t target = Slots::target(entry, value);
    if (!slots.startAt(target) || !readNumber(file, target, length) || !slots.hold(length))
      return false;
  }
  return true;
}

/// Whether the lock was taken when the header was read, or is now.
bool isLocked(int file, const Header& header) {
  std::uint32_t now = 0;
  return header.word(kLockWordOffset) != 0 || (readNumber(file, kLockWordOffset, now) && now != 0);
}

/// Judges an object. Empty if fields are odd while the lock is free: only another check shows
/// whether they stay odd.
std::optional<QueueView::State> judge(int file, const Header& header, std::uint64_t fileSize) {
  switch (header.word(kInitWordOffset)) {
    case kUninitialized:
    case kInitializing:
      return QueueView::State::Unfinished;
    case kInitialized:
      break;
    default:
      return QueueView::State::Damaged;
  }
  if (!areLimitsSound(header, fileSize)) return QueueView::State::Damaged;
  if (isFillSound(header) && areSlotsSound(file, header)) return QueueView::State::Sound;
  if (isLocked(file, header)) return QueueView::State::Busy;
  return std::nullopt;
}

/// What a killed creator leaves: zeros, except for the init word.
bool isBlank(const unsigned char* header, std::size_t size) {
  return Header(header).word(kInitWordOffset) <= kCreationFailed &&
         std::all_of(header + sizeof(std::uint32_t), header + size,
                     [](unsigned char byte) { return byte == 0; });
}

/// Whether there are only zeros from here to the end.
bool isZeroFrom(int file, std::uint64_t offset) {
  unsigned char bytes[kBlock];
  for (;;) {
    const ssize_t size = ::pread(file, bytes, kBlock, static_cast<off_t>(offset));
    if (size <= 0) return size == 0;
    if (std::any_of(bytes, bytes + size, [](unsigned char byte) { return byte != 0; })) {
      return false;
    }
    offset += static_cast<std::uint64_t>(size);
  }
}

/// Closes on every way out.
class File {
 public:
  explicit File(const std::string& name) noexcept
      // Writable, as the queue library opens it: what it may not open must not look reachable.
      // Non-blocking, so that a pipe under the name does not block the caller.
      : descriptor_(::shm_open(name.c_str(), O_RDWR | O_NONBLOCK, 0)) {}
  ~File() {
    if (isOpen()) ::close(descriptor_);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  bool isOpen() const { return descriptor_ >= 0; }
  int descriptor() const { return descriptor_; }

 private:
  int descriptor_;
};

}  // namespace

QueueView::QueueView(const std::string& name) noexcept {
  const NoCancellation noCancellation;
  const File file(name);
  if (file.isOpen()) {
    look(file.descriptor());
  } else {
    systemError_ = errno;
  }
}

QueueView::~QueueView() { release(); }

QueueView::QueueView(QueueView&& other) noexcept { *this = std::move(other); }

QueueView& QueueView::operator=(QueueView&& other) noexcept {
  std::swap(state_, other.state_);
  std::swap(systemError_, other.systemError_);
  std::swap(maxMessages_, other.maxMessages_);
  std::swap(maxMessageSize_, other.maxMessageSize_);
  std::swap(device_, other.device_);
  std::swap(inode_, other.inode_);
  std::swap(window_, other.window_);
  std::swap(windowSize_, other.windowSize_);
  std::swap(fetching_, other.fetching_);
  return *this;
}

void QueueView::release() noexcept {
  if (fetching_ == Fetching::Granted) fetchableBytes -= windowSize_;
  if (window_ != nullptr) ::munmap(const_cast<unsigned char*>(window_), windowSize_);
}

void QueueView::look(int file) noexcept {
  state_ = State::Damaged;
  struct stat found = {};
  if (::fstat(file, &found) != 0) {
    systemError_ = errno;
    return;
  }
  if (!S_ISREG(found.st_mode)) return;
  const auto fileSize = static_cast<std::uint64_t>(found.st_size);
  if (fileSize == 0) {
    state_ = State::Unfinished;
    return;
  }
  if (fileSize < kSmallestObject) return;
  device_ = found.st_dev;
  inode_ = found.st_ino;
  judgeContent(file, fileSize);
  if (state_ == State::Sound) keepWindow(file, fileSize);
}

/// Reads, and leaves mapping to the caller: if the file is truncated meanwhile, touching a mapping
/// raises SIGBUS, a read does not.
void QueueView::judgeContent(int file, std::uint64_t fileSize) noexcept {
  unsigned char bytes[kHeaderEnd] = {};
  std::optional<State> seen;
  for (unsigned looks = 0; looks < kLooksUntilDamaged && !seen; ++looks) {
    if (::pread(file, bytes, kHeaderEnd, 0) != ssize_t{kHeaderEnd}) return;
    seen = judge(file, Header(bytes), fileSize);
  }
  state_ = seen.value_or(State::Damaged);
  if (state_ != State::Sound) return;
  maxMessages_ = Header(bytes).size(kMaxMessagesOffset);
  maxMessageSize_ = Header(bytes).size(kMaxMessageSizeOffset);
}

void QueueView::keepWindow(int file, std::size_t size) noexcept {
  void* const window = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, file, 0);
  if (window == MAP_FAILED) {
    *this = QueueView();
    systemError_ = errno;
    return;
  }
  window_ = static_cast<const unsigned char*>(window);
  windowSize_ = size;
}

/// Uses the path: a process that has run out of descriptors must not conclude that its queue is
/// gone.
bool QueueView::isStillNamed(const std::string& name) const noexcept {
  char path[kLongestPath];
  const int length = std::snprintf(path, sizeof path, "/dev/shm/%s", name.c_str());
  struct stat found = {};
  return static_cast<std::size_t>(length) < sizeof path && ::lstat(path, &found) == 0 &&
         found.st_dev == device_ && found.st_ino == inode_;
}

bool QueueView::canBeQueue(int file) noexcept {
  struct stat found = {};
  if (::fstat(file, &found) != 0 || !S_ISREG(found.st_mode)) return false;
  unsigned char bytes[kHeaderEnd] = {};
  const ssize_t size = ::pread(file, bytes, kHeaderEnd, 0);
  if (size < 0) return false;
  if (Header(bytes).size(kIndexPointerOffset) == kIndexPointer) return true;
  // A queue is all zeros before its header is written, but many programs' objects begin with zeros,
  // too: only these sizes can be a queue's, and nothing can be behind the header.
  const bool hasHeaderSize = static_cast<std::uint64_t>(found.st_size) >= kSmallestObject;
  return isBlank(bytes, kHeaderEnd) && (size <= ssize_t{kIndexPointerOffset} || hasHeaderSize) &&
         isZeroFrom(file, kHeaderEnd);
}

std::size_t QueueView::fileSize(std::size_t messages, std::size_t messageSize) noexcept {
  return objectSize(messages, messageSize);
}

std::uint64_t QueueView::number(std::size_t offset) const noexcept {
  return load<std::uint64_t>(window_, offset);
}

/// The slot that an index entry points to; kNoSlot if it points elsewhere, or if the slot claims
/// more bytes than it has.
std::uint64_t QueueView::slotOf(std::size_t entry) const noexcept {
  const Slots slots(maxMessages_, maxMessageSize_);
  const std::uint64_t slot = Slots::target(entry, number(Slots::entryOffset(entry)));
  return slots.startAt(slot) && slots.hold(number(slot)) ? slot : kNoSlot;
}

bool QueueView::areLimitsIntact() const noexcept {
  return load<std::uint32_t>(window_, kInitWordOffset) == kInitialized &&
         number(kIndexPointerOffset) == kIndexPointer &&
         number(kMaxMessagesOffset) == maxMessages_ &&
         number(kMaxMessageSizeOffset) == maxMessageSize_;
}

bool QueueView::isFillIntact(Use use) const noexcept {
  const auto stored = number(kMessagesOffset);
  const auto first = number(kFirstMessageOffset);
  if (stored > maxMessages_ || first >= maxMessages_) return false;
  // The next message goes in before the first entry, whose priority the library reads; the one
  // received next is the last. The two numbers may be from different moments, but in a sound queue
  // any pair in range leads to sound entries.
  const std::size_t next = first == 0 ? maxMessages_ - 1 : first - 1;
  if (use != Use::Receive && (slotOf(first) == kNoSlot || slotOf(next) == kNoSlot)) return false;
  const std::size_t last =
      next + stored < maxMessages_ ? next + stored : next + stored - maxMessages_;
  return use == Use::Send || slotOf(last) != kNoSlot;
}

bool QueueView::isIntact(Use use) const noexcept { return areLimitsIntact() && isFillIntact(use); }

bool QueueView::isDamaged(Use use) const noexcept {
  for (unsigned looks = 0; looks < kLooksUntilDamaged; ++looks) {
    if (!areLimitsIntact()) return true;
    // Before and after: a peer that holds it at either moment may have changed what was read
    // between.
    const bool wasLocked = looksLocked();
    if (isFillIntact(use) || wasLocked) return false;
    if (looksLocked()) return false;  // GCOVR_EXCL_BR_LINE: a matter of luck
  }
  return true;
}

std::size_t QueueView::messages() const noexcept {
  assert(state_ == State::Sound);
  return number(kMessagesOffset);
}

bool QueueView::Glance::looksIdle() const noexcept {
  return load<std::uint64_t>(header_, kMessagesOffset) == 0 &&
         load<std::uint32_t>(header_, kLockWordOffset) == 0;
}

void QueueView::Glance::prefetch() const noexcept { __builtin_prefetch(header_ + kMessagesOffset); }

std::uint64_t QueueView::waitingBytes() const noexcept {
  assert(state_ == State::Sound);
  const std::uint64_t first = number(kFirstMessageOffset);
  if (first >= maxMessages_) return 0;
  const std::uint64_t count =
      std::min<std::uint64_t>({messages(), maxMessages_, kMostEntriesChecked});
  std::uint64_t bytes = 0;
  for (std::uint64_t entry = first; entry < first + count; ++entry) {
    const std::uint64_t slot = slotOf(entry % maxMessages_);
    if (slot != kNoSlot) bytes += std::min<std::uint64_t>(number(slot), maxMessageSize_);
  }
  return bytes;
}

/// A prefetch works only on pages that are mapped already, so all are mapped now, once.
bool QueueView::isFetchable() noexcept {
  if (fetching_ != Fetching::Unasked) return fetching_ == Fetching::Granted;
  fetching_ = Fetching::Refused;
  if ((fetchableBytes += windowSize_) <= kMostFetchableBytes &&
      ::madvise(const_cast<unsigned char*>(window_), windowSize_, kPopulateForReading) == 0) {
    fetching_ = Fetching::Granted;
  } else {
    fetchableBytes -= windowSize_;
  }
  return fetching_ == Fetching::Granted;
}

std::size_t QueueView::fetchNext() noexcept {
  const std::uint64_t count = messages();
  const std::uint64_t first = number(kFirstMessageOffset);
  // A single message was most likely just sent: the sender is done with the lock, and a slow copy
  // under it holds nobody up.
  if (count < 2 || count > maxMessages_ || first >= maxMessages_ || !isFetchable()) return 0;

  const std::uint64_t slot = slotOf((first + count - 1) % maxMessages_);
  if (slot == kNoSlot) return 0;
  const std::size_t size = std::min(number(slot), maxMessageSize_);  // it may have changed
  const std::size_t data = slot + kSlotHeaderSize;
  for (std::size_t at = data; at < data + size; at += kCacheLine) {
    __builtin_prefetch(window_ + at, 0, 2);
  }
  return size;
}

pid_t QueueView::lockOwner() const noexcept {
  assert(state_ == State::Sound);
  return load<pid_t>(window_, kLockOwnerOffset);
}

std::uint32_t QueueView::lockKind() const noexcept {
  assert(state_ == State::Sound);
  return load<std::uint32_t>(window_, kLockKindOffset) & kLockKindMask;
}

bool QueueView::looksLocked() const noexcept {
  assert(state_ == State::Sound);
  return load<std::uint32_t>(window_, kLockWordOffset) != 0;
}

bool QueueView::isLockOwnerGone() const noexcept {
  const pid_t owner = lockOwner();
  if (owner <= 0 || !korvex::isLockOwnerGone(owner)) return false;
  // A healthy owner may have released the lock and exited between the two checks.
  return looksLocked() && lockOwner() == owner;
}

}  // namespace korvex
