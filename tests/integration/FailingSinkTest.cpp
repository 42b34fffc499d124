#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <set>
#include <tuple>

#include "integration/DaemonFixture.h"
#include "support/FailingCalls.h"
#include "support/Namespaces.h"

using korvex::test::FailingCalls;
using korvex::test::FailureOrder;
using korvex::test::Process;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

constexpr std::size_t kPieceSize = 100000;

// Making the folder, opening it, making the data file, three writes, its sync; the manifest's open,
// write, sync and rename; the folder's sync and rename, the parent's sync.
constexpr int kCalls = 14;
constexpr int kOpeningCalls = 3;  ///< what a stream does not open without
constexpr int kWritingCalls = 3;

/// What a producer hears, whenever it hears it.
korvex::qmx_shm_response_t outcomeOf(korvex::ShmWriter& writer, const std::string& text,
                                     unsigned timeout) {
  try {
    writer.open();
    for (std::size_t at = 0; at < text.size(); at += kPieceSize) {
      const std::size_t size = std::min(kPieceSize, text.size() - at);
      writer.writeSegment(reinterpret_cast<const unsigned char*>(text.data()) + at, size);
    }
    writer.endSegment();
    writer.close();
    korvex::test::eventually([&] {
      writer.flush_shm_buffer(timeout);
      return writer.getResponse().message[0] != 0;
    });
  } catch (const Ov_ErrnoException&) {
    // The reply is there, and looked at by the caller.
  }
  return writer.getResponse();
}

/// A daemon whose calls can be made to fail or to hang.
class DaemonOnBadDisk : public DaemonFixture {
 protected:
  std::unique_ptr<Process> startFailing() {
    std::vector<std::string> command = calls_.prefix();
    command.insert(command.end(), {KORVEXD_PROGRAM, "--queue", queue_, "--output", output_});
    auto daemon = std::make_unique<Process>(command);
    EXPECT_TRUE(awaitServing(*daemon)) << daemon->errors();
    return daemon;
  }

  FailingCalls calls_{output_, folder_ / "orders"};
};

class FailingSink
    : public DaemonOnBadDisk,
      public testing::WithParamInterface<std::tuple<const char*, int, FailureOrder::Kind>> {
 protected:
  static int error() { return std::get<1>(GetParam()); }
  static FailureOrder::Kind kind() { return std::get<2>(GetParam()); }

  korvex::qmx_shm_response_t send() const { return outcomeOf(*writer(), text_, kTimeout); }

  /// A stream while the call with this number fails. Whether there was such a call.
  bool sendWhileCallFails(int call) {
    calls_.fail(call, error(), kind());
    const auto reply = send();
    if (!calls_.stop()) return false;
    EXPECT_EQ(reply.status, 5u) << reply.message;
    EXPECT_THAT(reply.message, HasSubstr(": error " + std::to_string(error()) + " (" +
                                         std::strerror(error()) + ")"));
    return true;
  }

  /// When the folder has its final name, all is on the disk but perhaps that name; a disk that then
  /// takes nothing more cannot take it back either.
  static bool keepsFinalName(int call) {
    return call == kCalls && kind() == FailureOrder::Kind::Lasting;
  }

  /// The stream that became complete since the last look, its data compared; empty for none.
  std::string storedMeanwhile() {
    std::string found;
    for (const std::string& name : streams(false)) {
      if (!known_.insert(name).second) continue;
      EXPECT_EQ(found, "") << "and " << name;
      EXPECT_TRUE(dataOf(name) == text_) << name;
      found = name;
    }
    return found;
  }

  std::set<std::string> known_;
  const std::string text_ = std::string(700000, 'x');
};

std::string nameOf(const testing::TestParamInfo<FailingSink::ParamType>& info) {
  const bool isSingle = std::get<2>(info.param) == FailureOrder::Kind::Single;
  return std::get<0>(info.param) + std::string(isSingle ? "Once" : "FromThenOn");
}

std::vector<FailingSink::ParamType> troubles() {
  std::vector<FailingSink::ParamType> all;
  for (const auto kind : {FailureOrder::Kind::Single, FailureOrder::Kind::Lasting}) {
    all.emplace_back("NoSpace", ENOSPC, kind);
    all.emplace_back("Quota", EDQUOT, kind);
    all.emplace_back("ReadOnly", EROFS, kind);
    all.emplace_back("Broken", EIO, kind);
  }
  return all;
}

INSTANTIATE_TEST_SUITE_P(, FailingSink, testing::ValuesIn(troubles()), nameOf);

}  // namespace

TEST_P(FailingSink, IsReportedAtEveryCallAndLeftBehind) {
  const auto daemon = startFailing();
  for (int call = 1; call <= kCalls; ++call) {
    SCOPED_TRACE("call " + std::to_string(call));
    ASSERT_TRUE(sendWhileCallFails(call));
    if (keepsFinalName(call)) {
      const std::string place = output_ + "/" + storedMeanwhile();
      EXPECT_TRUE(awaitLog(*daemon, " bytes, " + place + "\n")) << "the log must say so";
    }
    ASSERT_EQ(storedMeanwhile(), "");
    if (call <= kOpeningCalls) {
      EXPECT_THAT(streams(true), IsEmpty());
    }
    EXPECT_THAT(send().message, StartsWith("stored bytes=700000 "));
    ASSERT_NE(storedMeanwhile(), "");
  }
  EXPECT_FALSE(sendWhileCallFails(kCalls + 1)) << "a call that nobody has looked at";
  end(*daemon);
}

namespace {

/// Each of the calls that make a short stream safe: its data's sync and all that follow.
class SlowSync : public DaemonOnBadDisk, public testing::WithParamInterface<int> {
 protected:
  /// Sends a stream, and returns when the call hangs and the sender has nothing left to do.
  std::unique_ptr<Process> startSending() {
    calls_.fail(GetParam(), 0, FailureOrder::Kind::Hanging);
    std::ofstream(folder_ / "file") << "abc";
    auto sender = std::make_unique<Process>(
        std::vector<std::string>{KORVEX_PROGRAM, "send", "--queue", queue_, folder_ / "file"});
    EXPECT_TRUE(korvex::test::eventually([this] { return calls_.hasHappened(); }));
    EXPECT_TRUE(korvex::test::eventually([&] {
      sender->signal(SIGUSR1);
      return sender->errors().find("waiting for the receipt") != std::string::npos;
    }));
    return sender;
  }

  /// Returns when the daemon only waits for its sink.
  void beginToEnd(Process& daemon) const {
    daemon.signal(SIGTERM);
    ASSERT_TRUE(daemon.awaitSignalsTaken());
    daemon.signal(SIGUSR1);  // answered only after the first one
    ASSERT_TRUE(awaitLog(daemon, queue_ + ": stream open since "));
  }
};

constexpr int kFirstSync = kOpeningCalls + 2;  // there is one write
constexpr int kCallsOfShortStream = kCalls - kWritingCalls + 1;

INSTANTIATE_TEST_SUITE_P(Call, SlowSync, testing::Range(kFirstSync, kCallsOfShortStream + 1),
                         testing::PrintToStringParamName());

}  // namespace

TEST_P(SlowSync, OfAnEndingDaemonIsStillVerified) {
  const auto daemon = startFailing();
  const auto sender = startSending();
  beginToEnd(*daemon);
  sender->freeze();  // so that it looks for its receipt when the queues are gone
  EXPECT_TRUE(calls_.stop());
  EXPECT_EQ(daemon->wait(), 0) << daemon->errors();
  sender->signal(SIGCONT);
  EXPECT_EQ(sender->wait(), 0) << sender->errors();
  EXPECT_THAT(sender->errors(), HasSubstr(": stored and verified\n"));
  EXPECT_EQ(dataOf(streams(false).at(0)), "abc");
}

namespace {

/// A daemon whose output folder is a disk of its own, of 256 KiB.
class FullDisk : public DaemonFixture {
 protected:
  std::unique_ptr<Process> startOnSmallDisk() {
    const std::string script = "mount -t tmpfs -o size=256k none \"$0\" || exit 99; exec \"$@\"";
    auto daemon = std::make_unique<Process>(
        korvex::test::withOwnMounts({"/bin/sh", "-c", script, output_, KORVEXD_PROGRAM, "--queue",
                                     queue_, "--output", output_}));
    if (!awaitServing(*daemon)) return nullptr;
    output_ = "/proc/" + std::to_string(daemon->id()) + "/root" + output_;
    return daemon;
  }
};

}  // namespace

TEST_F(FullDisk, FailsTheStreamUntilThereIsRoomAgain) {
  if (!korvex::test::canMount()) GTEST_SKIP() << "no mount namespace of one's own";
  const auto daemon = startOnSmallDisk();
  ASSERT_NE(daemon, nullptr);
  const auto reply = outcomeOf(*writer(), std::string(700000, 'x'), kTimeout);
  EXPECT_EQ(reply.status, 5u);
  EXPECT_STREQ(reply.message, "writing data: error 28 (No space left on device)");
  EXPECT_THAT(streams(false), IsEmpty());
  ASSERT_EQ(streams(true).size(), 1u);

  std::filesystem::remove_all(output_ + "/" + streams(true)[0]);
  EXPECT_THAT(outcomeOf(*writer(), std::string(100000, 'x'), kTimeout).message,
              StartsWith("stored bytes=100000 "));
  EXPECT_EQ(streams(false).size(), 1u);
  end(*daemon);
}
