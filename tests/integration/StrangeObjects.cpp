#include "integration/StrangeObjects.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include "support/Child.h"
#include "support/DaemonQueues.h"
#include "support/QueueFields.h"
#include "support/SharedObject.h"

namespace korvex::test::strange {
namespace {

using Place = std::function<Holder(const std::string&)>;

// Where a queue of these limits has the end of its index and its slots.
constexpr std::size_t kLastEntry = kIndexAt + 24;
constexpr std::size_t kFirstSlot = kIndexAt + 32;
constexpr std::size_t kLastSlot = kFirstSlot + 456;
constexpr std::size_t kQueueSize = kFirstSlot + 608;
constexpr std::uint64_t kAllOnes = ~std::uint64_t{0};

const std::string kWorks = "works";
const std::string kServes;
const std::string kAbsent = "construct: No such file or directory";
const std::string kDenied = "construct: Permission denied";
const std::string kNoQueue = "construct: the shared-memory object is not a sound message queue";
const std::string kInvalid = "construct: Invalid argument";
const std::string kLink = "construct: Too many levels of symbolic links";
const std::string kSocket = "construct: No such device or address";
const std::string kLibraryError = "open: boost::interprocess_exception::library_error";
const std::string kLockBroken = "open: boost::interprocess::lock_exception";
const std::string kNoRoom =
    "open: status 15: Timed out after waiting 1s to send data to korvexd on stream test";

std::string pathOf(const std::string& name) { return "/dev/shm/" + name; }

std::string notRemoved(const std::string& found) {
  return "queue NAME cannot be removed: found " + found + ", expected a queue that a daemon left";
}

const std::string kAnotherFile = notRemoved("another file");

Place bytes(const Bytes& content) {
  return [content](const std::string& name) -> Holder {
    return std::make_shared<SharedObject>(name, content);
  };
}

/// A sound queue's bytes, changed.
Place queueWith(const std::function<void(Bytes&)>& change) {
  return [change](const std::string& name) -> Holder {
    Bytes image;
    {
      const RawQueue model(uniqueQueueName(), kMessages, kMessageSize);
      image = bytesOfObject(model.name());
    }
    change(image);
    return std::make_shared<SharedObject>(name, image);
  };
}

template <typename Integer>
Place field(std::size_t offset, Integer value) {
  return queueWith([=](Bytes& image) { std::memcpy(image.data() + offset, &value, sizeof value); });
}

Place word(std::uint32_t value) { return field(kStateWordAt, value); }
Place number(std::size_t offset, std::uint64_t value) { return field(offset, value); }

Place sized(std::size_t size) {
  return queueWith([size](Bytes& image) { image.resize(size); });
}

Place filled(std::size_t offset, std::size_t size) {
  return queueWith([=](Bytes& image) { std::memset(image.data() + offset, 0xff, size); });
}

/// Whatever lies there at the end is removed.
Holder removedAtTheEnd(const std::string& path) {
  return Holder(nullptr, [path](void*) { ::remove(path.c_str()); });
}

/// A sound queue, made by the queue library, that no process has open.
Holder placeQueue(const std::string& name, std::size_t messages = kMessages,
                  std::size_t messageSize = kMessageSize) {
  namespace ipc = boost::interprocess;
  ipc::message_queue(ipc::create_only, name.c_str(), messages, messageSize);
  return removedAtTheEnd(pathOf(name));
}

Place queueOf(std::size_t messages, std::size_t messageSize) {
  return [=](const std::string& name) { return placeQueue(name, messages, messageSize); };
}

/// A header that claims more than any machine has, in a sparse file of the size that it claims.
Holder placeHugeQueue(const std::string& name) {
  constexpr std::uint64_t kMany = std::uint64_t{1} << 40;
  Bytes header(kIndexAt);
  header[kStateWordAt] = 2;
  header[kIndexPointerAt] = kIndexAt - kIndexPointerAt;
  header[kMaxMessageSizeAt] = 8;
  std::memcpy(header.data() + kMaxMessagesAt, &kMany, sizeof kMany);
  auto object = std::make_shared<SharedObject>(name, header);
  object->resize(static_cast<off_t>(kIndexAt + kMany * (8 + 16 + 8)));
  return object;
}

/// As a 32-bit process lays it out: everything begins 12 bytes earlier, sizes have 4 bytes.
Bytes queueOf32Bits() {
  Bytes image(728);
  image[0] = 2;
  image[4] = 148;  // the index begins behind the header
  image[8] = kMessages;
  image[12] = kMessageSize;
  for (std::size_t i = 0; i < kMessages; ++i) {
    image[152 + 4 * i] = static_cast<unsigned char>(16 - 4 * i + 140 * i);
  }
  return image;
}

/// The same bytes on every run.
Bytes noise() {
  Bytes image(kQueueSize);
  std::uint32_t state = 12345;
  for (unsigned char& byte : image) {
    state = state * 1664525 + 1013904223;
    byte = static_cast<unsigned char>(state >> 24);
  }
  return image;
}

Bytes text() { return Bytes(kQueueSize, 'x'); }

void require(bool done, const char* what) {
  if (!done) throw std::runtime_error(what);
}

Holder placePipe(const std::string& name) {
  require(::mkfifo(pathOf(name).c_str(), 0666) == 0, "mkfifo");
  return removedAtTheEnd(pathOf(name));
}

Holder placeFolder(const std::string& name) {
  require(::mkdir(pathOf(name).c_str(), 0700) == 0, "mkdir");
  return removedAtTheEnd(pathOf(name));
}

Holder placeSocket(const std::string& name) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  pathOf(name).copy(address.sun_path, sizeof address.sun_path - 1);
  const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
  const bool isBound =
      ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  ::close(socket);
  require(isBound, "bind");
  return removedAtTheEnd(pathOf(name));
}

/// The device that gives zeros without end: the one that looks most like fresh shared memory.
int makeDevice(const std::string& path) {
  return ::mknod(path.c_str(), S_IFCHR | 0600, ::makedev(1, 5));
}

Holder placeDevice(const std::string& name) {
  require(makeDevice(pathOf(name)) == 0, "mknod");
  return removedAtTheEnd(pathOf(name));
}

std::string obstacleToDevices() {
  if (!korvex::test::isRoot()) return "only root can make a device";
  const std::string path = pathOf(uniqueQueueName("device"));
  const std::string refusal =
      makeDevice(path) == 0 ? "" : std::string("mknod is refused: ") + std::strerror(errno);
  ::unlink(path.c_str());
  return refusal;
}

/// Many systems let nobody open a device in shared memory.
bool mayDevicesBeOpened() {
  struct statvfs found = {};
  return ::statvfs("/dev/shm", &found) != 0 || (found.f_flag & ST_NODEV) == 0;
}

Holder placeLink(const std::string& target, const std::string& name) {
  require(::symlink(target.c_str(), pathOf(name).c_str()) == 0, "symlink");
  return removedAtTheEnd(pathOf(name));
}

Place linkTo(const std::string& target) {
  return [target](const std::string& name) { return placeLink(target, name); };
}

Holder placeLinkToItself(const std::string& name) { return placeLink(pathOf(name), name); }

Holder placeLinkToQueue(const std::string& name) {
  const std::string target = uniqueQueueName();
  const Holder queue = placeQueue(target);
  const Holder link = placeLink(pathOf(target), name);
  return Holder(nullptr, [queue, link](void*) {});
}

Holder placeSecondName(const std::string& name) {
  const std::string target = uniqueQueueName();
  const Holder queue = placeQueue(target);
  require(::link(pathOf(target).c_str(), pathOf(name).c_str()) == 0, "link");
  const Holder second = removedAtTheEnd(pathOf(name));
  return Holder(nullptr, [queue, second](void*) {});
}

/// A sound queue with this owner and mode.
Place owned(uid_t owner, mode_t mode) {
  return [=](const std::string& name) -> Holder {
    Holder queue = placeQueue(name);
    require(::chown(pathOf(name).c_str(), owner, static_cast<gid_t>(-1)) == 0, "chown");
    require(::chmod(pathOf(name).c_str(), mode) == 0, "chmod");
    return queue;
  };
}

/// Whose lock a thread took that ended since.
Holder placeLockOfDead(const std::string& name) {
  Holder queue = placeQueue(name);
  QueueLock(name).takeAndDie();
  return queue;
}

Holder placeRobustLockOfDead(const std::string& name) {
  Holder queue = placeQueue(name);
  const QueueLock lock(name);
  lock.makeRobust();
  lock.takeAndDie();
  return queue;
}

Kind device() {
  const std::string writer = mayDevicesBeOpened() ? kNoQueue : kDenied;
  return {"Device",       placeDevice,      writer, writer, notRemoved("a device"),
          Actor::Anybody, obstacleToDevices};
}

/// The same for whoever meets it, under either name.
Kind same(const char* name, Place place, const std::string& writer,
          const std::string& keepsDaemonOut = kServes) {
  return {name, std::move(place), writer, writer, keepsDaemonOut};
}

/// Its own user's object with permissions that keep even that user out.
Kind forbidden(const char* name, mode_t mode) {
  return {name,
          owned(korvex::test::unprivilegedUser(), mode),
          kDenied,
          kDenied,
          "opening the existing queue NAME: error 13 (Permission denied)",
          Actor::Unprivileged};
}

std::string obstacleToForeignObjects() {
  return korvex::test::isRoot() ? "" : "only root can make an object of another user";
}

Kind foreign(const char* name, mode_t mode, const std::string& writer) {
  return {name,
          owned(0, mode),
          writer,
          writer,
          "queue NAME cannot be removed: found one of user 0, expected one of user USER",
          Actor::Unprivileged,
          obstacleToForeignObjects};
}

}  // namespace

const std::vector<Kind>& kinds() {
  static const std::vector<Kind> table = {
      same(
          "Absent", [](const std::string&) { return Holder(); }, kAbsent),

      // Sizes, and objects that nobody has begun to fill.
      same("Empty", bytes({}), kNoQueue),
      same("OneZero", bytes({0}), kNoQueue),
      same("OneByteOfACreatorThatFailed", bytes({3}), kNoQueue),
      same("TwoBytesThatLookReady", bytes({2, 0}), kNoQueue),
      same("Zeros4", bytes(Bytes(4)), kNoQueue),
      same("ZerosOfAHeader", bytes(Bytes(kIndexAt)), kNoQueue, kAnotherFile),
      same("ZerosOfTheSmallestQueue", bytes(Bytes(kIndexAt + 32)), kNoQueue),
      same("ZerosOfAQueue", bytes(Bytes(kQueueSize)), kNoQueue),
      same("ZerosOfAPage", bytes(Bytes(4096)), kNoQueue),
      same("AllOnes", bytes(Bytes(kQueueSize, 0xff)), kNoQueue, kAnotherFile),
      same("Text", bytes(text()), kNoQueue, kAnotherFile),
      same("Noise", bytes(noise()), kNoQueue, kAnotherFile),
      same("QueueOf32Bits", bytes(queueOf32Bits()), kNoQueue, kAnotherFile),

      // The word that says how far the creator came.
      same("NeverInitialized", word(0), kNoQueue),
      same("HalfInitialized", word(1), kNoQueue),
      same("MarkedCorrupted", word(3), kNoQueue),
      same("UnknownInitWord", word(77), kNoQueue),
      same("InitWordInTheOtherByteOrder", word(0x02000000), kNoQueue),
      same("InitWordOfAllOnes", word(0xffffffff), kNoQueue),

      // A sound queue, cut or grown.
      same("CutInTheInitWord", sized(3), kNoQueue),
      same("CutBehindTheInitWord", sized(16), kNoQueue),
      same("CutInTheHeader", sized(100), kNoQueue),
      same("CutBehindTheHeader", sized(kIndexAt), kNoQueue),
      same("CutBehindTheIndex", sized(kFirstSlot), kNoQueue),
      same("CutInTheLastSlot", sized(kLastSlot + 16), kNoQueue),
      same("CutByOneByte", sized(kQueueSize - 1), kNoQueue),
      same("GrownByOneByte", sized(kQueueSize + 1), kNoQueue),
      same("GrownByAPage", sized(kQueueSize + 4096), kNoQueue),

      // Counts and sizes.
      same("NoMessages", number(kMaxMessagesAt, 0), kNoQueue),
      same("OneMessageLess", number(kMaxMessagesAt, kMessages - 1), kNoQueue),
      same("OneMessageMore", number(kMaxMessagesAt, kMessages + 1), kNoQueue),
      same("MostMessages", number(kMaxMessagesAt, kAllOnes), kNoQueue),
      same("MessagesWhoseSizeWraps", number(kMaxMessagesAt, std::uint64_t{1} << 61), kNoQueue),
      same("MessagesOfNoBytes", number(kMaxMessageSizeAt, 0), kNoQueue),
      same("SmallerMessages", number(kMaxMessageSizeAt, 128), kNoQueue),
      same("LargerMessages", number(kMaxMessageSizeAt, 137), kNoQueue),
      same("LargestMessages", number(kMaxMessageSizeAt, kAllOnes), kNoQueue),
      same("MoreStoredThanFit", number(kMessagesAt, kMessages + 1), kNoQueue),
      same("MostStored", number(kMessagesAt, kAllOnes), kNoQueue),
      same("FirstBehindTheIndex", number(kFirstMessageAt, kMessages), kNoQueue),
      same("FirstFarAway", number(kFirstMessageAt, kAllOnes), kNoQueue),
      same("IndexNowhere", number(kIndexPointerAt, 0), kNoQueue, kAnotherFile),
      same("IndexInTheHeader", number(kIndexPointerAt, kFirstMessageAt - kIndexPointerAt), kNoQueue,
           kAnotherFile),
      same("IndexBehindItsPlace", number(kIndexPointerAt, kIndexAt - kIndexPointerAt + 8), kNoQueue,
           kAnotherFile),
      same("IndexFarAway", number(kIndexPointerAt, kAllOnes), kNoQueue, kAnotherFile),
      same("FirstEntryLeadsNowhere", number(kIndexAt, 0), kNoQueue),
      same("EntryLeadsIntoTheHeader", number(kIndexAt, std::uint64_t{0} - kIndexAt), kNoQueue),
      same("EntryLeadsBesideASlot", number(kIndexAt, 33), kNoQueue),
      same("LastEntryLeadsBehindTheEnd", number(kLastEntry, kQueueSize - kLastEntry), kNoQueue),
      same("MessageLongerThanItsSlot", number(kFirstSlot, kMessageSize + 1), kNoQueue),
      same("MessageOfAllOnes", number(kLastSlot, kAllOnes), kNoQueue),
      same("HugeClaims", placeHugeQueue, kNoQueue),
      // Its limits are right, so only a receiver notices, and only that nothing ever comes of it.
      {"SaysThatItIsFull", number(kMessagesAt, kMessages), kNoRoom, kWorks, kServes},

      // Sound, but not what a daemon makes.
      {"MessagesTooSmallForABatch", queueOf(4, 7),
       "construct: status 9: Buffer size 7 is invalid because it is smaller than the minimum "
       "required "
       "buffer size of 8",
       kWorks, kServes},
      {"MessagesTooSmallForARecord", queueOf(4, 55),
       "open: status 89: Could not fit header (type=0) with data length 0 into the batch, even "
       "after batch has been flushed",
       kWorks, kServes},
      {"RepliesLargerThanARecord", queueOf(4, 133), kWorks, kLibraryError, kServes},
      {"OneMessageOfOneByte", queueOf(1, 1),
       "construct: status 9: Buffer size 1 is invalid because it is smaller than the minimum "
       "required "
       "buffer size of 8",
       kWorks, kServes},

      // The lock.
      {"LockOfADeadThread", placeLockOfDead, kNoRoom, kWorks, kServes},
      {"RobustLockOfADeadThread", placeRobustLockOfDead, kLockBroken, kLockBroken, kServes},
      {"LockWordOfAllOnes", field(kLockWordAt, std::uint32_t{0xffffffff}), kNoRoom, kWorks,
       kServes},
      {"LockTakenByNobody", field(kLockWordAt, std::uint32_t{1}), kNoRoom, kWorks, kServes},
      {"LockOfAllOnes", filled(kLockWordAt, kLockSize), kLockBroken, kLockBroken, kServes},
      {"OwnerThatCannotBe", field(kLockOwnerAt, std::uint32_t{0x7fffffff}), kWorks, kWorks,
       kServes},

      // No files.
      same("Pipe", placePipe, kNoQueue, notRemoved("a pipe")),
      same("Folder", placeFolder, kInvalid, notRemoved("a folder")),
      same("Socket", placeSocket, kSocket, notRemoved("a socket")),
      device(),
      same("LinkToNothing", linkTo("/dev/shm/korvex-nothing"), kLink,
           notRemoved("a symbolic link")),
      same("LinkToAQueue", placeLinkToQueue, kLink, notRemoved("a symbolic link")),
      same("LinkToADevice", linkTo("/dev/zero"), kLink, notRemoved("a symbolic link")),
      same("LinkToItself", placeLinkToItself, kLink, notRemoved("a symbolic link")),
      same("LinkToAFile", linkTo("/etc/passwd"), kLink, notRemoved("a symbolic link")),
      same("SecondNameOfAQueue", placeSecondName, kWorks),

      // Owners and permissions.
      forbidden("OwnWithoutPermissions", 0000),
      forbidden("OwnReadOnly", 0400),
      forbidden("OwnWriteOnly", 0200),
      foreign("ForeignPrivate", 0600, kDenied),
      foreign("ForeignReadable", 0644, kDenied),
      foreign("ForeignWriteOnly", 0622, kDenied),
      foreign("ForeignOpenToAll", 0666, kWorks),
  };
  return table;
}

}  // namespace korvex::test::strange
