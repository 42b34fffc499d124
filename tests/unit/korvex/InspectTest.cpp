#include <fstream>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <signal.h>
#include <sstream>

#include "inspect/Inspect.h"
#include "korvex/receiver/BatchCheck.h"
#include "support/HostileBatches.h"
#include "support/TemporaryFolder.h"
#include "support/WireFormat.h"

namespace {

using korvex::test::BatchBytes;
using korvex::test::Bytes;
using korvex::tool::Ending;
using korvex::tool::InspectOptions;
using korvex::tool::runInspect;
using korvex::tool::StopSignal;
using nlohmann::json;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

BatchBytes twoRecords() { return BatchBytes().record(1, 2, "abc").record(2, 3); }

const char kTwoRecords[] =
    "         8  segment data  type=1, len=3, crc=38600999  (2,1,3,0,0,1,0,0,0,2864434397)\n"
    "        59  segment end   type=2, len=0  (3,2,0,0,0,1,0,0,0,2864434397)\n";

/// Files of batches, and what the command prints of them.
class Inspect : public testing::Test {
 protected:
  std::string write(const std::string& name, const Bytes& bytes) const {
    std::ofstream(folder_ / name, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    return folder_ / name;
  }

  std::string numbered(unsigned number, const BatchBytes& batch = BatchBytes()) const {
    return write("q-0000000" + std::to_string(number) + ".batch", batch.bytes());
  }

  /// Runs the command again; gives what it wrote, with the folder's name taken out.
  std::string inspect(const std::vector<std::string>& files) {
    options_.files = files;
    out_.str("");
    errors_.str("");
    ending_ = runInspect(options_, stop_, out_, errors_);
    return withoutFolder(out_.str());
  }

  std::string withoutFolder(std::string text) const {
    const std::string prefix = folder_.path() + "/";
    for (auto at = text.find(prefix); at != std::string::npos; at = text.find(prefix)) {
      text.erase(at, prefix.size());
    }
    return text;
  }

  std::vector<json> inspectAsJson(const std::vector<std::string>& files) {
    options_.json = true;
    std::istringstream lines(inspect(files));
    std::vector<json> objects;
    for (std::string line; std::getline(lines, line);) objects.push_back(json::parse(line));
    return objects;
  }

  korvex::test::TemporaryFolder folder_;
  InspectOptions options_;
  StopSignal stop_;
  std::ostringstream out_;
  std::ostringstream errors_;
  Ending ending_ = {-1, -1};
};

}  // namespace

TEST_F(Inspect, PrintsEveryRecordWithItsOffset) {
  EXPECT_EQ(inspect({numbered(1, twoRecords())}),
            "q-00000001.batch: 107 bytes\n" + std::string(kTwoRecords) +
                "1 file, 1 batch (0 damaged), 2 records, 3 data bytes, 0 streams\n"
                "records: 0 open, 1 segment data, 1 segment end, 0 close, 0 stop, 0 unknown\n"
                "q: batches 1; first sequence 2, last 3\n");
  EXPECT_EQ(errors_.str(), "");
  EXPECT_EQ(ending_.exitCode, 0);
}

TEST_F(Inspect, NamesEveryType) {
  BatchBytes batch;
  for (std::uint32_t type = 0; type < 5; ++type) batch.record(type, type);
  batch.record(5, 5).record(0xffffffff, 6);
  const std::string text = inspect({write("types", batch.bytes())});
  for (const char* line :
       {"  open          type=0", "  segment data  type=1", "  segment end   type=2",
        "  close         type=3", "  stop          type=4", "  unknown       type=5",
        "  unknown       type=4294967295",
        "records: 1 open, 1 segment data, 1 segment end, 1 close, 1 stop, 2 unknown"}) {
    EXPECT_THAT(text, HasSubstr(line));
  }
}

TEST_F(Inspect, SumsUpFilesWithoutNumbersOneByOne) {
  const std::string one = write("x", BatchBytes().record(0, 1, "a").bytes());
  const std::string plain = write("q", BatchBytes().bytes());
  const std::string text = inspect({one, plain, plain, numbered(1), plain});
  EXPECT_THAT(text, HasSubstr(", 1 record, 1 data byte, 1 stream\n"));
  EXPECT_THAT(text,
              EndsWith("\nx: first sequence 1, last 1\n"
                       "q: no record\nq: no record\nq: batches 1; no record\nq: no record\n"));
}

TEST_F(Inspect, DumpsTheDataWhenAsked) {
  options_.data = true;
  EXPECT_THAT(inspect({write("two", twoRecords().bytes())}),
              HasSubstr("2864434397)\n            00000038  61 62 63 " + std::string(39, ' ') +
                        "  |abc|\n        59  segment end"));
}

TEST_F(Inspect, ShowsWhatIsBeforeTheDamage) {
  options_.data = true;
  Bytes bytes = twoRecords().bytes();
  bytes.resize(bytes.size() - 45);
  const std::string text = inspect({write("cut", bytes)});
  EXPECT_THAT(text, HasSubstr("|abc|\n        59  damaged: record header cut at offset 59: found 3 "
                              "bytes, expected 48 bytes\n            0000003b  00 00 00 "));
  EXPECT_THAT(text, HasSubstr("1 batch (1 damaged), 1 record, 3 data bytes"));
  EXPECT_EQ(ending_.exitCode, 1);
}

TEST_F(Inspect, ReportsEveryTruncation) {
  const Bytes whole = twoRecords().bytes();
  for (std::size_t size = 1; size < whole.size(); ++size) {
    const std::string text = inspect({write("cut", Bytes(whole.data(), whole.data() + size))});
    EXPECT_EQ(ending_.exitCode, 1) << size;
    EXPECT_THAT(text, HasSubstr("  damaged: ")) << size;
    EXPECT_EQ(text.find("segment data  type=1") != std::string::npos, size >= 59) << size;
  }
}

TEST_F(Inspect, ReportsEveryKindOfDamageAtItsOffset) {
  const std::tuple<BatchBytes, const char*, unsigned> table[] = {
      {twoRecords().set32(0, 1), "         0  damaged: wrong metadata magic at offset 0: ", 0},
      {twoRecords().set32(4, 3), "       107  damaged: record header cut at offset 107: ", 2},
      {twoRecords().set32(4, 0xffffffff), "       107  damaged: record header cut at ", 2},
      {twoRecords().set32(4, 1), "        59  damaged: bytes after the last record at ", 1},
      {twoRecords().set32(12, 0xffffffff), "         8  damaged: record data cut at offset 8: ", 0},
      {twoRecords().set32(63, 1), "        59  damaged: record data cut at offset 59: ", 1},
      {twoRecords().set32(52, 0), "         8  damaged: wrong header magic at offset 8: ", 0},
      {twoRecords().set32(103, 0), "        59  damaged: wrong header magic at offset 59: ", 1},
      {twoRecords().trailing(1), "       107  damaged: bytes after the last record at ", 2}};
  for (const auto& [batch, expected, records] : table) {
    const std::string text = inspect({write("damaged", batch.bytes())});
    EXPECT_THAT(text, HasSubstr(expected));
    EXPECT_THAT(text, HasSubstr("(1 damaged), " + std::to_string(records) + " record")) << expected;
    EXPECT_EQ(ending_.exitCode, 1) << expected;
  }
}

TEST_F(Inspect, SortsByNumberAndNamesTheGaps) {
  const auto record = BatchBytes().record(2, 7);
  const std::string text = inspect({numbered(9), numbered(5, record), numbered(1), numbered(4)});
  EXPECT_LT(text.find("q-00000001.batch:"), text.find("q-00000004.batch:"));
  EXPECT_LT(text.find("q-00000005.batch:"), text.find("q-00000009.batch:"));
  EXPECT_THAT(text,
              HasSubstr("q: batches 1 to 9 without 2 to 3, 6 to 8; first sequence 7, last 7"));
}

TEST_F(Inspect, GoesOnAfterWhatCannotBeRead) {
  const std::string text = inspect({folder_ / "missing", folder_.path(), write("empty", {}),
                                    write("two", twoRecords().bytes())});
  EXPECT_THAT(text, HasSubstr(kTwoRecords));
  EXPECT_THAT(text, HasSubstr("4 files, 1 batch (0 damaged)"));
  EXPECT_EQ(withoutFolder(errors_.str()),
            "korvex: cannot read 'missing': No such file or directory\n"
            "korvex: cannot read '" +
                folder_.path() +
                "': Is a directory\n"
                "korvex: 'empty' is empty, expected a batch of 8 bytes or more\n");
  EXPECT_EQ(ending_.exitCode, 1);
}

TEST_F(Inspect, WritesARecordAsAJsonObject) {
  options_.data = true;
  const auto objects = inspectAsJson({numbered(3, twoRecords())});
  ASSERT_EQ(objects.size(), 3u);
  EXPECT_EQ(objects[0], json::parse(R"({"kind":"record","file":"q-00000003.batch","batch":3,
      "index":0,"offset":8,"type":1,"typeName":"segment data","len":3,"sequence":2,
      "segmentCount":0,"segmentEmpty":1,"segState":0,"algParam1":0,"algParam2":0,"algParam3":0,
      "printed":"type=1, len=3, crc=38600999","data":"616263"})"));
  EXPECT_EQ(objects[1]["data"], "");
  EXPECT_EQ(objects[1]["index"], 1);
}

TEST_F(Inspect, WritesNoDataUnlessAsked) {
  const auto objects = inspectAsJson({write("x", twoRecords().trailing(1).bytes())});
  ASSERT_EQ(objects.size(), 4u);
  EXPECT_FALSE(objects[0].contains("data"));
  EXPECT_FALSE(objects[2].contains("rest"));
}

TEST_F(Inspect, WritesTheSummaryLast) {
  const auto objects = inspectAsJson({numbered(4, twoRecords()), numbered(1), folder_ / "x"});
  EXPECT_EQ(objects.back(), json::parse(R"({"kind":"summary","files":3,"batches":2,"damaged":0,
      "records":2,"recordsByType":{"open":0,"segment data":1,"segment end":1,"close":0,"stop":0,
      "unknown":0},"dataBytes":3,"streams":0,"captures":[
      {"name":"q","firstBatch":1,"lastBatch":4,"missing":[{"first":2,"last":3}],
       "firstSequence":2,"lastSequence":3},
      {"name":"x","firstBatch":null,"lastBatch":null,"missing":[],"firstSequence":null,
       "lastSequence":null}],"exitCode":1})"));
}

TEST_F(Inspect, WritesDamageAndUnreadableFilesAsJson) {
  options_.data = true;
  const auto objects =
      inspectAsJson({write("\"\xff", twoRecords().trailing(2).bytes()), folder_ / "x"});
  ASSERT_EQ(objects.size(), 5u);
  EXPECT_EQ(objects[2], json({{"kind", "damage"},
                              {"file", "\"\\xff"},
                              {"batch", nullptr},
                              {"offset", 107},
                              {"message",
                               "bytes after the last record at offset 107: found 2 bytes, "
                               "expected 0 bytes"},
                              {"rest", "0000"}}));
  EXPECT_EQ(objects[3], json::parse(R"({"kind":"unreadable","file":"x","batch":null,"status":2,
      "message":"cannot read 'x': No such file or directory"})"));
}

TEST_F(Inspect, ShowsNoControlCharacterOfAName) {
  inspect({write("\x1b[2J", twoRecords().bytes())});
  EXPECT_THAT(out_.str(), HasSubstr("/\\x1b[2J: 107 bytes\n"));
  EXPECT_THAT(out_.str(), Not(HasSubstr("\x1b")));
}

TEST_F(Inspect, EndsWithASignal) {
  stop_.note(SIGTERM);
  EXPECT_THAT(inspect({write("two", twoRecords().bytes())}), HasSubstr("1 file, 0 batches"));
  EXPECT_EQ(errors_.str(), "korvex: interrupted by signal 15\n");
  EXPECT_EQ(ending_.exitCode, 143);
  EXPECT_EQ(ending_.signal, SIGTERM);
}

TEST_F(Inspect, StopsWhenItsOutputFails) {
  out_.setstate(std::ios::badbit);
  inspect({folder_ / "missing"});
  EXPECT_EQ(errors_.str(), "") << "the file was looked at";
}

TEST_F(Inspect, AgreesWithTheDaemonAboutHostileBatches) {
  korvex::test::hostile::Batches batches(20261121);
  unsigned damaged = 0;
  for (int i = 0; i < 3000; ++i) {
    const Bytes untrusted = batches.next();
    if (untrusted.empty()) continue;
    const korvex::receiver::BatchCheck check(untrusted.data(), untrusted.size());
    const std::string text = inspect({write("hostile", untrusted)});
    if (check.ok()) {
      EXPECT_THAT(text, Not(HasSubstr("damaged: ")));
    } else {
      EXPECT_THAT(text, HasSubstr("  damaged: " + check.text() + "\n"));
      ++damaged;
    }
    EXPECT_EQ(ending_.exitCode, check.ok() ? 0 : 1);
  }
  EXPECT_GT(damaged, 1000u);
}
