#include "shm/QueueView.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <optional>
#include <utility>

#include "shm/LockOwner.h"
#include "support/NoCancellation.h"

namespace korvex {
namespace {

// The object starts with a word that says how far its creator came; the queue's header follows.
constexpr std::uint32_t kUninitialized = 0;
constexpr std::uint32_t kInitializing = 1;
constexpr std::uint32_t kInitialized = 2;

constexpr std::size_t kInitWordOffset = 0;
constexpr std::size_t kIndexPointerOffset = 16;
constexpr std::size_t kMaxMessagesOffset = 24;
constexpr std::size_t kMaxMessageSizeOffset = 32;
constexpr std::size_t kMessagesOffset = 40;
constexpr std::size_t kLockWordOffset = 48;
constexpr std::size_t kLockOwnerOffset = 56;
constexpr std::size_t kFirstMessageOffset = 184;
constexpr std::size_t kHeaderEnd = 208;

constexpr std::uint64_t kIndexPointer = 192;  // from the pointer itself to the header's end
constexpr std::uint64_t kIndexEntrySize = 8;
constexpr std::uint64_t kSlotHeaderSize = 16;
constexpr std::uint64_t kSlotAlignment = 8;
constexpr std::uint64_t kMostEntriesChecked = 65536;  // a hostile object may claim any number
constexpr std::uint64_t kSmallestQueue = 240;         // one message of one byte
constexpr std::size_t kCacheLine = 64;

/// How many looks must find a free lock and odd fields before a queue counts as damaged. Between
/// two reads of one look somebody may have taken the lock, changed a field twice and released the
/// lock; that this happens in each of several looks is out of the question.
constexpr unsigned kLooksUntilDamaged = 3;

/// Pages that are at hand twice count twice in the process's memory, so not for any number of
/// queues.
constexpr std::size_t kMostFetchableBytes = std::size_t{8} << 20;
std::atomic<std::size_t> fetchableBytes{0};

#ifdef MADV_POPULATE_READ
constexpr int kPopulateForReading = MADV_POPULATE_READ;
#else
constexpr int kPopulateForReading = 22;  // as Linux has it from 5.14 on
#endif

constexpr std::size_t kLongestPath = sizeof "/dev/shm//" + NAME_MAX;
constexpr std::size_t kLargestObject = std::numeric_limits<off_t>::max();

/// The header's fields as one look found them.
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

/// What the creator fixed for as long as the queue lives.
bool areLimitsSound(const Header& header, std::uint64_t fileSize) {
  return header.size(kIndexPointerOffset) == kIndexPointer &&
         QueueView::fileSize(header.size(kMaxMessagesOffset), header.size(kMaxMessageSizeOffset)) ==
             fileSize;
}

/// What every message changes. The queue library counts the first place down from the number of
/// places when it goes round, and a build without optimisation stores that number for a moment.
bool isFillSound(const Header& header) {
  const std::uint64_t messages = header.size(kMaxMessagesOffset);
  return header.size(kMessagesOffset) <= messages && header.size(kFirstMessageOffset) < messages;
}

constexpr std::uint64_t slotSizeFor(std::uint64_t messageSize) {
  return kSlotHeaderSize + (messageSize + kSlotAlignment - 1) / kSlotAlignment * kSlotAlignment;
}

/// Where the slots of a queue with these limits lie in its object.
class Slots {
 public:
  Slots(std::uint64_t messages, std::uint64_t messageSize) noexcept
      : messages_(messages),
        messageSize_(messageSize),
        begin_(kHeaderEnd + messages * kIndexEntrySize),
        slotSize_(slotSizeFor(messageSize)) {}

  static std::uint64_t entryOffset(std::uint64_t entry) noexcept {
    return kHeaderEnd + entry * kIndexEntrySize;
  }

  /// The offset that an index entry leads to: entries count from their own place.
  static std::uint64_t target(std::uint64_t entry, std::uint64_t untrusted) noexcept {
    return entryOffset(entry) + untrusted;  // backwards is a number that wraps
  }

  bool startAt(std::uint64_t offset) const noexcept {
    return offset >= begin_ && (offset - begin_) % slotSize_ == 0 &&
           (offset - begin_) / slotSize_ < messages_;
  }

  /// Whether a message of this length lies inside its slot.
  bool hold(std::uint64_t untrustedLength) const noexcept {
    return untrustedLength <= messageSize_;
  }

 private:
  std::uint64_t messages_;
  std::uint64_t messageSize_;
  std::uint64_t begin_;
  std::uint64_t slotSize_;
};

template <typename Integer>
bool readNumber(int file, std::uint64_t offset, Integer& value) {
  return ::pread(file, &value, sizeof value, static_cast<off_t>(offset)) == ssize_t{sizeof value};
}

/// Whether each index entry leads to a slot, and no slot claims more bytes than it has. The queue
/// library follows both without a look.
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

/// What a look makes of an object. Nothing when it found odd fields under a free lock: only another
/// look tells whether they stay.
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

/// What a creator that was killed leaves: zeros, but for the word that says how far it came.
bool isBlank(const unsigned char* header, std::size_t size) {
  return header[0] <= kInitialized + 1 &&
         std::all_of(header + 1, header + size, [](unsigned char byte) { return byte == 0; });
}

/// Closes on every way out.
class File {
 public:
  explicit File(const std::string& name) noexcept
      // Writable, as the queue library opens it: what it may not open must not look reachable.
      // Non-blocking, so that a pipe under the name does not hold the caller up.
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

/// Reads, and maps only what is sound: a mapping of a file that is cut under it raises a signal,
/// a read does not.
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
  if (fileSize < kSmallestQueue) return;
  device_ = found.st_dev;
  inode_ = found.st_ino;
  for (unsigned looks = 0; looks < kLooksUntilDamaged; ++looks) {
    unsigned char bytes[kHeaderEnd] = {};
    if (::pread(file, bytes, kHeaderEnd, 0) != ssize_t{kHeaderEnd}) return;
    const Header header(bytes);
    const std::optional<State> seen = judge(file, header, fileSize);
    if (!seen) continue;
    state_ = *seen;
    if (state_ != State::Sound) return;
    maxMessages_ = header.size(kMaxMessagesOffset);
    maxMessageSize_ = header.size(kMaxMessageSizeOffset);
    return keepWindow(file, fileSize);
  }
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

/// By the path, because a process that has no descriptor left must not take its queue for gone.
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
  // Zeros are what many programs' objects begin with; a queue has them before its header is made.
  const bool hasHeaderSize = static_cast<std::uint64_t>(found.st_size) >= kSmallestQueue;
  return isBlank(bytes, kHeaderEnd) && (size <= ssize_t{kIndexPointerOffset} || hasHeaderSize);
}

std::size_t QueueView::fileSize(std::size_t messages, std::size_t messageSize) noexcept {
  if (messages == 0 || messageSize == 0 || messageSize > kLargestObject) return 0;
  const std::size_t perMessage = kIndexEntrySize + slotSizeFor(messageSize);
  // Divides first: limits may come from a foreign object, and their product could wrap.
  if (messages > (kLargestObject - kHeaderEnd) / perMessage) return 0;
  return kHeaderEnd + messages * perMessage;
}

std::uint64_t QueueView::number(std::size_t offset) const noexcept {
  return load<std::uint64_t>(window_, offset);
}

bool QueueView::leadsToSlot(std::size_t entry) const noexcept {
  const Slots slots(maxMessages_, maxMessageSize_);
  const std::uint64_t target = Slots::target(entry, number(Slots::entryOffset(entry)));
  return slots.startAt(target) && slots.hold(number(target));
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
  // The next message goes before the first entry, which is looked at for its priority; the one
  // taken next is the last. The two numbers may be of different moments, but any pair of numbers
  // in range leads to entries that are sound in a sound queue.
  const std::size_t next = first == 0 ? maxMessages_ - 1 : first - 1;
  if (use != Use::Receive && (!leadsToSlot(first) || !leadsToSlot(next))) return false;
  const std::size_t last =
      next + stored < maxMessages_ ? next + stored : next + stored - maxMessages_;
  return use == Use::Send || leadsToSlot(last);
}

bool QueueView::isIntact(Use use) const noexcept { return areLimitsIntact() && isFillIntact(use); }

bool QueueView::isDamaged(Use use) const noexcept {
  for (unsigned looks = 0; looks < kLooksUntilDamaged; ++looks) {
    if (!areLimitsIntact()) return true;
    // Before and after: whoever holds it at either moment may have changed what was seen between.
    const bool wasLocked = looksLocked();
    if (isFillIntact(use) || wasLocked || looksLocked()) return false;
  }
  return true;
}

std::size_t QueueView::messages() const noexcept { return number(kMessagesOffset); }

/// A processor fetches only pages that the process has at hand, so all are asked for, once.
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
  // A single message is mostly one that the sender has just left: it is not held up by a copy.
  if (count < 2 || count > maxMessages_ || first >= maxMessages_ || !isFetchable()) return 0;

  const std::size_t entry = kHeaderEnd + kIndexEntrySize * ((first + count - 1) % maxMessages_);
  const std::size_t slot = entry + number(entry);
  if (slot > windowSize_ - kSlotHeaderSize || slot % kSlotAlignment != 0) return 0;
  const std::size_t size = number(slot);
  const std::size_t data = slot + kSlotHeaderSize;
  if (size > windowSize_ - data) return 0;
  for (std::size_t at = data; at < data + size; at += kCacheLine) {
    __builtin_prefetch(window_ + at, 0, 2);
  }
  return size;
}

pid_t QueueView::lockOwner() const noexcept { return load<pid_t>(window_, kLockOwnerOffset); }

bool QueueView::looksLocked() const noexcept {
  return load<std::uint32_t>(window_, kLockWordOffset) != 0;
}

bool QueueView::isLockOwnerGone() const noexcept {
  const pid_t owner = lockOwner();
  if (owner <= 0 || !korvex::isLockOwnerGone(owner)) return false;
  // A healthy owner may have given the lock back and ended between the two looks.
  return looksLocked() && lockOwner() == owner;
}

}  // namespace korvex
