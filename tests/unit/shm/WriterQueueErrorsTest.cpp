#include <cerrno>
#include <cstring>
#include <exception>
#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "korvex/ShmWriter.h"
#include "support/DaemonQueues.h"
#include "support/SharedObject.h"

using korvex::ShmWriter;
using korvex::test::DaemonQueues;
using korvex::test::QueueLock;
using korvex::test::RawQueue;
using korvex::test::SharedObject;
using korvex::test::uniqueQueueName;

// What a producer without the queue library's headers has to go by, as the writer's header says.
namespace {

std::string textOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const Ov_ErrnoException& error) {
    return "an error of the library's own: " + error.getMessage();
  } catch (const std::exception& error) {
    return error.what();
  }
  return "nothing";
}

std::string openingErrorOf(const std::string& queue) {
  return textOf([&] { ShmWriter("x", queue, 1, 1, false); });
}

/// Permissions mean nothing to root.
class WithoutPrivileges {
 public:
  WithoutPrivileges() { become(65534); }
  ~WithoutPrivileges() { become(0); }
  WithoutPrivileges(const WithoutPrivileges&) = delete;
  WithoutPrivileges& operator=(const WithoutPrivileges&) = delete;

 private:
  static void become(uid_t user) {
    if (::getuid() == 0 && ::seteuid(user) != 0) throw std::runtime_error("seteuid failed");
  }
};

}  // namespace

TEST(WriterQueueErrors, NameAnAbsentQueueAsTheSystemDoes) {
  EXPECT_EQ(openingErrorOf(uniqueQueueName()), std::strerror(ENOENT));
}

TEST(WriterQueueErrors, NameAForbiddenQueueAsTheSystemDoes) {
  const DaemonQueues queues;
  ASSERT_EQ(::chmod(("/dev/shm/" + queues.name()).c_str(), 0400), 0);
  const WithoutPrivileges withoutPrivileges;
  EXPECT_EQ(openingErrorOf(queues.name()), std::strerror(EACCES));
}

TEST(WriterQueueErrors, NameADamagedQueue) {
  const SharedObject object(uniqueQueueName(), Bytes(1, 0));
  EXPECT_EQ(openingErrorOf(object.name()), "the shared-memory object is not a sound message queue");
}

TEST(WriterQueueErrors, NameABrokenLockInEveryCall) {
  const DaemonQueues queues;
  const QueueLock lock(queues.name());
  lock.makeRobust();
  ShmWriter writer("x", queues.name(), 1, 1, false);
  lock.takeAndDie();
  EXPECT_EQ(textOf([&] { writer.open(); }), "boost::interprocess::lock_exception");
  EXPECT_EQ(textOf([&] { writer.stop(false); }), "boost::interprocess::lock_exception");
}

TEST(WriterQueueErrors, NameANameThatCannotBe) {
  EXPECT_EQ(openingErrorOf("a/b"), std::strerror(EINVAL));
  EXPECT_EQ(openingErrorOf(""), std::strerror(EINVAL));
}

TEST(WriterQueueErrors, LongestNameLeavesRoomForTheResponseQueues) {
  std::string name = uniqueQueueName();
  name.resize(248, 'q');
  const RawQueue tooLong(name, 2, 100);
  EXPECT_EQ(openingErrorOf(name), std::strerror(ENAMETOOLONG));
  name.pop_back();
  const RawQueue send(name, 2, 100);
  const RawQueue response(korvex::getMessageQueueResponseName(name), 2, 132);
  EXPECT_EQ(openingErrorOf("/" + name), "nothing");
}
