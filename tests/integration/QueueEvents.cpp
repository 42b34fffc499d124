#include "integration/QueueEvents.h"

#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

#include "support/DaemonQueues.h"
#include "support/QueueFields.h"
#include "support/Queues.h"
#include "support/SharedObject.h"

namespace korvex::test::strange {
namespace {

using Happen = std::function<void(const std::string&)>;

const std::string kWorks = "works";
const std::string kNoQueue = "open: the shared-memory object is not a sound message queue";
const std::string kLockBroken = "open: boost::interprocess::lock_exception";
const std::string kUntouched;
const std::string kGone = "they were removed or replaced";
const std::string kOverwritten = "their memory was overwritten";
// Counts too large to be true are noticed when a message is looked for, unless they come just
// before the memory is watched, or lie where none is looked for.
const std::string kOverwrittenOrUnsound =
    kOverwritten + "|the shared-memory object is not a sound message queue";
const std::string kGrown = "their size was changed";
// Which of the two it is depends on whether a size is looked at before a byte.
const std::string kCut = "their memory was truncated, or the system is out of memory|" + kGrown;
// What is promised to no host process: its queue's file is cut under it.
const std::string kBusError = "killed by signal 7";

std::string pathOf(const std::string& name) { return "/dev/shm/" + name; }

void require(bool done, const char* what) {
  if (!done) throw std::runtime_error(what);
}

void write(const std::string& name, off_t offset, const Bytes& bytes) {
  const int file = ::open(pathOf(name).c_str(), O_WRONLY | O_CLOEXEC);
  const ssize_t written = ::pwrite(file, bytes.data(), bytes.size(), offset);
  ::close(file);
  require(written == static_cast<ssize_t>(bytes.size()), "write");
}

std::size_t sizeOf(const std::string& name) {
  struct stat found = {};
  require(::stat(pathOf(name).c_str(), &found) == 0, "stat");
  return static_cast<std::size_t>(found.st_size);
}

Happen all(unsigned char byte) {
  return [byte](const std::string& name) { write(name, 0, Bytes(sizeOf(name), byte)); };
}

Happen number(off_t offset, std::uint64_t value) {
  Bytes bytes(sizeof value);
  std::memcpy(bytes.data(), &value, sizeof value);
  return [=](const std::string& name) { write(name, offset, bytes); };
}

Happen word(off_t offset, std::uint32_t value) {
  Bytes bytes(sizeof value);
  std::memcpy(bytes.data(), &value, sizeof value);
  return [=](const std::string& name) { write(name, offset, bytes); };
}

Happen cut(off_t size) {
  return [size](const std::string& name) {
    require(::truncate(pathOf(name).c_str(), size) == 0, "truncate");
  };
}

void growByAPage(const std::string& name) { cut(static_cast<off_t>(sizeOf(name)) + 4096)(name); }

void take(const std::string& name) { require(::unlink(pathOf(name).c_str()) == 0, "unlink"); }

void replaceByQueue(const std::string& name) {
  take(name);
  boost::interprocess::message_queue(boost::interprocess::create_only, name.c_str(), 4, 4096);
}

void replaceByEmptyFile(const std::string& name) {
  take(name);
  ::close(::open(pathOf(name).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
}

void replaceByPipe(const std::string& name) {
  take(name);
  require(::mkfifo(pathOf(name).c_str(), 0600) == 0, "mkfifo");
}

void replaceByFolder(const std::string& name) {
  take(name);
  require(::mkdir(pathOf(name).c_str(), 0700) == 0, "mkdir");
}

void replaceByLink(const std::string& name) {
  take(name);
  require(::symlink("/dev/zero", pathOf(name).c_str()) == 0, "symlink");
}

void openToAll(const std::string& name) {
  require(::chmod(pathOf(name).c_str(), 0666) == 0, "chmod");
}

}  // namespace

const std::vector<Event>& events() {
  static const std::vector<Event> table = {
      // What a writer sends then is read by nobody; only the missing receipt tells.
      {"Removed", take, kWorks, kWorks, kGone, After::ServedAnew},
      {"ReplacedByAQueue", replaceByQueue, kWorks, kWorks, kGone, After::Blocked},
      {"ReplacedByAnEmptyFile", replaceByEmptyFile, kWorks, kWorks, kGone, After::Blocked},
      {"ReplacedByAPipe", replaceByPipe, kWorks, kWorks, kGone, After::Blocked},
      {"ReplacedByAFolder", replaceByFolder, kWorks, kWorks, kGone, After::Blocked},
      {"ReplacedByALink", replaceByLink, kWorks, kWorks, kGone, After::Blocked},
      {"OpenedToAll", openToAll, kWorks, kWorks, kUntouched, After::Untouched},

      {"CutToNothing", cut(0), kBusError, kBusError, kCut, After::ServedAnew},
      {"CutInTheHeader", cut(100), kNoQueue, kNoQueue, kCut, After::ServedAnew},
      {"CutBehindTheIndex", cut(kIndexAt + 16 * 8), kBusError, kWorks, kCut, After::ServedAnew},
      {"Grown", growByAPage, kWorks, kWorks, kGrown, After::ServedAnew},

      {"FilledWithZeros", all(0), kNoQueue, kNoQueue, kOverwritten, After::ServedAnew},
      {"FilledWithOnes", all(0xff), kNoQueue, kNoQueue, kOverwrittenOrUnsound, After::ServedAnew},
      {"FilledWithText", all('x'), kNoQueue, kNoQueue, kOverwrittenOrUnsound, After::ServedAnew},
      {"MarkedUninitialized", word(kStateWordAt, 0), kNoQueue, kNoQueue, kOverwritten,
       After::ServedAnew},
      {"MarkedCorrupted", word(kStateWordAt, 3), kNoQueue, kNoQueue, kOverwritten,
       After::ServedAnew},
      {"IndexMoved", number(kIndexPointerAt, 4096), kNoQueue, kNoQueue, kOverwritten,
       After::ServedAnew},
      {"NoMessages", number(kMaxMessagesAt, 0), kNoQueue, kNoQueue, kOverwritten,
       After::ServedAnew},
      {"MoreMessages", number(kMaxMessagesAt, 1000), kNoQueue, kNoQueue, kOverwritten,
       After::ServedAnew},
      {"LargerMessages", number(kMaxMessageSizeAt, 1 << 20), kNoQueue, kNoQueue, kOverwritten,
       After::ServedAnew},
      {"MoreStoredThanFit", number(kMessagesAt, 1000), kNoQueue, kNoQueue, kOverwrittenOrUnsound,
       After::ServedAnew},
      {"FirstFarAway", number(kFirstMessageAt, 1000), kNoQueue, kNoQueue, kOverwritten,
       After::ServedAnew},
      // No reply lies there yet, so nobody follows it.
      {"FirstEntryMoved", number(kIndexAt, 8), kNoQueue, kWorks, kOverwritten, After::ServedAnew},

      {"LockOfAllOnes",
       [](const std::string& name) { write(name, kLockWordAt, Bytes(kLockSize, 0xff)); },
       kLockBroken, kLockBroken, kOverwritten, After::ServedAnew},
      {"LockOfADeadProcess", korvex::test::dieHoldingLockOf,
       "open: status 15: Timed out after waiting 1s to send data to korvexd on stream test", kWorks,
       "a process died with the queue's lock", After::ServedAnew},
      {"LockTakenByNobody", word(kLockWordAt, 1),
       "open: status 15: Timed out after waiting 1s to send data to korvexd on stream test", kWorks,
       "the queue's lock stayed taken", After::ServedAnew},
  };
  return table;
}

}  // namespace korvex::test::strange
