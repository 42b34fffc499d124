// What the daemon asks of the system to keep a stream, and in which order. The order is what makes
// a stored stream survive a crash of the machine; no file that is looked at later shows it.

#include <algorithm>
#include <climits>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "korvex/receiver/SystemError.h"
#include "korvexd/log/LogWriter.h"
#include "korvexd/report/Capture.h"
#include "korvexd/report/StatsFile.h"
#include "korvexd/sink/DirectoryStore.h"
#include "support/SystemCalls.h"
#include "support/TemporaryFolder.h"

using korvex::receiver::SystemError;
using korvex::test::contentsOf;
using korvex::test::namesIn;
using korvex::test::TemporaryFolder;
using korvex::test::system_calls::failing;
using korvex::test::system_calls::instead;
using testing::Each;
using testing::ElementsAre;
using testing::StartsWith;
namespace fs = std::filesystem;

namespace {

constexpr std::time_t kOpened = 1000000000;  // 2001-09-09 01:46:40 UTC
const char kStream[] = "q-20010909T014640Z-1";
const char kPartial[] = "q-20010909T014640Z-1.partial";
const korvex::receiver::StreamSummary kSummary{"q", kOpened, kOpened + 60,      3,
                                               1,   4,       "0123456789abcdef"};
const korvex::receiver::StillFinishing kPatient = [] { return true; };

const unsigned char* bytesOf(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

/// Notes the calls that have to do with one folder, each as a line, and lets them happen.
class StoringCalls : public testing::Test {
 protected:
  StoringCalls() {
    instead.mkdirat = [this](int folder, const char* name, mode_t mode) {
      note("make", folder, name);
      return korvex::test::system_calls::mkdirat(folder, name, mode);
    };
    instead.openat = [this](int folder, const char* name, int flags, mode_t mode) {
      note("open", folder, name);
      if (folder != AT_FDCWD || name != folder_.path()) flags_.push_back(flags);
      beforeOpening_(name);
      return korvex::test::system_calls::openat(folder, name, flags, mode);
    };
    instead.unlinkat = [this](int folder, const char* name) {
      note("remove", folder, name);
      return korvex::test::system_calls::unlinkat(folder, name);
    };
    instead.write = [this](int file, const void* bytes, std::size_t size) {
      note("write", file);
      return korvex::test::system_calls::write(file, bytes, size);
    };
    instead.sync = [this](int file) {
      note("sync", file);
      return korvex::test::system_calls::sync(file);
    };
    instead.rename = [this](int folder, const char* from, const char* to) {
      note("rename", folder, from, to);
      return korvex::test::system_calls::rename(folder, from, to);
    };
  }
  ~StoringCalls() override { instead = {}; }

  std::unique_ptr<korvex::receiver::Sink> open() { return store_.open("q", kOpened); }

  static void write(korvex::receiver::Sink& sink, const std::string& text) {
    sink.write(bytesOf(text), text.size());
  }

  std::string dataOf(const std::string& stream) const {
    return contentsOf(folder_ / stream + "/data");
  }

  /// Has something happen just before a name is opened.
  void beforeOpening(const std::string& name, const std::function<void()>& action) {
    beforeOpening_ = [=](const std::string& opened) {
      if (fs::path(opened).filename() == name) action();
    };
  }

  /// The system's error of an operation; 0 when it succeeds.
  static int errorOf(const std::function<void()>& operation) {
    try {
      operation();
    } catch (const SystemError& error) {
      return error.number();
    }
    return 0;
  }

  TemporaryFolder folder_;
  korvexd::DirectoryStore store_{folder_.path()};
  std::vector<std::string> calls_;
  std::vector<int> flags_;  ///< of what was opened

 private:
  /// The path of an open file or folder, and of a name in it.
  static std::string pathOf(int file, const char* name = nullptr) {
    if (file == AT_FDCWD) return name;
    const fs::path path = fs::read_symlink("/proc/self/fd/" + std::to_string(file));
    return name == nullptr ? path : path / name;
  }

  void note(const std::string& call, int file, const char* name = nullptr,
            const char* newName = nullptr) {
    const std::string path = pathOf(file, name);
    if (path.compare(0, folder_.path().size(), folder_.path()) != 0) return;
    calls_.push_back(call + " " + shortened(path));
    if (newName != nullptr) calls_.back() += " to " + shortened(pathOf(file, newName));
  }

  std::string shortened(const std::string& path) const {
    const std::string inFolder = fs::path(path).lexically_relative(folder_.path());
    const auto stream = inFolder.find(kStream);
    return stream == 0 ? "stream" + inFolder.substr(sizeof kStream - 1) : inFolder;
  }

  std::function<void(const std::string&)> beforeOpening_ = [](const std::string&) {};
};

/// The same with a system that does less than it was asked for.
class ReluctantSystem : public StoringCalls {
 protected:
  ReluctantSystem() {
    instead.write = [this](int file, const void* bytes, std::size_t size) -> ssize_t {
      if (size > 0 && (isInterrupted_ = !isInterrupted_)) return failing(EINTR);
      return korvex::test::system_calls::write(file, bytes, std::min<std::size_t>(size, 7001));
    };
  }

  /// No two pieces of it are alike.
  static std::string text(std::size_t size) {
    std::string text;
    for (int i = 0; text.size() < size; ++i) text += std::to_string(i) + ",";
    return text.substr(0, size);
  }

 private:
  bool isInterrupted_ = false;
};

}  // namespace

TEST_F(StoringCalls, OfAStreamComeInCrashSafeOrder) {
  const auto sink = open();
  write(*sink, std::string(300000, 'x'));
  write(*sink, "abc");
  sink->complete(kSummary, kPatient);
  EXPECT_THAT(calls_,
              ElementsAre("make stream.partial",                         //
                          "open stream.partial",                         //
                          "open stream.partial/data",                    //
                          "write stream.partial/data",                   // what is large at once
                          "write stream.partial/data",                   // what was gathered
                          "sync stream.partial/data",                    //
                          "remove stream.partial/manifest.json.tmp",     //
                          "open stream.partial/manifest.json.tmp",       //
                          "write stream.partial/manifest.json.tmp",      //
                          "sync stream.partial/manifest.json.tmp",       //
                          "rename stream.partial/manifest.json.tmp to "  //
                          "stream.partial/manifest.json",                //
                          "sync stream.partial",                         //
                          "rename stream.partial to stream",             //
                          "sync ."));
}

TEST_F(StoringCalls, OfAnIncompleteStreamNeverGiveItsFinalName) {
  const auto sink = open();
  write(*sink, "abc");
  calls_.clear();
  sink->abandon(kSummary, "why");
  EXPECT_THAT(calls_, ElementsAre("remove stream.partial/manifest.json.tmp",     //
                                  "open stream.partial/manifest.json.tmp",       //
                                  "write stream.partial/manifest.json.tmp",      //
                                  "sync stream.partial/manifest.json.tmp",       //
                                  "rename stream.partial/manifest.json.tmp to "  //
                                  "stream.partial/manifest.json",                //
                                  "write stream.partial/data"));
}

TEST_F(StoringCalls, GatherRecordsUntilTheyAreWorthAWrite) {
  const auto sink = open();
  calls_.clear();
  write(*sink, std::string(100000, 'x'));
  write(*sink, std::string(162143, 'x'));
  EXPECT_THAT(calls_, ElementsAre()) << "a byte less than 256 KiB";
  write(*sink, "x");
  EXPECT_THAT(calls_, ElementsAre("write stream.partial/data"));
  write(*sink, std::string(3 * 262144 - 1, 'x'));
  EXPECT_EQ(calls_.size(), 3u);
  write(*sink, "x");
  EXPECT_EQ(calls_.size(), 4u);
}

TEST_F(StoringCalls, WriteLargeRecordsAtOnceWithoutSha256) {
  korvexd::DirectoryStore store(folder_.path());
  const auto sink = store.open("q", kOpened, korvexd::ExtraDigest::None);
  calls_.clear();
  write(*sink, "x");
  write(*sink, std::string(65535, 'x'));
  EXPECT_THAT(calls_, ElementsAre());
  write(*sink, std::string(65536, 'x'));
  EXPECT_EQ(calls_.size(), 2u) << "what was gathered, then what is large";
}

TEST_F(StoringCalls, ReplaceTheStatisticsAsAWhole) {
  korvex::receiver::Counters stats;
  korvexd::StatsFile file(folder_ / "stats.json", {{"q", &stats}});
  file.update();
  calls_.clear();
  const std::string before = contentsOf(folder_ / "stats.json");
  std::ifstream reader(folder_ / "stats.json");
  stats.add(korvex::receiver::Count::Bytes, 12345);
  file.update();
  EXPECT_THAT(calls_,
              ElementsAre("remove stats.json.tmp", "open stats.json.tmp", "write stats.json.tmp",
                          "sync stats.json.tmp", "rename stats.json.tmp to stats.json"));
  const std::string seen{std::istreambuf_iterator<char>(reader), {}};
  EXPECT_EQ(seen, before) << "a reader sees a whole file, the old or the new one";
  EXPECT_NE(contentsOf(folder_ / "stats.json"), before);
}

TEST_F(StoringCalls, NeverFollowALinkNorReachAnotherProgram) {
  open()->complete(kSummary, kPatient);
  korvexd::Capture(folder_.path(), "q").store(1, bytesOf("abc"), 3);
  korvex::receiver::Counters stats;
  korvexd::StatsFile(folder_ / "stats.json", {{"q", &stats}}).update();
  ASSERT_EQ(flags_.size(),
            5u);  // a stream's folder, its data and manifest, a batch, the statistics
  for (int& flags : flags_) flags &= O_NOFOLLOW | O_CLOEXEC;
  EXPECT_THAT(flags_, Each(O_NOFOLLOW | O_CLOEXEC));
}

TEST_F(StoringCalls, StoreNothingInAFolderSwappedForALink) {
  const TemporaryFolder elsewhere;
  beforeOpening(kPartial, [&] {
    fs::remove(folder_ / kPartial);
    fs::create_directory_symlink(elsewhere.path(), folder_ / kPartial);
  });
  EXPECT_EQ(errorOf([this] { open(); }), ENOTDIR);
  EXPECT_THAT(namesIn(elsewhere.path()), ElementsAre());
}

TEST_F(StoringCalls, NeverOpenDataThatSomebodyElseMade) {
  beforeOpening("data", [this] { std::ofstream(folder_ / kPartial + "/data") << "planted"; });
  EXPECT_EQ(errorOf([this] { open(); }), EEXIST);
  EXPECT_EQ(dataOf(kPartial), "planted");
}

TEST_F(StoringCalls, NeverWriteTheManifestIntoAFileThatAppeared) {
  const auto sink = open();
  beforeOpening("manifest.json.tmp", [this] {
    std::ofstream(folder_ / "victim") << "precious";
    fs::create_hard_link(folder_ / "victim", folder_ / kPartial + "/manifest.json.tmp");
  });
  EXPECT_EQ(errorOf([&] { sink->complete(kSummary, kPatient); }), EEXIST);
  EXPECT_EQ(contentsOf(folder_ / "victim"), "precious");
  EXPECT_THAT(namesIn(folder_.path()), ElementsAre(kPartial, "victim"));
}

TEST_F(StoringCalls, LeaveNoTemporaryFileWhenTheLastOneFails) {
  const auto sink = open();
  instead.rename = [](int, const char*, const char*) { return failing(EIO); };
  EXPECT_EQ(errorOf([&] { sink->complete(kSummary, kPatient); }), EIO);
  EXPECT_THAT(namesIn(folder_ / kPartial), ElementsAre("data"));
}

TEST_F(StoringCalls, NoticeAManifestThatVanishes) {
  const auto sink = open();
  instead.sync = [this](int file) {
    fs::remove(folder_ / kPartial + "/manifest.json");  // not there yet at the first two
    return korvex::test::system_calls::sync(file);
  };
  EXPECT_THROW(sink->complete(kSummary, kPatient), std::runtime_error);
  EXPECT_THAT(namesIn(folder_.path()), ElementsAre(kPartial));
}

TEST_F(StoringCalls, ThatMissTheDiskLeaveTheStreamPartial) {
  for (int failing = 1; failing <= 4; ++failing) {
    const auto sink = open();
    instead.sync = [rest = failing](int file) mutable {
      return --rest == 0 ? korvex::test::system_calls::failing(EIO)
                         : korvex::test::system_calls::sync(file);
    };
    EXPECT_EQ(errorOf([&] { sink->complete(kSummary, kPatient); }), EIO) << failing;
  }
  for (const std::string& name : namesIn(folder_.path())) {
    EXPECT_EQ(fs::path(name).extension(), ".partial");
  }
}

TEST_F(StoringCalls, FindAnotherNameWhenOneIsTakenMeanwhile) {
  instead.mkdirat = [isFirst = true](int folder, const char* name, mode_t mode) mutable {
    if (std::exchange(isFirst, false)) return failing(EEXIST);
    return korvex::test::system_calls::mkdirat(folder, name, mode);
  };
  open();
  EXPECT_THAT(namesIn(folder_.path()), ElementsAre("q-20010909T014640Z-2.partial"));
}

TEST_F(StoringCalls, ThatFailToMakeAFolderAreTold) {
  instead.mkdirat = [](int, const char*, mode_t) { return failing(ENOSPC); };
  try {
    open();
    FAIL() << "opened";
  } catch (const SystemError& error) {
    EXPECT_STREQ(error.what(), "creating stream folder: error 28 (No space left on device)");
  }
}

TEST_F(ReluctantSystem, StoresEveryByteOfAStream) {
  const std::string small = text(20000);
  const std::string large = text(300000);
  const auto sink = open();
  write(*sink, small);
  write(*sink, large);
  write(*sink, small);
  sink->complete(kSummary, kPatient);
  EXPECT_TRUE(dataOf(kStream) == small + large + small);
}

TEST_F(ReluctantSystem, CapturesEveryByteOfABatch) {
  const std::string batch = text(100000);
  korvexd::Capture(folder_.path(), "q").store(1, bytesOf(batch), batch.size());
  EXPECT_TRUE(contentsOf(folder_ / "q-00000001.batch") == batch);
}

TEST_F(ReluctantSystem, LogsEveryByteOfALine) {
  const std::string line = text(100000) + "\n";
  const std::string path = folder_ / "log";
  const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  korvexd::LogWriter(file, std::chrono::seconds(60)).add(line);
  ::close(file);
  EXPECT_TRUE(contentsOf(path) == line);
}

TEST_F(ReluctantSystem, IsReportedWhenItFailsInTheMiddle) {
  const auto sink = open();
  instead.write = [isFirst = true](int file, const void* bytes,
                                   std::size_t size) mutable -> ssize_t {
    if (!std::exchange(isFirst, false)) return failing(EIO);
    return korvex::test::system_calls::write(file, bytes, size / 2);
  };
  EXPECT_EQ(errorOf([&] { write(*sink, text(300000)); }), EIO);
}
