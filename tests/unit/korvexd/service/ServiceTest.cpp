#include <cstdlib>
#include <gmock/gmock.h>
#include <memory>
#include <time.h>
#include <unistd.h>

#include "korvexd/service/ServiceManager.h"
#include "korvexd/service/StatusText.h"
#include "korvexd/service/Watchdog.h"
#include "support/LoggedText.h"
#include "support/NotifySocket.h"
#include "support/Queues.h"
#include "support/TemporaryFolder.h"

using korvex::receiver::Count;
using korvex::receiver::Counters;
using korvex::test::NotifySocket;
using korvexd::Heartbeat;
using korvexd::ServiceManager;
using korvexd::Watchdog;

namespace {

/// What systemd would say to a process, in the variables of this one.
class Service : public testing::Test {
 protected:
  ~Service() override { clear(); }

  static void clear() {
    for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) ::unsetenv(name);
  }

  static void offer(const NotifySocket& socket, const std::string& watchdog = "",
                    const std::string& process = "") {
    ::setenv("NOTIFY_SOCKET", socket.name().c_str(), 1);
    if (!watchdog.empty()) ::setenv("WATCHDOG_USEC", watchdog.c_str(), 1);
    if (!process.empty()) ::setenv("WATCHDOG_PID", process.c_str(), 1);
  }

  korvex::test::TemporaryFolder folder_;
  NotifySocket socket_{folder_ / "notify"};
};

long monotonicMicroseconds() {
  timespec now = {};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000000 + now.tv_nsec / 1000;
}

}  // namespace

TEST_F(Service, HearsEachStateAsItsProtocolSays) {
  offer(socket_);
  ServiceManager manager;
  manager.ready("all is well");
  EXPECT_EQ(socket_.next(), "READY=1\nSTATUS=all is well");
  manager.status("1 stream");
  EXPECT_EQ(socket_.next(), "STATUS=1 stream");
  manager.feedWatchdog();
  EXPECT_EQ(socket_.next(), "WATCHDOG=1");
  manager.stopping();
  EXPECT_EQ(socket_.next(), "STOPPING=1");
}

TEST_F(Service, HearsWhenAReloadBegan) {
  offer(socket_);
  const long before = monotonicMicroseconds();
  ServiceManager().reloading();
  const std::string message = socket_.next();
  const std::string beginning = "RELOADING=1\nMONOTONIC_USEC=";
  ASSERT_THAT(message, testing::StartsWith(beginning));
  const long time = std::stol(message.substr(beginning.size()));
  EXPECT_GE(time, before);
  EXPECT_LE(time, monotonicMicroseconds());
}

TEST_F(Service, HearsOfAStatusOnlyWhenItChanged) {
  offer(socket_);
  ServiceManager manager;
  manager.ready("one");
  manager.status("one");
  manager.status("two");
  manager.status("two");
  manager.stopping();
  EXPECT_EQ(socket_.next(), "READY=1\nSTATUS=one");
  EXPECT_EQ(socket_.next(), "STATUS=two");
  EXPECT_EQ(socket_.next(), "STOPPING=1");
}

TEST_F(Service, MayHaveASocketInNoFileSystem) {
  NotifySocket abstract("@" + korvex::test::uniqueQueueName());
  offer(abstract);
  ServiceManager().stopping();
  EXPECT_EQ(abstract.next(), "STOPPING=1");
}

TEST_F(Service, IsLeftAloneWithoutAUsableSocket) {
  for (const std::string name : {"", "relative", "vsock:2:1234"}) {
    ::setenv("NOTIFY_SOCKET", name.c_str(), 1);
    ServiceManager().ready("x");
  }
  clear();
  ServiceManager().ready("x");
  ::setenv("NOTIFY_SOCKET", ("/" + std::string(200, 'x')).c_str(), 1);
  ServiceManager().ready("x");
}

TEST_F(Service, IsMissedOnceInTheLogAndCountedAlways) {
  ::setenv("NOTIFY_SOCKET", (folder_ / "nobody").c_str(), 1);
  const korvex::test::LoggedText logged;
  ServiceManager manager;
  manager.ready("x");
  manager.feedWatchdog();
  EXPECT_EQ(manager.failures(), 2u);
  EXPECT_EQ(logged.text(), "notifying the service manager: error 2 (No such file or directory)\n");
  NotifySocket later(folder_ / "nobody");
  manager.feedWatchdog();
  EXPECT_EQ(later.next(), "WATCHDOG=1");
  EXPECT_EQ(manager.failures(), 2u);
}

TEST_F(Service, SpeaksToThisProcessAlone) {
  offer(socket_, "30000000", std::to_string(::getpid()));
  const ServiceManager manager;
  EXPECT_EQ(manager.watchdogPeriod(), std::chrono::seconds(30));
  for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) {
    EXPECT_EQ(::getenv(name), nullptr) << name;
  }
}

TEST_F(Service, WatchesNobodyElseInItsPlace) {
  for (const auto& [period, process] : std::initializer_list<std::pair<std::string, std::string>>{
           {"30000000", "1"}, {"0", ""}, {"soon", ""}, {"", ""}}) {
    offer(socket_, period, process);
    EXPECT_EQ(ServiceManager().watchdogPeriod(), std::nullopt) << period;
    clear();
  }
}

TEST_F(Service, IsFedWhileEachLoopBeatsOrRests) {
  offer(socket_, "40000");
  ServiceManager manager;
  Watchdog watchdog(manager);
  watchdog.watch({{"resting", std::make_shared<Heartbeat>()}});
  for (int i = 0; i < 5; ++i) EXPECT_EQ(socket_.next(), "WATCHDOG=1");
}

TEST_F(Service, IsNotFedWhileOneLoopIsSilent) {
  offer(socket_, "40000");
  ServiceManager manager;
  const auto resting = std::make_shared<Heartbeat>();
  const auto stuck = std::make_shared<Heartbeat>();
  stuck->beat();
  while (stuck->silence() < std::chrono::milliseconds(20)) {
  }
  Watchdog watchdog(manager);
  watchdog.watch({{"resting", resting}, {"stuck", stuck}});
  socket_.forget();  // what came before it knew the loops
  EXPECT_EQ(socket_.next(std::chrono::milliseconds(200)), "");
  stuck->rest();
  EXPECT_EQ(socket_.next(), "WATCHDOG=1");
}

TEST_F(Service, CountsABeatFromDeepInsideOfAStep) {
  Heartbeat heartbeat;
  Heartbeat::beatOfThisThread();
  EXPECT_EQ(heartbeat.silence().count(), 0) << "not this thread's yet";
  heartbeat.beat();
  while (heartbeat.silence() < std::chrono::milliseconds(20)) {
  }
  const auto before = Heartbeat::Clock::now();
  Heartbeat::beatOfThisThread();
  const auto silence = heartbeat.silence();
  EXPECT_LE(silence, Heartbeat::Clock::now() - before);
}

TEST(StatusText, SumsUpAllQueues) {
  Counters one;
  Counters two;
  one.add(Count::StreamsOpened, 3);
  one.add(Count::StreamsComplete, 1);
  one.add(Count::StreamsIncomplete, 1);
  two.add(Count::StreamsOpened, 1);
  two.add(Count::Bytes, 1200000);
  EXPECT_EQ(korvexd::statusText({&one, &two}),
            "2 queues, 2 open streams, 1 complete, 1 incomplete, 1.2 MB");
  EXPECT_EQ(korvexd::statusText({&one}), "1 queue, 1 open stream, 1 complete, 1 incomplete, 0 B");
  one.add(Count::StreamsComplete, 2);
  EXPECT_EQ(korvexd::statusText({&one}), "1 queue, 0 open streams, 3 complete, 1 incomplete, 0 B")
      << "as when an end is seen before its beginning";
}
