#ifndef KORVEX_QUEUE_QUEUE_LAYOUT_H
#define KORVEX_QUEUE_QUEUE_LAYOUT_H

#include <cstddef>
#include <cstdint>
#include <limits>
#include <pthread.h>
#include <sys/types.h>

// How the queue library lays out a queue's shared-memory object, from Boost 1.63 to 1.81.
// docs/queue-object.md explains it. The offsets are those of x86-64; elsewhere the lock may have
// another size (48 bytes on arm64), and the header, which starts at 16, another alignment (8 on
// s390x).
//
//     offset  bytes  field                                    written by
//          0      4  init word                                the creator, last of all
//         16      8  pointer to the index, relative: 192      the creator
//         24      8  N, messages that fit                     the creator
//         32      8  S, bytes of the largest message          the creator
//         40      8  messages that wait                       the lock's owner
//         48     40  the lock; its owner's thread id at 56,   the lock's owner
//                    its kind at 64                           the creator
//         88     96  two condition variables                  peers that block there;
//        184      8  first: where the index starts            the lock's owner
//        192     16  counts of those peers                    none of ours does
//        208    8 N  the index: a ring of relative pointers   the lock's owner
//    208+8 N         N slots of 16 bytes and S, S rounded     the lock's owner
//                    up to 8: length (8), priority (4), data
namespace korvex {

// The init word: how far the creator got.
constexpr std::uint32_t kUninitialized = 0;
constexpr std::uint32_t kInitializing = 1;
constexpr std::uint32_t kInitialized = 2;
constexpr std::uint32_t kCreationFailed = 3;

constexpr std::size_t kInitWordOffset = 0;
constexpr std::size_t kIndexPointerOffset = alignof(std::max_align_t);
constexpr std::size_t kMaxMessagesOffset = kIndexPointerOffset + 8;
constexpr std::size_t kMaxMessageSizeOffset = kIndexPointerOffset + 16;
constexpr std::size_t kMessagesOffset = kIndexPointerOffset + 24;
constexpr std::size_t kLockWordOffset = kIndexPointerOffset + 32;
constexpr std::size_t kLockOwnerOffset = kLockWordOffset + 8;
constexpr std::size_t kLockKindOffset = kLockWordOffset + 16;  // word, count, owner and users first
constexpr std::size_t kFirstMessageOffset =
    kLockWordOffset + sizeof(pthread_mutex_t) + 2 * sizeof(pthread_cond_t);
constexpr std::size_t kHeaderEnd = kFirstMessageOffset + 24;

/// Type, robustness and protocol of the lock. The bits above say that processes share it, and hold
/// notes of glibc's own.
constexpr std::uint32_t kLockKindMask = 127;

constexpr std::uint64_t kIndexPointer = kHeaderEnd - kIndexPointerOffset;
constexpr std::uint64_t kIndexEntrySize = 8;
constexpr std::uint64_t kSlotHeaderSize = 16;
constexpr std::uint64_t kSlotAlignment = 8;
constexpr std::size_t kLargestObject = std::numeric_limits<off_t>::max();

constexpr std::uint64_t slotSizeFor(std::uint64_t messageSize) {
  return kSlotHeaderSize + (messageSize + kSlotAlignment - 1) / kSlotAlignment * kSlotAlignment;
}

/// The size of a queue's object; 0 for limits that no queue can have.
constexpr std::size_t objectSize(std::size_t messages, std::size_t messageSize) {
  if (messages == 0 || messageSize == 0 || messageSize > kLargestObject) return 0;
  const std::size_t perMessage = kIndexEntrySize + slotSizeFor(messageSize);
  // Divides instead of multiplying: limits may come from a foreign object, and their product could
  // wrap.
  if (messages > (kLargestObject - kHeaderEnd) / perMessage) return 0;
  return kHeaderEnd + messages * perMessage;
}

static_assert(sizeof(std::size_t) == 8, "the queue library's sizes are of this type");
constexpr std::size_t kSmallestObject = objectSize(1, 1);
static_assert(kHeaderEnd == 152 + alignof(std::max_align_t) + sizeof(pthread_mutex_t),
              "as measured");
static_assert(kSmallestObject == kHeaderEnd + 32, "as measured");
static_assert(objectSize(4, 300) == kHeaderEnd + 1312, "as measured");

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

  /// The offset that an index entry points to: entries are relative to their own address.
  static std::uint64_t target(std::uint64_t entry, std::uint64_t untrusted) noexcept {
    return entryOffset(entry) + untrusted;  // a distance backwards wraps
  }

  /// Whether a message of this length fits into a slot.
  bool hold(std::uint64_t untrustedLength) const noexcept {
    return untrustedLength <= messageSize_;
  }

  /// Whether a slot starts at this offset. Only then may its length be read.
  bool startAt(std::uint64_t untrustedOffset) const noexcept {
    return untrustedOffset >= begin_ && (untrustedOffset - begin_) % slotSize_ == 0 &&
           (untrustedOffset - begin_) / slotSize_ < messages_;
  }

 private:
  std::uint64_t messages_;
  std::uint64_t messageSize_;
  std::uint64_t begin_;
  std::uint64_t slotSize_;
};

}  // namespace korvex

#endif
