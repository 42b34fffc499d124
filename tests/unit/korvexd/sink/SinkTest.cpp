#include <filesystem>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/Sha256.h"
#include "korvex/receiver/Sink.h"
#include "korvex/receiver/SystemError.h"
#include "korvexd/sink/DirectorySink.h"
#include "korvexd/sink/DirectoryStore.h"
#include "korvexd/sink/DiscardSink.h"
#include "support/Child.h"
#include "support/FewDescriptors.h"
#include "support/TemporaryFolder.h"

using korvex::receiver::Ending;
using korvex::receiver::Sink;
using korvex::receiver::SinkFactory;
using korvex::receiver::StreamSummary;
using korvex::receiver::SystemError;
using korvex::test::contentsOf;
using korvex::test::namesIn;
using korvex::test::TemporaryFolder;
using korvexd::DirectoryStore;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
namespace fs = std::filesystem;

namespace {

constexpr std::time_t kOpened = 1000000000;  // 2001-09-09 01:46:40 UTC

const StreamSummary kSummary{"q", kOpened, kOpened + 60, 3, 1, 4, "0123456789abcdef"};
const StreamSummary kStopped{"q", kOpened, kOpened + 60,       3,
                             1,   4,       "0123456789abcdef", Ending::Stopped};

const korvex::receiver::StillFinishing kPatient = [] { return true; };

void writeText(Sink& sink, const std::string& text) {
  sink.write(reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

// What every sink must do alike.
struct Kind {
  const char* name;
  SinkFactory (*make)(const TemporaryFolder& folder);
};

SinkFactory makeDirectory(const TemporaryFolder& folder) {
  const auto store = std::make_shared<DirectoryStore>(folder.path());
  return
      [store](const std::string& queue, std::time_t opened) { return store->open(queue, opened); };
}

SinkFactory makeDiscard(const TemporaryFolder&) {
  return [](const std::string&, std::time_t) { return std::make_unique<korvexd::DiscardSink>(); };
}

class EverySink : public testing::TestWithParam<Kind> {
 protected:
  TemporaryFolder folder_;
  SinkFactory open_ = GetParam().make(folder_);
};

std::string nameOfKind(const testing::TestParamInfo<Kind>& info) { return info.param.name; }

/// No two blocks of it are alike.
std::string variedText(std::size_t size) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i * 31 + (i >> 18));
  return text;
}

std::string sha256Of(const std::string& text) {
  korvex::common::Sha256 digest;
  digest.update(text.data(), text.size());
  return digest.hex();
}

class DirectorySinkTest : public testing::Test {
 protected:
  std::unique_ptr<Sink> open(const std::string& queue = "q") { return store_.open(queue, kOpened); }

  std::string file(const std::string& stream, const std::string& name) const {
    return folder_ / stream + "/" + name;
  }

  nlohmann::json manifest(const std::string& stream) const {
    return nlohmann::json::parse(contentsOf(file(stream, "manifest.json")));
  }

  static mode_t modeOf(const std::string& path) {
    struct stat found = {};
    return ::stat(path.c_str(), &found) == 0 ? found.st_mode & 07777 : 0;
  }

  TemporaryFolder folder_;
  DirectoryStore store_{folder_.path()};
};

const char kFinal[] = "q-20010909T014640Z-1";
const char kPartial[] = "q-20010909T014640Z-1.partial";

/// No file of this process may grow beyond so many bytes; the write fails instead of killing it.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : handler_(::signal(SIGXFSZ, SIG_IGN)) {
    ::getrlimit(RLIMIT_FSIZE, &before_);
    rlimit limit = before_;
    limit.rlim_cur = bytes;
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &before_);
    ::signal(SIGXFSZ, handler_);
  }

 private:
  rlimit before_ = {};
  sighandler_t handler_;
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(Sinks, EverySink,
                         testing::Values(Kind{"Directory", makeDirectory},
                                         Kind{"Discard", makeDiscard}),
                         nameOfKind);

TEST_P(EverySink, CompletesAStreamOfSmallAndLargeWrites) {
  const auto sink = open_("q", kOpened);
  writeText(*sink, "small");
  writeText(*sink, std::string(3000000, 'x'));
  EXPECT_NO_THROW(sink->complete(kSummary, kPatient));
}

TEST_P(EverySink, CompletesAStreamWithoutData) {
  EXPECT_NO_THROW(open_("q", kOpened)->complete(kSummary, kPatient));
}

TEST_P(EverySink, AbandonsAStream) {
  const auto sink = open_("q", kOpened);
  writeText(*sink, "abc");
  EXPECT_NO_THROW(sink->abandon(kStopped, "why"));
}

TEST_P(EverySink, CanBeDestroyedWithoutEnd) {
  for (const std::size_t size : {3u, 3000000u})
    writeText(*open_("q", kOpened), std::string(size, 'x'));
}

TEST_P(EverySink, LeavesNoDescriptorOpen) {
  const std::size_t before = namesIn("/proc/self/fd").size();
  open_("q", kOpened)->complete(kSummary, kPatient);
  open_("q", kOpened)->abandon(kStopped, "why");
  open_("q", kOpened);
  EXPECT_EQ(namesIn("/proc/self/fd").size(), before);
}

TEST_P(EverySink, ServesStreamsAtTheSameTime) {
  const auto one = open_("q", kOpened);
  const auto two = open_("q", kOpened);
  EXPECT_NO_THROW(two->complete(kSummary, kPatient));
  EXPECT_NO_THROW(one->complete(kSummary, kPatient));
}

TEST_F(DirectorySinkTest, NamesTheFolderWhenTheStreamIsComplete) {
  const auto sink = open();
  EXPECT_THAT(namesIn(folder_.path()), ElementsAre(kPartial));
  EXPECT_EQ(sink->place(), folder_ / kPartial);
  writeText(*sink, "abc");
  sink->complete(kSummary, kPatient);
  EXPECT_THAT(namesIn(folder_.path()), ElementsAre(kFinal));
  EXPECT_THAT(namesIn(folder_ / kFinal), ElementsAre("data", "manifest.json"));
  EXPECT_EQ(contentsOf(file(kFinal, "data")), "abc");
  EXPECT_EQ(sink->place(), folder_ / kFinal);
}

TEST_F(DirectorySinkTest, WritesAManifest) {
  const auto sink = open();
  writeText(*sink, "abc");
  sink->complete(kSummary, kPatient);
  EXPECT_EQ(contentsOf(file(kFinal, "manifest.json")),
            "{\n"
            "  \"format\": 1,\n"
            "  \"queue\": \"q\",\n"
            "  \"state\": \"complete\",\n"
            "  \"reason\": \"\",\n"
            "  \"bytes\": 3,\n"
            "  \"segments\": 1,\n"
            "  \"records\": 4,\n"
            "  \"digest\": \"sha256\",\n"
            "  \"sha256\": \"ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad\",\n"
            "  \"xxh128\": \"0123456789abcdef\",\n"
            "  \"opened\": \"2001-09-09T01:46:40Z\",\n"
            "  \"closed\": \"2001-09-09T01:47:40Z\"\n"
            "}\n");
}

TEST_F(DirectorySinkTest, KeepsTheOrderOfWritesOfAllSizes) {
  std::string expected;
  const auto sink = open();
  for (const std::size_t size : {1u, 262143u, 1u, 262144u, 5u, 262145u, 100000u, 200000u, 7u}) {
    const std::string piece(size, static_cast<char>('a' + size % 23));
    writeText(*sink, piece);
    expected += piece;
  }
  sink->complete(kSummary, kPatient);
  EXPECT_TRUE(contentsOf(file(kFinal, "data")) == expected);
  EXPECT_EQ(manifest(kFinal)["sha256"], sha256Of(expected));
}

TEST_F(DirectorySinkTest, DigestsStreamsAroundTheSizeOfABlock) {
  for (const std::size_t size : {0u, 1u, 262143u, 262144u, 262145u, 524288u, 30000001u}) {
    const auto sink = open();
    const std::string text = variedText(size);
    writeText(*sink, text);
    sink->complete(kSummary, kPatient);
    EXPECT_EQ(nlohmann::json::parse(contentsOf(sink->place() + "/manifest.json"))["sha256"],
              sha256Of(text));
    EXPECT_TRUE(contentsOf(sink->place() + "/data") == text);
  }
}

TEST_F(DirectorySinkTest, DigestsAnIncompleteStreamToo) {
  const auto sink = open();
  const std::string text(1000000, 'x');
  writeText(*sink, text);
  sink->abandon(kStopped, "stopped");
  EXPECT_EQ(manifest(kPartial)["sha256"], sha256Of(text));
  EXPECT_TRUE(contentsOf(file(kPartial, "data")) == text);
}

TEST_F(DirectorySinkTest, LeavesSha256OutWhereItIsNotWanted) {
  const auto sink = store_.open("q", kOpened, korvexd::ExtraDigest::None);
  writeText(*sink, "small");
  writeText(*sink, std::string(100000, 'x'));
  writeText(*sink, "end");
  sink->complete(kSummary, kPatient);
  EXPECT_FALSE(manifest(kFinal).contains("sha256"));
  EXPECT_EQ(manifest(kFinal)["digest"], "xxh128");
  EXPECT_TRUE(contentsOf(file(kFinal, "data")) == "small" + std::string(100000, 'x') + "end");
}

TEST_F(DirectorySinkTest, KeepsAnIncompleteStreamPartialAndSaysWhy) {
  const auto sink = open();
  writeText(*sink, "abc");
  sink->abandon(kStopped, "stopped");
  EXPECT_THAT(namesIn(folder_.path()), ElementsAre(kPartial));
  EXPECT_EQ(manifest(kPartial)["state"], "incomplete");
  EXPECT_EQ(manifest(kPartial)["reason"], "stopped");
  EXPECT_EQ(contentsOf(file(kPartial, "data")), "abc");
}

TEST_F(DirectorySinkTest, KeepsTheDataWhereTheManifestCannotBeWritten) {
  const auto sink = open();
  writeText(*sink, "abc");
  folder_.makeFolder(std::string(kPartial) + "/manifest.json.tmp");
  EXPECT_THROW(sink->abandon(kStopped, "stopped"), SystemError);
  EXPECT_EQ(contentsOf(file(kPartial, "data")), "abc");
}

TEST_F(DirectorySinkTest, ACrashLeavesThePartialFolder) {
  auto sink = open();
  writeText(*sink, std::string(1000000, 'x'));
  sink.reset();
  EXPECT_THAT(namesIn(folder_.path()), ElementsAre(kPartial));
  EXPECT_THAT(namesIn(folder_ / kPartial), ElementsAre("data"));
}

TEST_F(DirectorySinkTest, NeverUsesANameTwice) {
  open()->complete(kSummary, kPatient);
  open()->abandon(kStopped, "x");
  DirectoryStore restarted(folder_.path());
  restarted.open("q", kOpened)->complete(kSummary, kPatient);
  EXPECT_THAT(namesIn(folder_.path()),
              ElementsAre(kFinal, "q-20010909T014640Z-2.partial", "q-20010909T014640Z-3"));
}

TEST_F(DirectorySinkTest, RefusesToReplaceAFinalNameThatAppearedMeanwhile) {
  const auto sink = open();
  folder_.makeFolder(kFinal);
  EXPECT_THROW(sink->complete(kSummary, kPatient), SystemError);
  EXPECT_THAT(namesIn(folder_ / kFinal), ElementsAre());
  sink->abandon(kStopped, "name taken");
  EXPECT_EQ(manifest(kPartial)["state"], "incomplete");
}

TEST_F(DirectorySinkTest, NeverFollowsAPlantedLink) {
  TemporaryFolder elsewhere;
  ASSERT_EQ(::symlink(elsewhere.path().c_str(), (folder_ / kPartial).c_str()), 0);
  open()->complete(kSummary, kPatient);
  EXPECT_THAT(namesIn(elsewhere.path()), ElementsAre());
  EXPECT_THAT(namesIn(folder_.path()), ElementsAre(kPartial, "q-20010909T014640Z-2"));
}

TEST_F(DirectorySinkTest, NeverWritesTheManifestThroughAPlantedLink) {
  TemporaryFolder elsewhere;
  const auto sink = open();
  for (const char* name : {"manifest.json", "manifest.json.tmp"}) {
    ASSERT_EQ(::symlink((elsewhere / "victim").c_str(), file(kPartial, name).c_str()), 0);
  }
  sink->complete(kSummary, kPatient);
  EXPECT_THAT(namesIn(elsewhere.path()), ElementsAre());
  EXPECT_EQ(manifest(kFinal)["state"], "complete");
}

TEST_F(DirectorySinkTest, SharesWithNobodyWhateverTheUmask) {
  for (const mode_t mask : {0U, 022U, 077U}) {
    const mode_t before = ::umask(mask);
    open("m" + std::to_string(mask))->complete(kSummary, kPatient);
    ::umask(before);
  }
  for (const std::string& name : namesIn(folder_.path())) {
    EXPECT_EQ(modeOf(folder_ / name), 0700u) << name;
    EXPECT_EQ(modeOf(file(name, "data")), 0600u) << name;
    EXPECT_EQ(modeOf(file(name, "manifest.json")), 0600u) << name;
  }
}

TEST_F(DirectorySinkTest, ReportsAFullDiskAndKeepsTheStreamPartial) {
  const auto sink = open();
  {
    const FileSizeLimit limit(100000);
    try {
      writeText(*sink, std::string(1000000, 'x'));
      FAIL() << "written";
    } catch (const SystemError& error) {
      EXPECT_STREQ(error.what(), "writing data: error 27 (File too large)");
    }
    sink->abandon(kStopped, "disk full");
  }
  EXPECT_EQ(manifest(kPartial)["state"], "incomplete");
  EXPECT_EQ(contentsOf(file(kPartial, "data")).size(), 100000u) << "what fitted stays";
}

TEST_F(DirectorySinkTest, ReportsGatheredDataThatFailsAtTheEnd) {
  const auto sink = open();
  writeText(*sink, std::string(1000, 'x'));
  const FileSizeLimit limit(100);
  EXPECT_THROW(sink->complete(kSummary, kPatient), SystemError);
  EXPECT_THAT(namesIn(folder_.path()), ElementsAre(kPartial));
}

TEST_F(DirectorySinkTest, EncodesTheQueuesName) {
  open("../a b")->complete(kSummary, kPatient);
  EXPECT_THAT(namesIn(folder_.path()), ElementsAre("%2E.%2Fa%20b-20010909T014640Z-1"));
}

TEST_F(DirectorySinkTest, WritesAValidManifestForAnyName) {
  StreamSummary summary = kSummary;
  summary.queue = "\xff\"\n";
  open()->complete(summary, kPatient);
  EXPECT_EQ(manifest(kFinal)["state"], "complete");
}

TEST(DirectoryStoreErrors, NameAMissingFolder) {
  try {
    DirectoryStore("/nonexistent");
    FAIL() << "opened";
  } catch (const SystemError& error) {
    EXPECT_STREQ(error.what(),
                 "opening output folder /nonexistent: error 2 (No such file or directory)");
  }
}

namespace {

/// What the call threw; empty for nothing.
std::string failureOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const std::exception& error) {
    return error.what();
  }
  return "";
}

/// What somebody does to an open stream, and what its close says of it.
struct Meddling {
  const char* name;
  std::function<void(const std::string& partial)> act;
  const char* failure;
};

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::trunc) << text;
}

void replaceFolder(const std::string& path) {
  fs::rename(path, path + ".moved");
  fs::create_directory(path);
}

class MeddledSink : public DirectorySinkTest, public testing::WithParamInterface<Meddling> {};

INSTANTIATE_TEST_SUITE_P(
    , MeddledSink,
    testing::Values(
        Meddling{"DataRemoved", [](const auto& partial) { fs::remove(partial + "/data"); },
                 "data file was removed or replaced: data"},
        Meddling{"DataExchanged",
                 [](const auto& partial) {
                   fs::rename(partial + "/data", partial + "/other");
                   writeFile(partial + "/data", "abc");
                 },
                 "data file was removed or replaced: data"},
        Meddling{"DataALink",
                 [](const auto& partial) {
                   fs::rename(partial + "/data", partial + "/other");
                   fs::create_symlink("other", partial + "/data");
                 },
                 "data file was removed or replaced: data"},
        Meddling{"DataGrown", [](const auto& partial) { fs::resize_file(partial + "/data", 4); },
                 "data file was changed: found 4 bytes, expected 3"},
        Meddling{"FolderRemoved", [](const auto& partial) { fs::remove_all(partial); }, ""},
        Meddling{"FolderMoved",
                 [](const auto& partial) { fs::rename(partial, partial + ".moved"); },
                 "stream folder was removed or replaced: q-20010909T014640Z-1.partial"},
        Meddling{"FolderExchanged", replaceFolder,
                 "stream folder was removed or replaced: q-20010909T014640Z-1.partial"},
        Meddling{"OutputMoved",
                 [](const auto& partial) { replaceFolder(fs::path(partial).parent_path()); },
                 "output folder was moved, replaced or unmounted: "}),
    [](const auto& meddling) { return std::string(meddling.param.name); });

}  // namespace

TEST_P(MeddledSink, GetsNoFinalName) {
  const TemporaryFolder parent;
  const std::string output = parent.makeFolder("out");
  DirectoryStore store(output);
  const auto sink = store.open("q", kOpened);
  writeText(*sink, "abc");
  GetParam().act(output + "/" + kPartial);
  const std::string failure = failureOf([&] { sink->complete(kSummary, kPatient); });
  EXPECT_NE(failure, "");
  EXPECT_THAT(failure, HasSubstr(GetParam().failure));
  EXPECT_FALSE(fs::exists(output + "/" + kFinal) || fs::exists(output + ".moved/" + kFinal));
}

namespace {

/// A store whose folder is moved about.
class MovedOutput : public testing::Test {
 protected:
  std::string openingFails() {
    return failureOf([this] { store_.open("q", kOpened); });
  }

  void expectStored() {
    const auto sink = store_.open("q", kOpened);
    sink->complete(kSummary, kPatient);
    EXPECT_TRUE(fs::exists(sink->place())) << sink->place();
  }

  const TemporaryFolder parent_;
  const std::string path_ = parent_.makeFolder("out");
  const std::string moved_ = parent_ / "moved";
  DirectoryStore store_{path_};
};

}  // namespace

TEST_F(MovedOutput, TakesNoStreamsUntilItIsBack) {
  const std::string expected = "output folder was moved, replaced or unmounted: " + path_;
  fs::rename(path_, moved_);
  EXPECT_EQ(openingFails(), expected);
  fs::create_directory(path_);
  EXPECT_EQ(openingFails(), expected);
  EXPECT_THAT(namesIn(path_), IsEmpty());
  EXPECT_THAT(namesIn(moved_), IsEmpty());
  fs::remove(path_);
  fs::rename(moved_, path_);
  expectStored();
}

TEST_F(MovedOutput, IsReplacedByANewOneAfterItsRemoval) {
  fs::remove(path_);
  EXPECT_EQ(openingFails(),
            "opening output folder " + path_ + ": error 2 (No such file or directory)");
  fs::create_directory(path_);
  expectStored();
}

TEST_F(MovedOutput, MayBeReachedByALink) {
  fs::rename(path_, moved_);
  fs::create_directory_symlink(moved_, path_);
  expectStored();
}

TEST(UnwritableOutput, IsAnErrorAtTheStart) {
  const TemporaryFolder parent;
  fs::permissions(parent.path(), fs::perms(0755));
  const std::string output = parent.makeFolder("out");
  fs::permissions(output, fs::perms(0555));
  const std::string failure = korvex::test::resultOfChild([&] {
    korvex::test::dropPrivileges();
    return failureOf([&] { DirectoryStore store(output); });
  });
  EXPECT_EQ(failure,
            "making streams in output folder " + output + ": error 13 (Permission denied)");
}

TEST_F(DirectorySinkTest, LeavesNothingWhenItCannotBeMade) {
  for (const unsigned left : {0u, 1u}) {
    const std::string failure = [&] {
      const korvex::test::FewDescriptors few(left);
      return failureOf([this] { open(); });
    }();
    EXPECT_THAT(failure, HasSubstr("error 24 (Too many open files)"));
    EXPECT_THAT(namesIn(folder_.path()), IsEmpty());
  }
}
