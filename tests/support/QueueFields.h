#ifndef TESTS_SUPPORT_QUEUE_FIELDS_H
#define TESTS_SUPPORT_QUEUE_FIELDS_H

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

/// Where the fields are in a message queue's shared-memory object, for tests that overwrite them.
///
///     0    state word: 2 once the queue is whole
///     16   index pointer: the index's offset, counted from here
///     24   most messages
///     32   most bytes of a message
///     40   messages that wait
///     48   the lock: its word, at 56 the thread that holds it, at 64 its kind
///     184  which of the index's entries is the first
///     208  the index: 8 bytes per message
///     then the slots: 16 bytes and the message, rounded up to 8
///
/// On arm64 the lock is larger, and what follows it lies 8 bytes further on. On s390x everything
/// but the state word lies 8 bytes nearer to the start.
namespace korvex::test {

constexpr off_t kStateWordAt = 0;
#ifdef __s390x__
constexpr off_t kIndexPointerAt = 8;
#else
constexpr off_t kIndexPointerAt = 16;
#endif
constexpr off_t kMaxMessagesAt = kIndexPointerAt + 8;
constexpr off_t kMaxMessageSizeAt = kIndexPointerAt + 16;
constexpr off_t kMessagesAt = kIndexPointerAt + 24;
constexpr off_t kLockWordAt = kIndexPointerAt + 32;
constexpr off_t kLockOwnerAt = kIndexPointerAt + 40;
constexpr off_t kLockKindAt = kLockWordAt + 16;
#ifdef __aarch64__
constexpr std::size_t kLockSize = 48;
#else
constexpr std::size_t kLockSize = 40;
#endif
constexpr off_t kFirstMessageAt = kLockWordAt + off_t{kLockSize} + 96;
constexpr off_t kIndexAt = kFirstMessageAt + 24;
constexpr off_t kIndexEntrySize = 8;
constexpr off_t kSlotHeaderSize = 16;

constexpr off_t slotsAt(off_t messages) { return kIndexAt + messages * kIndexEntrySize; }

constexpr off_t slotSize(off_t messageSize) { return kSlotHeaderSize + (messageSize + 7) / 8 * 8; }

}  // namespace korvex::test

#endif
