// The queue's units when the system refuses, or when something happens between two of their calls.

#include <boost/interprocess/exceptions.hpp>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "queue/MessageQueue.h"
#include "queue/QueueView.h"
#include "support/DaemonQueues.h"
#include "support/QueueFields.h"
#include "support/RestoredDescriptor.h"
#include "support/SharedObject.h"
#include "support/SystemCalls.h"

using korvex::MessageQueue;
using korvex::QueueView;
using korvex::test::kFirstMessageAt;
using korvex::test::kIndexAt;
using korvex::test::kLockOwnerAt;
using korvex::test::kLockWordAt;
using korvex::test::nextDescriptor;
using korvex::test::RawQueue;
using korvex::test::RestoredDescriptor;
using korvex::test::SharedObject;
using korvex::test::uniqueQueueName;
using korvex::test::system_calls::failing;
using korvex::test::system_calls::instead;
using korvex::test::system_calls::overwrite;
using State = QueueView::State;
namespace ipc = boost::interprocess;

namespace {

class SystemCalls : public testing::Test {
 protected:
  ~SystemCalls() override { instead = {}; }
};

using QueueViewCalls = SystemCalls;
using MessageQueueCalls = SystemCalls;

const char* pathOf(int file) {
  static char path[300];
  const std::string link = "/proc/self/fd/" + std::to_string(file);
  const ssize_t size = ::readlink(link.c_str(), path, sizeof path - 1);
  path[size < 0 ? 0 : size] = '\0';
  return path;
}

/// What an operation of the queue library fails with.
struct LibraryError {
  int code;
  int systemError;
  std::string text;
};

template <typename Call>
LibraryError errorOf(Call call) {
  try {
    call();
  } catch (const ipc::interprocess_exception& error) {
    return {error.get_error_code(), error.get_native_error(), error.what()};
  }
  return {ipc::no_error, 0, ""};
}

/// The looks are the only ones that do not want to wait for a pipe.
bool isLook(int flags) { return (flags & O_NONBLOCK) != 0; }
bool isCreation(int flags) { return (flags & O_CREAT) != 0; }

}  // namespace

TEST_F(QueueViewCalls, ObjectThatTellsNothingOfItselfIsDamaged) {
  const RawQueue queue(uniqueQueueName(), 4, 300);
  instead.fstat = [](int, struct stat*) { return failing(EIO); };
  const QueueView view(queue.name());
  EXPECT_EQ(view.state(), State::Damaged);
  EXPECT_EQ(view.systemError(), EIO);
}

TEST_F(QueueViewCalls, EveryReadThatComesShortMeansDamaged) {
  const RawQueue queue(uniqueQueueName(), 4, 300);
  std::vector<off_t> places;
  instead.pread = [&](int file, void* bytes, std::size_t size, off_t offset) {
    places.push_back(offset);
    return korvex::test::system_calls::pread(file, bytes, size, offset);
  };
  ASSERT_EQ(QueueView(queue.name()).state(), State::Sound);
  ASSERT_EQ(places.size(), 9u) << "the header, and entry and length of each slot";
  for (const off_t place : places) {
    instead.pread = [place](int file, void* bytes, std::size_t size, off_t offset) {
      const ssize_t read = korvex::test::system_calls::pread(file, bytes, size, offset);
      return offset == place ? read - 1 : read;
    };
    EXPECT_EQ(QueueView(queue.name()).state(), State::Damaged) << "read at " << place;
  }
}

namespace {

/// What a peer does to the first place of a queue of 4 messages in the middle of a change.
void goRound(const std::string& name) { overwrite(name, kFirstMessageAt, std::uint64_t{4}); }
void endRound(const std::string& name) { overwrite(name, kFirstMessageAt, std::uint64_t{3}); }

/// Runs something before each read of the header, with the number of that read from 1 on.
template <typename Before>
void beforeHeaderReads(Before before) {
  instead.pread = [before, reads = 0](int file, void* bytes, std::size_t size,
                                      off_t offset) mutable {
    if (offset == 0) before(++reads);
    return korvex::test::system_calls::pread(file, bytes, size, offset);
  };
}

}  // namespace

// A peer takes the lock after the first read of the header.
TEST_F(QueueViewCalls, LockTakenAfterTheLookExcusesItToo) {
  const RawQueue queue(uniqueQueueName(), 4, 300);
  goRound(queue.name());
  instead.pread = [&](int file, void* bytes, std::size_t size, off_t offset) {
    const ssize_t read = korvex::test::system_calls::pread(file, bytes, size, offset);
    if (offset == 0) overwrite(queue.name(), kLockWordAt, std::uint32_t{1});
    return read;
  };
  EXPECT_EQ(QueueView(queue.name()).state(), State::Busy);
}

TEST_F(QueueViewCalls, LockThatCannotBeReadAgainExcusesNothing) {
  const RawQueue queue(uniqueQueueName(), 4, 300);
  goRound(queue.name());
  instead.pread = [](int file, void* bytes, std::size_t size, off_t offset) {
    if (offset == kLockWordAt) return ssize_t{failing(EIO)};
    return korvex::test::system_calls::pread(file, bytes, size, offset);
  };
  EXPECT_EQ(QueueView(queue.name()).state(), State::Damaged);
}

TEST_F(QueueViewCalls, WhatCannotBeReadCanBeNoQueue) {
  const SharedObject object(uniqueQueueName(), Bytes(8, 0));
  const int file = ::shm_open(object.name().c_str(), O_RDWR, 0);
  EXPECT_TRUE(QueueView::canBeQueue(file));
  instead.pread = [](int, void*, std::size_t, off_t) { return ssize_t{failing(EIO)}; };
  EXPECT_FALSE(QueueView::canBeQueue(file));
  instead.pread = nullptr;
  instead.fstat = [](int, struct stat*) { return failing(EIO); };
  EXPECT_FALSE(QueueView::canBeQueue(file));
  instead.fstat = nullptr;
  ::close(file);
  const int folder = ::open("/dev/shm", O_RDONLY | O_CLOEXEC);
  EXPECT_FALSE(QueueView::canBeQueue(folder));
  ::close(folder);
}

// What a peer has overwritten since the queue was opened.
TEST_F(QueueViewCalls, OnlyWhatTheIndexNamesCountsAsWaiting) {
  RawQueue queue(uniqueQueueName(), 4, 300);
  queue.post("0123456789", 10);
  const QueueView view(queue.name());
  EXPECT_EQ(view.waitingBytes(), 10u);
  goRound(queue.name());
  EXPECT_EQ(view.waitingBytes(), 0u) << "the first place is behind the last";
  endRound(queue.name());
  for (off_t entry = 0; entry < 4; ++entry) {
    overwrite(queue.name(), kIndexAt + entry * korvex::test::kIndexEntrySize, std::uint64_t{1});
  }
  EXPECT_EQ(view.waitingBytes(), 0u) << "no entry names a slot";
}

// A peer takes and releases the lock between the reads of one look, and is seen in between.
TEST_F(QueueViewCalls, OddLookUnderAFreeLockIsRepeated) {
  const RawQueue queue(uniqueQueueName(), 4, 300);
  for (int odd = 1; odd <= 3; ++odd) {
    goRound(queue.name());
    beforeHeaderReads([&](int read) {
      if (read > odd) endRound(queue.name());
    });
    EXPECT_EQ(QueueView(queue.name()).state(), odd < 3 ? State::Sound : State::Damaged) << odd;
  }
}

TEST_F(MessageQueueCalls, QueueThatIsBeingChangedIsWaitedFor) {
  const RawQueue queue(uniqueQueueName(), 4, 300);
  goRound(queue.name());
  overwrite(queue.name(), kLockWordAt, std::uint32_t{1});
  beforeHeaderReads([&](int read) {
    if (read != 3) return;
    endRound(queue.name());
    overwrite(queue.name(), kLockWordAt, std::uint32_t{0});
  });
  const auto deadline = MessageQueue::Clock::now() + std::chrono::hours(1);
  EXPECT_EQ(MessageQueue(queue.name(), deadline).maxMessageSize(), 300u);
}

TEST_F(MessageQueueCalls, QueueStayingInAChangeIsALockError) {
  const RawQueue queue(uniqueQueueName(), 4, 300);
  goRound(queue.name());
  overwrite(queue.name(), kLockWordAt, std::uint32_t{1});
  const auto error = errorOf([&] { MessageQueue(queue.name(), MessageQueue::Clock::now()); });
  EXPECT_EQ(error.code, ipc::timeout_when_locking_error);
  EXPECT_EQ(error.text, "the message queue's lock stayed taken");
}

// It may take a look at every process.
TEST_F(MessageQueueCalls, LateSendAsksOnceForTheLocksOwner) {
  const RawQueue raw(uniqueQueueName(), 4, 300);
  MessageQueue queue(raw.name(), MessageQueue::Clock::now());
  overwrite(raw.name(), kLockWordAt, std::uint32_t{1});
  overwrite(raw.name(), kLockOwnerAt, ::getpid());
  int asked = 0;
  instead.kill = [&](pid_t process, int) {
    EXPECT_EQ(process, ::getpid());
    ++asked;
    return 0;
  };
  EXPECT_FALSE(queue.sendBefore("abc", 3, 1, MessageQueue::Clock::now()));
  EXPECT_EQ(asked, 1);
}

TEST_F(MessageQueueCalls, SystemsErrorIsThatOfTheLibrarysExceptionsAlone) {
  const std::string absent = uniqueQueueName();
  try {
    const MessageQueue queue(absent, MessageQueue::Clock::now());
    ADD_FAILURE() << absent << " exists";
  } catch (const std::exception& error) {
    EXPECT_EQ(MessageQueue::systemErrorOf(error), ENOENT);
  }
  EXPECT_EQ(MessageQueue::systemErrorOf(std::runtime_error("of no system")), 0);
}

TEST_F(QueueViewCalls, ObjectThatCannotBeMappedIsUnreachable) {
  const RawQueue queue(uniqueQueueName(), 4, 300);
  instead.mmap = [](int) {
    errno = ENOMEM;
    return MAP_FAILED;
  };
  const QueueView view(queue.name());
  EXPECT_EQ(view.state(), State::Unreachable);
  EXPECT_EQ(view.systemError(), ENOMEM);
  EXPECT_EQ(view.maxMessages(), 0u);
}

TEST_F(QueueViewCalls, UnreadableNameCountsAsTakenOver) {
  const RawQueue queue(uniqueQueueName(), 4, 300);
  const QueueView view(queue.name());
  EXPECT_TRUE(view.isStillNamed(queue.name()));
  instead.lstat = [](const char*, struct stat*) { return failing(EIO); };
  EXPECT_FALSE(view.isStillNamed(queue.name()));
}

// Each device has inode numbers of its own.
TEST_F(QueueViewCalls, SameNumberOnAnotherDeviceIsAnotherObject) {
  const RawQueue queue(uniqueQueueName(), 4, 300);
  const QueueView view(queue.name());
  instead.lstat = [](const char* path, struct stat* found) {
    const int result = korvex::test::system_calls::lstat(path, found);
    ++found->st_dev;
    return result;
  };
  EXPECT_FALSE(view.isStillNamed(queue.name()));
}

TEST_F(QueueViewCalls, SystemWithoutPrefaultingIsAskedOnce) {
  RawQueue queue(uniqueQueueName(), 4, 300);
  queue.post("first", 5);
  queue.post("second", 6);
  QueueView view(queue.name());
  int asked = 0;
  instead.madvise = [&](void*, std::size_t size, int) {
    EXPECT_EQ(size, kIndexAt + std::size_t{1312});
    ++asked;
    return failing(EINVAL);
  };
  EXPECT_EQ(view.fetchNext(), 0u);
  EXPECT_EQ(view.fetchNext(), 0u);
  EXPECT_EQ(asked, 1);
}

TEST_F(MessageQueueCalls, CreationWithoutLimitsIsASizeError) {
  const std::string name = uniqueQueueName();
  EXPECT_EQ(errorOf([&] { MessageQueue(name, {0, 100}, 0600); }).code, ipc::size_error);
  EXPECT_EQ(errorOf([&] { MessageQueue(name, {4, 0}, 0600); }).code, ipc::size_error);
  EXPECT_FALSE(MessageQueue::remove(name));
}

TEST_F(MessageQueueCalls, FailedReservationLeavesNothing) {
  const std::string name = uniqueQueueName();
  instead.shmOpen = [](const char*, int, mode_t) { return failing(EMFILE); };
  EXPECT_EQ(errorOf([&] { MessageQueue(name, {4, 100}, 0600); }).systemError, EMFILE);
  instead = {};
  instead.posixFallocate = [](int file, off_t offset, off_t size) {
    EXPECT_NE(std::strstr(pathOf(file), ".room"), nullptr);
    EXPECT_EQ(offset, 0);
    EXPECT_EQ(size, kIndexAt + 4 * (8 + 16 + 104));
    return ENOSPC;
  };
  EXPECT_EQ(errorOf([&] { MessageQueue(name, {4, 100}, 0600); }).systemError, ENOSPC);
  EXPECT_FALSE(MessageQueue::remove(name + ".room"));
  EXPECT_FALSE(MessageQueue::remove(name));
}

TEST_F(MessageQueueCalls, TrialOfTheRoomIsNobodyElsesToUse) {
  const std::string name = uniqueQueueName();
  mode_t trialMode = 0;
  instead.shmOpen = [&](const char* path, int flags, mode_t mode) {
    if (std::strstr(path, ".room") != nullptr) trialMode = mode;
    return korvex::test::system_calls::shmOpen(path, flags, mode);
  };
  const MessageQueue queue(name, {4, 100}, 0666);
  EXPECT_EQ(trialMode, 0600u);
  EXPECT_TRUE(MessageQueue::remove(name));
}

TEST_F(MessageQueueCalls, CreationAndOpeningKeepNoDescriptor) {
  const int before = nextDescriptor();
  const std::string name = uniqueQueueName();
  const MessageQueue created(name, {4, 100}, 0600);
  EXPECT_EQ(nextDescriptor(), before);
  const MessageQueue opened(name, MessageQueue::Clock::now());
  EXPECT_EQ(nextDescriptor(), before);
  EXPECT_TRUE(MessageQueue::remove(name));
  EXPECT_EQ(errorOf([&] { MessageQueue(name, MessageQueue::Clock::now()); }).systemError, ENOENT);
  EXPECT_EQ(nextDescriptor(), before);
}

TEST_F(MessageQueueCalls, DescriptorZeroIsAsGoodAsAnyOther) {
  const std::string name = uniqueQueueName();
  const RestoredDescriptor noInput(STDIN_FILENO, -1);  // so that the next one is 0
  MessageQueue created(name, {4, 100}, 0600);
  EXPECT_EQ(created.trySend("abc", 3, 1), MessageQueue::Outcome::Done);
  const MessageQueue opened(name, MessageQueue::Clock::now());
  EXPECT_EQ(opened.view().messages(), 1u);
  EXPECT_EQ(nextDescriptor(), 0);
  EXPECT_TRUE(MessageQueue::remove(name));
}

TEST_F(MessageQueueCalls, QueueWhoseMemoryCannotBeReservedIsRemoved) {
  const std::string name = uniqueQueueName();
  instead.posixFallocate = [](int file, off_t offset, off_t size) {
    const bool isTrial = std::strstr(pathOf(file), ".room") != nullptr;
    return isTrial ? korvex::test::system_calls::posixFallocate(file, offset, size) : ENOSPC;
  };
  EXPECT_EQ(errorOf([&] { MessageQueue(name, {4, 100}, 0600); }).systemError, ENOSPC);
  EXPECT_FALSE(MessageQueue::remove(name));
}

TEST_F(MessageQueueCalls, QueueThatCannotBeReachedAgainIsRemoved) {
  const std::string name = uniqueQueueName();
  instead.shmOpen = [](const char* path, int flags, mode_t mode) {
    if (!isCreation(flags) && !isLook(flags)) return failing(EMFILE);
    return korvex::test::system_calls::shmOpen(path, flags, mode);
  };
  EXPECT_EQ(errorOf([&] { MessageQueue(name, {4, 100}, 0600); }).systemError, EMFILE);
  EXPECT_FALSE(MessageQueue::remove(name));
}

TEST_F(MessageQueueCalls, QueueThatDoesNotLookSoundIsRemoved) {
  const std::string name = uniqueQueueName();
  instead.shmOpen = [](const char* path, int flags, mode_t mode) {
    return isLook(flags) ? failing(EMFILE) : korvex::test::system_calls::shmOpen(path, flags, mode);
  };
  EXPECT_EQ(errorOf([&] { MessageQueue(name, {4, 100}, 0600); }).code, ipc::corrupted_error);
  EXPECT_FALSE(MessageQueue::remove(name));
}

// Between the look and the library's opening by name somebody puts another queue there.
TEST_F(MessageQueueCalls, QueueReplacedWhileOpeningIsLookedAtAgain) {
  auto queue = std::make_unique<RawQueue>(uniqueQueueName(), 4, 300);
  const std::string name = queue->name();
  bool isReplaced = false;
  instead.shmOpen = [&](const char* path, int flags, mode_t mode) {
    if (!isLook(flags) && !std::exchange(isReplaced, true)) {
      queue.reset();
      queue = std::make_unique<RawQueue>(name, 4, 500);
    }
    return korvex::test::system_calls::shmOpen(path, flags, mode);
  };
  const auto deadline = MessageQueue::Clock::now() + std::chrono::hours(1);
  const MessageQueue opened(name, deadline);
  EXPECT_EQ(opened.maxMessageSize(), 500u);
}

TEST_F(MessageQueueCalls, QueueThatIsFinishedMeanwhileIsOpened) {
  const std::string name = uniqueQueueName();
  auto unfinished = std::make_unique<SharedObject>(name);
  std::unique_ptr<RawQueue> queue;
  int looks = 0;
  instead.shmOpen = [&](const char* path, int flags, mode_t mode) {
    if (isLook(flags) && ++looks == 2) {
      unfinished.reset();
      queue = std::make_unique<RawQueue>(name, 4, 300);
    }
    return korvex::test::system_calls::shmOpen(path, flags, mode);
  };
  const auto deadline = MessageQueue::Clock::now() + std::chrono::hours(1);
  const MessageQueue opened(name, deadline);
  EXPECT_EQ(opened.maxMessageSize(), 300u);
  EXPECT_EQ(looks, 2) << "one for what is unfinished, one for the queue";
}

TEST_F(MessageQueueCalls, NextMessageIsFetchedBeforeItIsTaken) {
  RawQueue raw(uniqueQueueName(), 4, 8);
  raw.post("first", 5);
  raw.post("second", 6);
  MessageQueue queue(raw.name(), MessageQueue::Clock::now());
  std::size_t waitingWhenAsked = 0;
  instead.madvise = [&](void*, std::size_t, int) {
    waitingWhenAsked = queue.view().messages();
    return 0;
  };
  char buffer[8];
  std::size_t size = 0;
  EXPECT_EQ(queue.tryReceiveNext(buffer, sizeof buffer, size), MessageQueue::Outcome::Done);
  EXPECT_EQ(waitingWhenAsked, 2u);
}
