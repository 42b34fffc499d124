// What becomes of a SIGBUS: in a step and outside, sent or by a fault, handled by the host or not.

#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <optional>
#include <setjmp.h>
#include <string>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

#include "korvex/receiver/BusErrorGuard.h"
#include "korvex/receiver/Receiver.h"
#include "support/Await.h"
#include "support/Child.h"
#include "support/Queues.h"

using korvex::receiver::Count;
using korvex::receiver::Observer;
using korvex::receiver::Receiver;
using korvex::test::eventually;

namespace {

/// Memory that is gone: a fault for who touches it.
const volatile char* lostMemory() {
  const int empty = ::memfd_create("empty", MFD_CLOEXEC);
  return static_cast<const volatile char*>(::mmap(nullptr, 1, PROT_READ, MAP_SHARED, empty, 0));
}

/// A fault outside of any step.
[[noreturn]] void touchLostMemory() {
  ::alarm(10);  // where it is not left to the system, it would recur forever
  static_cast<void>(*lostMemory());
  ::_exit(0);
}

[[noreturn]] void exitIfSurvived(bool surviving) {
  const auto* const lost = lostMemory();
  const bool survived = !korvex::receiver::runGuarded([lost] { static_cast<void>(*lost); });
  ::_exit(surviving && survived ? 0 : 1);
}

volatile std::sig_atomic_t signalsOfTheHost = 0;

/// In a process where nobody has installed the guard.
class FreshBusErrorGuard : public testing::Test {
 protected:
  FreshBusErrorGuard() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
  ~FreshBusErrorGuard() override { GTEST_FLAG_SET(death_test_style, "fast"); }
};

/// Installs the guard for a host without a handler. A sanitizer has one, and would report the
/// signal.
void guardAlone() {
  ::signal(SIGBUS, SIG_DFL);
  korvex::receiver::installBusErrorGuard();
}

/// Installs the host's own handler, then the guard.
void guardBehind(void (*handler)(int, siginfo_t*, void*), int flags) {
  struct sigaction action = {};
  action.sa_flags = SA_SIGINFO | flags;
  action.sa_sigaction = handler;
  ::sigaction(SIGBUS, &action, nullptr);
  korvex::receiver::installBusErrorGuard();
}

sigjmp_buf placeOfTheHost;

void blockAllSignals() {
  sigset_t all;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, nullptr);
}

/// A guarded receiver whose queue is truncated when a test says so, in a process of its own.
class TruncatedQueue {
 public:
  TruncatedQueue() {
    guardAlone();
    receiver_.emplace(Receiver::Settings{name_, {4, 4096}}, nullptr, silent_);
  }

  Receiver& receiver() { return *receiver_; }
  void truncate() const { ASSERT_EQ(::truncate(("/dev/shm/" + name_).c_str(), 0), 0); }
  bool isReplaced() const { return receiver_->counters().get(Count::QueueReplacements) == 1; }

 private:
  const std::string name_ = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover_{name_};
  Observer silent_;
  std::optional<Receiver> receiver_;
};

}  // namespace

// Only a fault is taken for lost memory.
TEST(BusErrorGuard, LeavesASignalThatWasSentToTheHost) {
  const auto beKilledInAStep = [] {
    guardAlone();
    korvex::receiver::runGuarded([] { ::raise(SIGBUS); });
    ::_exit(0);
  };
  EXPECT_EXIT(beKilledInAStep(), testing::KilledBySignal(SIGBUS), "");
}

// The place to return to is gone with the step that was survived.
TEST(BusErrorGuard, LeavesAFaultAfterAStepToTheHost) {
  const auto beKilledAfterAStep = [] {
    guardAlone();
    const auto* const lost = lostMemory();
    ::alarm(10);  // a jump to where it was survived would repeat the fault forever
    if (korvex::receiver::runGuarded([lost] { static_cast<void>(*lost); })) ::_exit(1);
    static_cast<void>(*lost);
    ::_exit(0);
  };
  EXPECT_EXIT(beKilledAfterAStep(), testing::KilledBySignal(SIGBUS), "");
}

TEST(BusErrorGuard, StepSurvivesATruncatedQueueWithBlockedSignals) {
  const std::string seen = korvex::test::resultOfChild([] {
    TruncatedQueue queue;
    std::thread([&queue] {
      blockAllSignals();
      queue.truncate();
      eventually([&queue] {
        queue.receiver().step();
        return queue.isReplaced();
      });
    }).join();
    return std::string(queue.isReplaced() ? "replaced" : "not replaced");
  });
  EXPECT_EQ(seen, "replaced");
}

TEST(BusErrorGuard, RunSurvivesATruncatedQueueWithBlockedSignals) {
  const std::string seen = korvex::test::resultOfChild([] {
    TruncatedQueue queue;
    blockAllSignals();
    std::atomic<bool> stop{false};
    std::thread host([&] {
      queue.truncate();
      eventually([&queue] { return queue.isReplaced(); });
      stop = true;
    });
    queue.receiver().run(stop);
    host.join();
    return std::string(queue.isReplaced() ? "replaced" : "not replaced");
  });
  EXPECT_EQ(seen, "replaced");
}

TEST(BusErrorGuard, SurvivesAFaultWithAllSignalsBlocked) {
  const auto fault = [] {
    guardAlone();
    std::thread([] {
      blockAllSignals();
      exitIfSurvived(true);
    }).join();
  };
  EXPECT_EXIT(fault(), testing::ExitedWithCode(0), "");
}

TEST(BusErrorGuard, SurvivesAFaultAfterAnIgnoredSignal) {
  const auto fault = [] {
    ::signal(SIGBUS, SIG_IGN);
    korvex::receiver::installBusErrorGuard();
    ::raise(SIGBUS);
    exitIfSurvived(true);
  };
  EXPECT_EXIT(fault(), testing::ExitedWithCode(0), "");
}

TEST_F(FreshBusErrorGuard, SurvivesAFaultAfterAHandledSignal) {
  const auto fault = [] {
    ::signal(SIGBUS, [](int) { signalsOfTheHost = signalsOfTheHost + 1; });
    korvex::receiver::installBusErrorGuard();
    ::raise(SIGBUS);
    ::raise(SIGBUS);
    exitIfSurvived(signalsOfTheHost == 2);
  };
  EXPECT_EXIT(fault(), testing::ExitedWithCode(0), "");
}

TEST_F(FreshBusErrorGuard, HandsAFaultWithItsPlaceToTheHost) {
  const auto fault = [] {
    guardBehind(
        [](int, siginfo_t* info, void* context) {
          ::_exit(info->si_addr != nullptr && context != nullptr ? 0 : 1);
        },
        0);
    static_cast<void>(*lostMemory());
    ::_exit(2);
  };
  EXPECT_EXIT(fault(), testing::ExitedWithCode(0), "");
}

TEST_F(FreshBusErrorGuard, CallsAHandlerOnceThatAsksForIt) {
  const auto fault = [] {
    guardBehind([](int, siginfo_t*, void*) { ::write(STDERR_FILENO, "called", 6); },
                static_cast<int>(SA_RESETHAND));
    touchLostMemory();
  };
  EXPECT_EXIT(fault(), testing::KilledBySignal(SIGBUS), "^called$");
}

TEST_F(FreshBusErrorGuard, StaysBehindAHandlerThatIsCalledOnce) {
  const auto fault = [] {
    guardBehind([](int, siginfo_t*, void*) {}, static_cast<int>(SA_RESETHAND));
    ::raise(SIGBUS);
    exitIfSurvived(true);
  };
  EXPECT_EXIT(fault(), testing::ExitedWithCode(0), "");
}

TEST_F(FreshBusErrorGuard, BlocksWhatTheHostsHandlerBlocks) {
  const auto raised = [] {
    struct sigaction action = {};
    ::sigaddset(&action.sa_mask, SIGUSR1);
    action.sa_handler = [](int) {
      sigset_t blocked;
      ::pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
      signalsOfTheHost = ::sigismember(&blocked, SIGUSR1);
    };
    ::sigaction(SIGBUS, &action, nullptr);
    korvex::receiver::installBusErrorGuard();
    ::raise(SIGBUS);
    ::_exit(signalsOfTheHost == 1 ? 0 : 1);
  };
  EXPECT_EXIT(raised(), testing::ExitedWithCode(0), "");
}

// A handler that is not made for a small alternate stack may overflow it.
TEST_F(FreshBusErrorGuard, RunsWhereTheHostsHandlerWouldRun) {
  for (const int flags : {0, SA_ONSTACK, SA_RESTART, SA_ONSTACK | SA_RESTART}) {
    const auto install = [flags] {
      guardBehind([](int, siginfo_t*, void*) {}, flags);
      struct sigaction installed = {};
      ::sigaction(SIGBUS, nullptr, &installed);
      ::_exit((installed.sa_flags & (SA_ONSTACK | SA_RESTART)) == flags ? 0 : 1);
    };
    EXPECT_EXIT(install(), testing::ExitedWithCode(0), "") << flags;
  }
}

// The system sends it ahead of any fault, for a page that the process may never touch.
TEST_F(FreshBusErrorGuard, TakesAReportOfFailedMemoryForNoFault) {
  const auto reported = [] {
    guardAlone();
    korvex::receiver::runGuarded([] {
      siginfo_t report = {};
      report.si_signo = SIGBUS;
      report.si_code = BUS_MCEERR_AO;
      ::syscall(SYS_rt_tgsigqueueinfo, ::getpid(), ::gettid(), SIGBUS, &report);
    });
    ::_exit(0);
  };
  EXPECT_EXIT(reported(), testing::KilledBySignal(SIGBUS), "");
}

TEST_F(FreshBusErrorGuard, DiesOfAFaultThatTheHostIgnored) {
  const auto fault = [] {
    ::signal(SIGBUS, SIG_IGN);
    korvex::receiver::installBusErrorGuard();
    touchLostMemory();
  };
  EXPECT_EXIT(fault(), testing::KilledBySignal(SIGBUS), "");
}

TEST_F(FreshBusErrorGuard, LetsTheHostsHandlerJumpOutTwice) {
  const auto fault = [] {
    guardBehind([](int, siginfo_t*, void*) { ::siglongjmp(placeOfTheHost, 1); }, SA_NODEFER);
    static volatile int faults = 0;
    static_cast<void>(sigsetjmp(placeOfTheHost, 0));
    if (++faults <= 2) static_cast<void>(*lostMemory());
    ::_exit(faults == 3 ? 0 : 1);
  };
  EXPECT_EXIT(fault(), testing::ExitedWithCode(0), "");
}

TEST_F(FreshBusErrorGuard, IsNotInstalledBehindWhoCallsIt) {
  const auto raised = [] {
    static struct sigaction guard = {};
    guardAlone();
    ::sigaction(SIGBUS, nullptr, &guard);
    guardBehind([](int number, siginfo_t* info,
                   void* context) { guard.sa_sigaction(number, info, context); },
                0);
    ::raise(SIGBUS);
    ::_exit(0);
  };
  EXPECT_EXIT(raised(), testing::KilledBySignal(SIGBUS), "");
}

TEST(BusErrorGuard, SurvivesAFaultWithItsSignalBlockedLater) {
  const auto fault = [] {
    guardAlone();
    korvex::receiver::runGuarded([] {});
    blockAllSignals();
    exitIfSurvived(true);
  };
  EXPECT_EXIT(fault(), testing::ExitedWithCode(0), "");
}

TEST(BusErrorGuard, IsInstalledOnce) {
  const auto fault = [] {
    guardAlone();
    korvex::receiver::installBusErrorGuard();
    touchLostMemory();
  };
  EXPECT_EXIT(fault(), testing::KilledBySignal(SIGBUS), "");
}
