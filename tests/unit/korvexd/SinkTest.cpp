#include "korvexd/Sink.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "integration/support/TemporaryFolder.h"
#include "korvexd/DirectorySink.h"
#include "korvexd/DirectoryStore.h"
#include "korvexd/DiscardSink.h"
#include "korvexd/SystemError.h"

using korvexd::DirectoryStore;
using korvexd::Sink;
using korvexd::SinkFactory;
using korvexd::StreamSummary;
using korvexd::SystemError;
using test_support::contentsOf;
using test_support::namesIn;
using test_support::TemporaryFolder;
using testing::ElementsAre;

namespace {

constexpr std::time_t kOpened = 1000000000;  // 2001-09-09 01:46:40 UTC

const StreamSummary kSummary{"q", kOpened, kOpened + 60, 3, 1, 4, "0123456789abcdef"};

const korvexd::StillFinishing kPatient = [] { return true; };

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
  EXPECT_NO_THROW(sink->abandon(kSummary, "why"));
}

TEST_P(EverySink, CanBeDestroyedWithoutEnd) {
  const auto sink = open_("q", kOpened);
  writeText(*sink, "abc");
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
}

TEST_F(DirectorySinkTest, KeepsAnIncompleteStreamPartialAndSaysWhy) {
  const auto sink = open();
  writeText(*sink, "abc");
  sink->abandon(kSummary, "stopped");
  EXPECT_THAT(namesIn(folder_.path()), ElementsAre(kPartial));
  EXPECT_EQ(manifest(kPartial)["state"], "incomplete");
  EXPECT_EQ(manifest(kPartial)["reason"], "stopped");
  EXPECT_EQ(contentsOf(file(kPartial, "data")), "abc");
}

TEST_F(DirectorySinkTest, KeepsTheDataWhereTheManifestCannotBeWritten) {
  const auto sink = open();
  writeText(*sink, "abc");
  folder_.makeFolder(std::string(kPartial) + "/manifest.json.tmp");
  EXPECT_THROW(sink->abandon(kSummary, "stopped"), SystemError);
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
  open()->abandon(kSummary, "x");
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
  sink->abandon(kSummary, "name taken");
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
    sink->abandon(kSummary, "disk full");
  }
  EXPECT_EQ(manifest(kPartial)["state"], "incomplete");
  EXPECT_EQ(contentsOf(file(kPartial, "data")).size(), 100000u) << "what fitted stays";
}

TEST_F(DirectorySinkTest, ReportsGatheredDataThatCannotBeWrittenAtTheEnd) {
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
