#include <CLI/CLI.hpp>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <signal.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "support/TemporaryFolder.h"
#include "unit/korvex/GoodManifest.h"
#include "verify/Verify.h"
#include "verify/VerifyReport.h"

namespace {

namespace fs = std::filesystem;

using korvex::test::goodManifest;
using korvex::test::kSha256;
using korvex::test::kXxh128;
using korvex::tool::Ending;
using korvex::tool::Progress;
using korvex::tool::runVerify;
using korvex::tool::StopSignal;
using korvex::tool::VerifyOptions;
using nlohmann::json;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

const std::string kStream = "q-20261121T005623Z-1";

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

/// A store of streams that hold "abc".
class Verify : public testing::Test {
 protected:
  /// Makes a stream and gives its path.
  std::string stream(const std::string& name, const json& manifest = goodManifest()) const {
    const std::string path = store_.makeFolder(name);
    writeFile(path + "/data", "abc");
    writeFile(path + "/manifest.json", manifest.dump());
    return path;
  }

  std::string damagedWith(const std::string& member, const json& value) {
    json manifest = goodManifest();
    manifest[member] = value;
    stream(kStream, manifest);
    return verifyDamaged();
  }

  /// What is said of the only stream, which is damaged.
  std::string verifyDamaged() {
    options_.quiet = true;
    const std::string text = verify();
    EXPECT_EQ(ending_.exitCode, 1);
    const std::string start = "damaged   " + store_ / kStream + ": ";
    EXPECT_THAT(text, StartsWith(start));
    return text.substr(std::min(text.size(), start.size()));
  }

  std::string verify(std::vector<std::string> folders = {}) {
    if (folders.empty()) folders.push_back(store_.path());
    options_.folders = folders;
    out_.str("");
    errors_.str("");
    ending_ = runVerify(options_, stop_, progress_, out_, errors_);
    return out_.str();
  }

  json verifyAsJson() {
    options_.json = true;
    return json::parse(verify());
  }

  korvex::test::TemporaryFolder store_;
  VerifyOptions options_;
  StopSignal stop_;
  Progress progress_;
  std::ostringstream out_;
  std::ostringstream errors_;
  Ending ending_ = {-1, -1};
};

}  // namespace

TEST_F(Verify, FindsAWholeStreamComplete) {
  stream(kStream);
  EXPECT_THAT(verify(), MatchesRegex("complete  " + store_ / kStream +
                                     "\n1 complete, 0 damaged, 0 partial, 0 foreign; 3 bytes in "
                                     "[0-9.]+ s, .*/s\n"));
  EXPECT_EQ(ending_.exitCode, 0);
  EXPECT_EQ(errors_.str(), "");
}

TEST(VerifyReport, KnowsTheRate) {
  korvex::tool::VerifyReport report;
  report.bytes = 10;
  EXPECT_EQ(report.bytesPerSecond(), 0) << "in no time";
  report.seconds = 2;
  EXPECT_EQ(report.bytesPerSecond(), 5);
}

TEST(VerifyReport, TellsWhatWasNotChecked) {
  korvex::tool::VerifyReport report;
  report.streams.resize(1);
  report.failures.push_back(korvex::tool::Failure(2, "missing"));
  report.bytes = 1050000000;
  report.seconds = 0.5;
  report.isQuick = true;
  EXPECT_EQ(report.summary(),
            "0 complete, 0 damaged, 0 partial, 0 foreign, 1 unchecked; 1050000000 bytes in 0.5 s, "
            "2.1 GB/s");
  json found = json::parse(report.json());
  found.erase("streams");
  EXPECT_EQ(found, json::parse(R"({"complete":0,"damaged":0,"partial":0,"foreign":0,"unchecked":1,
      "errors":[{"status":2,"message":"missing"}],"quick":true,"bytes":1050000000,"seconds":0.5,
      "bytesPerSecond":2100000000.0,"exitCode":1})"));
}

TEST_F(Verify, ListsEverythingSortedByName) {
  for (const char* name : {"q-20261121T005623Z-3", "q-20261121T005623Z-1", "q-20261121T005623Z-2"})
    stream(name);
  stream("renamed");
  stream("z.partial");
  store_.makeFolder("empty");
  writeFile(store_ / "notes", "x");
  const std::string at = store_.path() + "/";
  for (const unsigned jobs : {1U, 2U, 16U}) {
    options_.jobs = jobs;
    EXPECT_THAT(verify(),
                StartsWith("foreign   " + at + "empty\nforeign   " + at + "notes\n" + "complete  " +
                           at + "q-20261121T005623Z-1\n" + "complete  " + at +
                           "q-20261121T005623Z-2\n" + "complete  " + at + "q-20261121T005623Z-3\n" +
                           "complete  " + at + "renamed\npartial   " + at +
                           "z.partial: stored, but its folder did not get its final "
                           "name\n4 complete, 0 damaged, 1 partial, 2 foreign; 12 "));
    EXPECT_EQ(ending_.exitCode, 0);
  }
}

TEST(VerifyOptionsParsing, JobsAreADecimalNumberFrom1To1024) {
  VerifyOptions options;
  CLI::App tool;
  korvex::tool::declareVerify(tool, options);
  tool.parse("verify --jobs 010 folder");
  EXPECT_EQ(options.jobs, 10u);
  for (const char* jobs : {"0", "1025", "0x2", "-1"}) {
    EXPECT_THROW(tool.parse("verify --jobs " + std::string(jobs) + " folder"), CLI::ValidationError)
        << jobs;
  }
}

TEST_F(Verify, TakesAFolderThatIsAStream) {
  const std::string path = stream(kStream);
  fs::create_directory_symlink(path, store_ / "link");
  for (const std::string& name : {path, path + "/", path + "/.", store_ / "link"}) {
    EXPECT_THAT(verify({name}), StartsWith("complete  " + name + "\n1 complete"));
  }
}

TEST_F(Verify, TellsAStreamsNameFromOthers) {
  const std::vector<std::string> names = {
      "-20261121T005623Z-1",  "20261121T005623Z-1",   "q20261121T005623Z-1",  "q-20261121T005623Z-",
      "q-20261121T005623Y-1", "q-2026112aT005623Z-1", "xq20261121T005623Z-1", "20261121"};
  for (const std::string& name : names) writeFile(store_ / name, "");
  store_.makeFolder(".partial");
  const std::string text = verify();
  for (const std::string& name : names) {
    EXPECT_THAT(text, HasSubstr("foreign   " + store_ / name + "\n"));
  }
  EXPECT_THAT(text, HasSubstr("foreign   " + store_ / ".partial" + "\n"));
  EXPECT_EQ(ending_.exitCode, 0);
}

TEST_F(Verify, TakesAnOpenStreamThatIsGiven) {
  const std::string named = store_.makeFolder(kStream + ".partial");
  EXPECT_THAT(verify({named}), StartsWith("partial   " + named + ": still open, "));
  const std::string renamed = store_.makeFolder("x.partial");
  EXPECT_THAT(verify({renamed}), StartsWith("0 complete, 0 damaged, 0 partial, 0 foreign"));
  writeFile(renamed + "/data", "abc");
  EXPECT_THAT(verify({renamed}), StartsWith("partial   " + renamed + ": still open, "));
  const std::string other = store_.makeFolder("other");
  writeFile(other + "/data", "abc");
  EXPECT_THAT(verify({other}), StartsWith("foreign   " + other + "/data\n"));
}

TEST_F(Verify, TakesAFolderOfStreamsForAStore) {
  stream(kStream);
  writeFile(store_ / "manifest.json", "{}");
  EXPECT_THAT(verify({store_.path() + "/"}), StartsWith("foreign   " + store_ / "manifest.json" +
                                                        "\ncomplete  " + store_ / kStream + "\n"));
}

TEST_F(Verify, NamesBothDigestsOfChangedData) {
  writeFile(stream(kStream) + "/data", "abd");
  EXPECT_THAT(verifyDamaged(),
              MatchesRegex("sha256: found [0-9a-f]+, expected " + kSha256 +
                           "; xxh128: found [0-9a-f]+, expected " + kXxh128 + "\n"));
}

TEST_F(Verify, NamesTheDigestThatIsWrong) {
  EXPECT_THAT(damagedWith("sha256", std::string(64, '0')),
              "sha256: found " + kSha256 + ", expected " + std::string(64, '0') + "\n");
  EXPECT_THAT(damagedWith("xxh128", std::string(32, '0')),
              "xxh128: found " + kXxh128 + ", expected " + std::string(32, '0') + "\n");
}

TEST_F(Verify, QuickLeavesTheSlowDigestOut) {
  json manifest = goodManifest();
  manifest["sha256"] = std::string(64, '0');
  stream(kStream, manifest);
  options_.quick = true;
  EXPECT_THAT(verify(), StartsWith("complete  "));
  manifest["xxh128"] = std::string(32, '0');
  stream(kStream, manifest);
  EXPECT_THAT(verifyDamaged(), StartsWith("xxh128: "));
}

TEST_F(Verify, ComparesTheOneDigestThatWasKept) {
  json manifest = goodManifest();
  manifest["digest"] = "xxh128";
  manifest.erase("sha256");
  stream(kStream, manifest);
  EXPECT_THAT(verify(), StartsWith("complete  "));
  manifest["xxh128"] = std::string(32, '0');
  stream(kStream, manifest);
  EXPECT_THAT(verifyDamaged(), StartsWith("xxh128: "));
}

TEST_F(Verify, NamesAWrongSize) {
  EXPECT_EQ(damagedWith("bytes", 4), "size: found 3 bytes, expected 4 bytes\n");
  EXPECT_EQ(damagedWith("bytes", 2), "size: found 3 bytes, expected 2 bytes\n");
}

TEST_F(Verify, NamesWhatIsMissing) {
  fs::remove(stream(kStream) + "/data");
  EXPECT_EQ(verifyDamaged(), "data: No such file or directory\n");
  fs::remove(store_ / kStream + "/manifest.json");
  EXPECT_EQ(verifyDamaged(), "manifest: No such file or directory\n");
}

TEST_F(Verify, RefusesAFinalNameForAnIncompleteStream) {
  EXPECT_EQ(damagedWith("state", "incomplete"),
            "manifest: state is \"incomplete\", expected \"complete\"\n");
}

TEST_F(Verify, SaysWhyAStreamIsPartial) {
  json manifest = goodManifest();
  manifest["state"] = "incomplete";
  manifest["reason"] = "the daemon\x1b[2J ended";
  const std::string path = stream(kStream + ".partial", manifest);
  EXPECT_THAT(verify(), StartsWith("partial   " + path + ": the daemon\\x1b[2J ended\n"));
  EXPECT_EQ(ending_.exitCode, 0);
  EXPECT_THAT(verify({path}), StartsWith("partial   "));
  manifest["reason"] = "";
  stream(kStream + ".partial", manifest);
  EXPECT_THAT(verify(), StartsWith("partial   " + path + ": incomplete\n"));
  fs::remove(path + "/manifest.json");
  EXPECT_THAT(verify(), HasSubstr(": still open, or its daemon died: no manifest\n"));
  writeFile(path + "/manifest.json", "{");
  EXPECT_THAT(verify(), HasSubstr(": manifest: not JSON: "));
  EXPECT_EQ(ending_.exitCode, 0);
}

TEST_F(Verify, ReportsAFolderThatCannotBeRead) {
  stream(kStream);
  EXPECT_THAT(verify({store_ / "nowhere", store_.path()}), HasSubstr("1 complete, 0 damaged"));
  EXPECT_EQ(errors_.str(),
            "korvex: cannot read folder '" + store_ / "nowhere" + "': No such file or directory\n");
  EXPECT_EQ(ending_.exitCode, 1);
}

TEST_F(Verify, WritesAJsonObject) {
  stream("\xff");
  writeFile(stream(kStream) + "/data", "ab");
  const json found = verifyAsJson();
  const json problem = {{"what", "size"}, {"message", "found 2 bytes, expected 3 bytes"}};
  EXPECT_EQ(found["streams"][0], json({{"path", store_ / kStream},
                                       {"state", "damaged"},
                                       {"bytes", 0},
                                       {"note", ""},
                                       {"problems", json::array({problem})}}));
  EXPECT_EQ(found["streams"][1], json({{"path", store_ / "\\xff"},
                                       {"state", "complete"},
                                       {"bytes", 3},
                                       {"note", ""},
                                       {"problems", json::array()}}));
  const json numbers = {{"complete", 1},  {"damaged", 1}, {"partial", 0},   {"foreign", 0},
                        {"unchecked", 0}, {"bytes", 3},   {"quick", false}, {"exitCode", 1}};
  for (const auto& member : numbers.items()) {
    EXPECT_EQ(found[member.key()], member.value()) << member.key();
  }
  EXPECT_EQ(found["errors"], json::array());
}

TEST_F(Verify, LeavesTheRestUncheckedAtASignal) {
  stream(kStream);
  stop_.note(SIGINT);
  const json found = verifyAsJson();
  EXPECT_EQ(found["streams"][0]["state"], "unchecked");
  EXPECT_EQ(found["exitCode"], 130);
  EXPECT_EQ(errors_.str(), "korvex: interrupted by signal 2\n");
  EXPECT_EQ(ending_.signal, SIGINT);
}

TEST_F(Verify, IsInterruptedInTheMiddleOfAStream) {
  constexpr off_t kMuchToRead = off_t{1} << 36;
  json manifest = goodManifest();
  manifest["bytes"] = kMuchToRead;
  ASSERT_EQ(::truncate((stream(kStream, manifest) + "/data").c_str(), kMuchToRead), 0);
  std::ostringstream terminal;
  progress_ = Progress(terminal, [this] {  // asked once it has read for a while
    stop_.note(SIGINT);
    return std::size_t{80};
  });
  EXPECT_EQ(verifyAsJson()["streams"][0]["state"], "unchecked");
  EXPECT_EQ(ending_.exitCode, 130);
  EXPECT_THAT(terminal.str(), HasSubstr(" of 68.7 GB, "));
}

TEST_F(Verify, ReadsStreamsWithoutDataAndWithMuch) {
  json empty = goodManifest();
  empty["bytes"] = 0;
  empty["sha256"] = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
  empty["xxh128"] = "99aa06d3014798d86001c324468d497f";
  writeFile(stream(kStream, empty) + "/data", "");
  EXPECT_THAT(verify(), HasSubstr("1 complete"));
  // One million of "a", which the standard gives an own digest for.
  json much = goodManifest();
  much["bytes"] = 1000000;
  much["sha256"] = "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0";
  writeFile(stream(kStream, much) + "/data", std::string(1000000, 'a'));
  EXPECT_THAT(verifyDamaged(), StartsWith("xxh128: "));
}

TEST_F(Verify, ListsOnlyDamageWhenQuiet) {
  stream(kStream);
  stream("x.partial");
  options_.quiet = true;
  EXPECT_EQ(verify(), "");
  EXPECT_EQ(ending_.exitCode, 0);
}

TEST_F(Verify, ShowsNoControlCharacterOfAName) {
  writeFile(store_ / "\x1b[2J", "");
  EXPECT_THAT(verify(), HasSubstr("/\\x1b[2J\n"));
  EXPECT_THAT(out_.str(), Not(HasSubstr("\x1b")));
}

TEST_F(Verify, FollowsNoLink) {
  const std::string path = stream(kStream);
  for (const char* name : {"data", "manifest.json"}) {
    fs::rename(path + "/" + name, store_ / "kept");
    fs::create_symlink(store_ / "kept", path + "/" + name);
    EXPECT_THAT(verifyDamaged(), HasSubstr(": it is a symbolic link\n"));
    fs::rename(store_ / "kept", path + "/" + name);
  }
  fs::rename(path, store_ / "kept");
  fs::create_directory_symlink(store_ / "kept", path);
  EXPECT_EQ(verifyDamaged(), "folder: it is a link or not a folder\n");
}

TEST_F(Verify, LeavesALinkInAStoreToOthers) {
  fs::create_directory_symlink(stream(kStream), store_ / "link");
  EXPECT_THAT(verify(), HasSubstr("foreign   " + store_ / "link" + "\n"));
  EXPECT_EQ(ending_.exitCode, 0);
}

TEST_F(Verify, WaitsForNoPipe) {
  const std::string path = stream(kStream);
  for (const char* name : {"data", "manifest.json"}) {
    fs::remove(path + "/" + name);
    ASSERT_EQ(::mkfifo((path + "/" + name).c_str(), 0600), 0);
    EXPECT_THAT(verifyDamaged(), HasSubstr(": it is not a regular file\n"));
  }
}

TEST_F(Verify, RefusesAManifestOfAnySize) {
  const std::string path = stream(kStream) + "/manifest.json";
  ASSERT_EQ(::truncate(path.c_str(), off_t{1} << 40), 0);
  EXPECT_EQ(verifyDamaged(),
            "manifest: larger than any manifest: expected at most 1048576 bytes\n");
}

TEST_F(Verify, TakesAManifestOfTheLargestSize) {
  std::string text = goodManifest().dump();
  text.resize(1048576, ' ');
  writeFile(stream(kStream) + "/manifest.json", text);
  EXPECT_THAT(verify(), StartsWith("complete  "));
}

TEST_F(Verify, NamesTheMemberOfABadManifest) {
  EXPECT_THAT(damagedWith("xxh128", 7), StartsWith("manifest: xxh128 is 7, expected 32 "));
}
