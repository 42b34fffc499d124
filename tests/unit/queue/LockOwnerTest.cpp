// Whether the owner of a queue's lock is gone, as far as the system tells.

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "queue/QueueView.h"
#include "support/Await.h"
#include "support/DaemonQueues.h"
#include "support/LockHolder.h"
#include "support/Namespaces.h"
#include "support/QueueFields.h"
#include "support/RestoredDescriptor.h"
#include "support/SystemCalls.h"

using korvex::QueueView;
using korvex::test::kLockOwnerAt;
using korvex::test::kLockWordAt;
using korvex::test::nextDescriptor;
using korvex::test::RawQueue;
using korvex::test::seesEveryThread;
using korvex::test::uniqueQueueName;
using korvex::test::system_calls::failing;
using korvex::test::system_calls::instead;
using korvex::test::system_calls::overwrite;

namespace {

/// A descriptor that this text can be read from.
int fileOf(const std::string& text) {
  const int file = ::memfd_create("text", MFD_CLOEXEC);
  EXPECT_EQ(::pwrite(file, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
  return file;
}

int systemsOpen(const char* path) {
  return static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, O_RDONLY | O_CLOEXEC));
}

/// A queue whose lock names an owner, and what the system says of that.
class LockOwner : public testing::Test {
 protected:
  LockOwner() {
    overwrite(queue_.name(), kLockWordAt, std::uint32_t{1});
    overwrite(queue_.name(), kLockOwnerAt, kOwner);
    instead.kill = [](pid_t process, int signal) {
      EXPECT_EQ(process, kOwner);
      EXPECT_EQ(signal, 0);
      return 0;
    };
  }
  ~LockOwner() override { instead = {}; }

  void systemTells(const std::string& text) {
    instead.open = [text](const char* path) {
      return std::string(path) == "/proc/4711/stat" ? fileOf(text) : systemsOpen(path);
    };
  }

  bool isGone() const { return QueueView(queue_.name()).isLockOwnerGone(); }

  static constexpr pid_t kOwner = 4711;
  RawQueue queue_{uniqueQueueName(), 4, 300};
};

/// One whose death can be known at all.
class ProvenLockOwner : public LockOwner {
 protected:
  void SetUp() override {
    if (!seesEveryThread()) GTEST_SKIP() << "threads of other PID namespaces cannot be seen";
  }
};

/// What a scan of all processes finds in the files of one of them.
struct Scan {
  const char* name;
  const char* process;  ///< the text of its status; none if it cannot be opened
  int error;            ///< then
  const char* thread;   ///< the same of its only thread
  int threadError;
  bool isGone;

  friend std::ostream& operator<<(std::ostream& out, const Scan& scan) { return out << scan.name; }
};

constexpr const char* kHere = "\nState:\tS (sleeping)\nNSpid:\t1\n";
constexpr const char* kNested = "\nState:\tS (sleeping)\nNSpid:\t1\t2\n";

const Scan kScans[] = {
    {"ProcessHere", kHere, 0, nullptr, ENOENT, true},
    {"ProcessThatEnded", nullptr, ENOENT, nullptr, ENOENT, true},
    {"ProcessThatEnds", nullptr, ESRCH, nullptr, ENOENT, true},
    {"HiddenProcess", nullptr, EACCES, nullptr, ENOENT, false},
    {"ProcessWithoutText", "", 0, nullptr, ENOENT, false},
    {"ProcessWithoutState", "\nNSpid:\t1\n", 0, nullptr, ENOENT, false},
    {"ProcessWithoutIds", "\nState:\tS\n", 0, nullptr, ENOENT, false},
    {"ProcessCutInItsIds", "\nState:\tS\nNSpid:\t1", 0, nullptr, ENOENT, false},
    {"Owner", kNested, 0, "\nState:\tS\nNSpid:\t9\t4711\n", 0, false},
    {"DeadOwner", kNested, 0, "\nState:\tX\nNSpid:\t9\t4711\n", 0, true},
    {"OtherThread", kNested, 0, "\nState:\tS\nNSpid:\t4711\t9\n", 0, true},
    {"ThreadThatEnded", kNested, 0, nullptr, ENOENT, true},
    {"HiddenThread", kNested, 0, nullptr, EACCES, false},
};

/// One that is dead here, so that all other namespaces are searched for it.
class SearchedLockOwner : public LockOwner {
 protected:
  void SetUp() override {
    if (!seesEveryThread()) GTEST_SKIP() << "threads of other PID namespaces cannot be seen";
    instead.kill = [](pid_t, int) { return failing(ESRCH); };
  }

  static int answer(const char* text, int error) {
    return text == nullptr ? failing(error) : fileOf(text);
  }
};

class ScannedLockOwner : public SearchedLockOwner, public testing::WithParamInterface<Scan> {};

INSTANTIATE_TEST_SUITE_P(, ScannedLockOwner, testing::ValuesIn(kScans),
                         [](const auto& scan) { return std::string(scan.param.name); });

/// One that lives in another PID namespace than this test.
class ForeignLockOwner : public testing::Test {
 protected:
  void SetUp() override {
    if (!korvex::test::canMakePidNamespace()) GTEST_SKIP() << "no PID namespace of one's own";
  }

  bool isGone() const { return QueueView(queue_.name()).isLockOwnerGone(); }

  RawQueue queue_{uniqueQueueName(), 4, 300};
};

/// A child that has ended and that nobody has asked for.
pid_t makeZombie() {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  siginfo_t ended = {};
  EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT), 0);
  return child;
}

}  // namespace

TEST_F(ProvenLockOwner, IsGoneAsAZombieAndWhenDead) {
  systemTells("4711 (a) Z 1 ");
  EXPECT_TRUE(isGone());
  systemTells("4711 (a) X 1 ");
  EXPECT_TRUE(isGone());
}

TEST_F(LockOwner, LivesInEveryOtherState) {
  for (const char* state : {"R", "S", "D", "T", "t", "I"}) {
    systemTells("4711 (a) " + std::string(state) + " 1 ");
    EXPECT_FALSE(isGone()) << state;
  }
}

TEST_F(ProvenLockOwner, MayHaveAnyName) {
  systemTells("4711 (a) Z) S 1 ");
  EXPECT_FALSE(isGone());
  systemTells("4711 (a) S) Z 1 ");
  EXPECT_TRUE(isGone());
}

TEST_F(LockOwner, LivesWhenTheSystemsAnswerIsUnreadable) {
  for (const char* text : {"", "4711 a Z", "4711 (a)", "4711 (a)Z"}) {
    systemTells(text);
    EXPECT_FALSE(isGone()) << text;
  }
  instead.read = [](int, void*, std::size_t) { return failing(ESRCH); };
  EXPECT_FALSE(isGone());
  instead.open = [](const char*) { return failing(ENOENT); };
  EXPECT_FALSE(isGone());
}

TEST_F(ProvenLockOwner, IsGoneWhenThereIsNoSuchProcessOnly) {
  systemTells("4711 (a) S 1 ");
  instead.kill = [](pid_t, int) { return failing(ESRCH); };
  EXPECT_TRUE(isGone());
  instead.kill = [](pid_t, int) { return failing(EPERM); };
  EXPECT_FALSE(isGone());
}

TEST_F(LockOwner, IsNotGoneBecauseOfAnErrorBefore) {
  systemTells("4711 (a) S 1 ");
  errno = ESRCH;
  EXPECT_FALSE(isGone());
}

TEST_F(ProvenLockOwner, IsReadFromDescriptorZeroToo) {
  systemTells("4711 (a) Z 1 ");
  instead.open = [whole = instead.open](const char* path) {
    if (std::string(path) != "/proc/4711/stat") return whole(path);
    const int file = whole(path);
    ::dup2(file, STDIN_FILENO);
    ::close(file);
    return STDIN_FILENO;
  };
  const korvex::test::RestoredDescriptor input(STDIN_FILENO, STDIN_FILENO);
  EXPECT_TRUE(isGone()) << "and closes it";
}

TEST_F(ProvenLockOwner, MayBeTheFirstProcess) {
  overwrite(queue_.name(), kLockOwnerAt, pid_t{1});
  instead.kill = [](pid_t, int) { return failing(ESRCH); };
  // Another test's namespace has a living one as long as it exists.
  EXPECT_TRUE(korvex::test::eventually([this] { return isGone(); }));
}

TEST_F(LockOwner, IsAskedForWithoutKeepingADescriptor) {
  instead = {};
  overwrite(queue_.name(), kLockOwnerAt, ::getpid());
  const int before = nextDescriptor();
  EXPECT_FALSE(isGone());
  EXPECT_EQ(nextDescriptor(), before);
}

TEST_F(LockOwner, MayGiveTheLockBackMeanwhile) {
  instead.kill = [this](pid_t, int) {
    overwrite(queue_.name(), kLockWordAt, std::uint32_t{0});
    return failing(ESRCH);
  };
  EXPECT_FALSE(isGone());
}

TEST_F(LockOwner, MayBeFollowedByAnotherMeanwhile) {
  instead.kill = [this](pid_t, int) {
    overwrite(queue_.name(), kLockOwnerAt, pid_t{4712});
    return failing(ESRCH);
  };
  EXPECT_FALSE(isGone());
}

TEST_F(LockOwner, IsNobodyWhenNoneIsNamed) {
  instead.kill = [](pid_t process, int) {
    ADD_FAILURE() << "asked for " << process;
    return 0;
  };
  overwrite(queue_.name(), kLockOwnerAt, pid_t{0});
  EXPECT_FALSE(isGone());
  overwrite(queue_.name(), kLockOwnerAt, pid_t{-1});
  EXPECT_FALSE(isGone());
}

TEST_P(ScannedLockOwner, IsGoneIfNoProcessCanHaveIt) {
  const std::string process = "/proc/" + std::to_string(::getpid());
  const std::string thread = process + "/task/" + std::to_string(::getpid()) + "/status";
  instead.open = [&](const char* path) {
    const Scan& scan = GetParam();
    if (path == process + "/status") return answer(scan.process, scan.error);
    return path == thread ? answer(scan.thread, scan.threadError) : systemsOpen(path);
  };
  EXPECT_EQ(isGone(), GetParam().isGone);
}

TEST_F(SearchedLockOwner, IsSearchedForWithoutKeepingADescriptor) {
  const int before = nextDescriptor();
  EXPECT_TRUE(korvex::test::eventually([this] { return isGone(); }));
  EXPECT_EQ(nextDescriptor(), before);
}

TEST_F(SearchedLockOwner, IsNotOfAProcessThatEndsMeanwhile) {
  const pid_t zombie = makeZombie();
  instead.open = [zombie,
                  path = "/proc/" + std::to_string(zombie) + "/status"](const char* opened) {
    if (opened != path) return systemsOpen(opened);
    ::waitpid(zombie, nullptr, 0);
    return fileOf(kNested);
  };
  EXPECT_TRUE(isGone());
}

TEST_F(SearchedLockOwner, LivesUnlessTheScanIsWhole) {
  for (const auto& [error, isWhole] : {std::pair(ENOENT, true), {ESRCH, true}, {EIO, false}}) {
    instead.readdir = [error = error] {
      errno = error;
      return nullptr;
    };
    EXPECT_EQ(isGone(), isWhole) << error;
  }
}

TEST_F(SearchedLockOwner, LivesWhereNotEveryProcessIsSeen) {
  instead.open = [](const char* path) {
    return std::string(path) == "/proc/1/status" ? failing(EACCES) : systemsOpen(path);
  };
  EXPECT_FALSE(isGone());
  instead.open = nullptr;
  instead.stat = [](const char*, struct stat*) { return failing(ENOENT); };
  EXPECT_FALSE(isGone());
  instead.stat = [](const char*, struct stat* found) {
    *found = {};
    return 0;
  };
  EXPECT_FALSE(isGone());
}

TEST_F(ForeignLockOwner, LivesThoughItsNumberIsFreeHere) {
  const pid_t id = korvex::test::freeProcessId();
  korvex::test::LockHolder holder(queue_.name(), id);
  EXPECT_FALSE(isGone());
}

TEST_F(ForeignLockOwner, LivesThoughItsNumberIsAZombiesHere) {
  const pid_t zombie = makeZombie();
  {
    korvex::test::LockHolder holder(queue_.name(), zombie);
    EXPECT_FALSE(isGone());
  }
  ::waitpid(zombie, nullptr, 0);
}

TEST_F(ForeignLockOwner, IsGoneOnceNoNamespaceHasItsNumber) {
  if (!seesEveryThread()) GTEST_SKIP() << "threads of other PID namespaces cannot be seen";
  korvex::test::LockHolder holder(queue_.name(), korvex::test::freeProcessId());
  holder.die();
  // Another test may have the same number in a namespace of its own.
  EXPECT_TRUE(korvex::test::eventually([this] { return isGone(); }));
}
