#include <cerrno>
#include <ctime>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <utility>

#include "status/StatusReport.h"
#include "unit/korvex/Pairs.h"

namespace {

using korvex::test::kNameless;
using korvex::test::pairOf;
using korvex::tool::PairState;
using korvex::tool::QueueState;
using korvex::tool::StatusReport;
using korvex::tool::StreamStats;
using nlohmann::json;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;
using Condition = korvex::receiver::QueueStatus::Condition;
using Maker = korvex::receiver::HalfMadeQueue::Maker;
using Owner = QueueState::Owner;
using Service = PairState::Service;

constexpr std::time_t kThen = 1577836800;  // 2020-01-01T00:00:00Z
constexpr pid_t kNoProcess = 999999999;    // more than any system gives

QueueState missingQueue(const std::string& name) {
  QueueState queue;
  queue.name = name;
  queue.systemError = ENOENT;
  return queue;
}

/// Of a look 75 seconds later.
StatusReport reportOf(const std::vector<PairState>& pairs) {
  StatusReport report;
  report.now = kThen + 75;
  for (const PairState& pair : pairs) report.pairs.push_back({pair, {}, 0});
  return report;
}

/// A stream is open, and another one has failed a moment later than now, by another clock.
StreamStats busyStats() {
  StreamStats stats;
  stats.open = StreamStats::Open{kThen, 1500, "there\n"};
  stats.lastIncomplete = StreamStats::End{kThen + 85, 7, "no room\n"};
  stats.complete = 4;
  stats.incomplete = 2;
  return stats;
}

}  // namespace

TEST(StatusReportText, ShowsEachPairInARow) {
  PairState half = pairOf("b", Service::Abandoned);
  half.batches = missingQueue("b");
  half.replies.object.user = kNameless;
  half.replies.object.group = 0;
  half.replies.object.mode = S_IFREG | 04600;
  const StatusReport report =
      reportOf({pairOf("shop", Service::Served), half, pairOf("Gem\u00fcse", Service::Unknown)});
  EXPECT_EQ(
      report.text(),
      "QUEUE   STATE      SERVED BY              WAITING     LIMITS        LOCK  OWNER       MODE\n"
      "shop    served     korvexd (7)            2 (1.5 kB)  10 of 4096 B  free  root:60123  0640\n"
      "b       abandoned  nobody                 absent      -             -     60123:root  4600\n"
      "Gem\u00fcse  unknown    nobody seen from here  2 (1.5 kB)  10 of 4096 B  free  root:60123  "
      "0640\n"
      "b: ! no living process serves it: start korvexd with --replace, or remove it with korvex "
      "clean\n"
      "b: ! b is missing\n");
}

TEST(StatusReportText, TellsWhoHoldsEachLock) {
  struct Row {
    Condition condition;
    bool isLocked;
    Owner owner;
    std::string text;
  };
  for (const Row& row : {Row{Condition::Sound, false, Owner::Nobody, "free"},
                         Row{Condition::Sound, true, Owner::Alive, "held by sh (8)"},
                         Row{Condition::Sound, true, Owner::Dead, "held by sh (8), dead"},
                         Row{Condition::Sound, true, Owner::Unknown, "held by sh (8), unknown"},
                         Row{Condition::Busy, false, Owner::Nobody, "held"},
                         Row{Condition::Damaged, false, Owner::Nobody, "-   "}}) {
    PairState ofBatches = pairOf("q", Service::Served);
    PairState ofReplies = ofBatches;
    for (QueueState* queue : {&ofBatches.batches, &ofReplies.replies}) {
      queue->condition = row.condition;
      queue->isLocked = row.isLocked;
      queue->lockOwner = row.owner;
      queue->lockedBy = {8, "sh"};
    }
    EXPECT_THAT(reportOf({ofBatches}).text(), HasSubstr("  " + row.text + "  root:"));
    const bool isHeld = row.text.front() == 'h';
    EXPECT_THAT(reportOf({ofReplies}).text(),
                HasSubstr("  free" + (isHeld ? "; replies: " + row.text : "") + "  root:"));
  }
}

TEST(StatusReportText, TellsOfTheStreams) {
  StatusReport report = reportOf({pairOf("q", Service::Served)});
  StatusReport::Pair& pair = report.pairs.front();
  pair.streams = busyStats();
  pair.bytesPerSecond = 20;
  EXPECT_THAT(
      report.text(),
      EndsWith(" 0640\n"
               "q: stream open since 2020-01-01T00:00:00Z (1:15 ago), 1.5 kB, 20 B/s, there\\x0a\n"
               "q: last complete stream: none yet\n"
               "q: failed streams: 2, the last 2020-01-01T00:01:25Z (0:00 ago), 7 B: "
               "no room\\x0a\n"));
  pair.streams->open->place = "";
  EXPECT_THAT(report.text(), HasSubstr(", 20 B/s\n"));
  pair.streams->open.reset();
  pair.streams->incomplete = 0;
  pair.streams->lastComplete = StreamStats::End{kThen, 3, ""};
  EXPECT_THAT(report.text(),
              EndsWith(" 0640\n"
                       "q: no stream is open\n"
                       "q: last complete stream: 2020-01-01T00:00:00Z (1:15 ago), 3 B\n"));
}

TEST(StatusReportText, HasNoTableWithoutPairs) {
  StatusReport report;
  EXPECT_THAT(report.text(), StartsWith("no queues in shared memory\nno daemon serves any here"));
  report.hasFailed = true;
  EXPECT_EQ(report.text(), "") << "the error is told instead";
  report.halfMade = {
      {"a\n", 7, Maker::Dead}, {"b", kNoProcess, Maker::Alive}, {"c", 0, Maker::Unknown}};
  EXPECT_EQ(report.text(),
            "a\\x0a: half made by process 7, which is dead; korvex clean removes it\n"
            "b: half made by 999999999, which is starting\n"
            "c: half made by a process that cannot be seen from here\n");
}

TEST(StatusReportJson, HasAllThatIsKnown) {
  PairState state = pairOf("a%b", Service::Served);
  state.batches.isLocked = true;
  state.batches.lockOwner = Owner::Unknown;
  state.batches.lockedBy = {8, "s\\h"};
  state.replies = missingQueue("a%bResponse");
  StatusReport report = reportOf({state});
  report.pairs.front().streams = busyStats();
  report.pairs.front().bytesPerSecond = 20;
  report.halfMade = {{"h%", 5, Maker::Dead}, {"i", 6, Maker::Alive}, {"j", 0, Maker::Unknown}};
  report.errors = {"error"};
  report.hasFailed = true;
  EXPECT_EQ(json::parse(report.json()), json::parse(R"({"at":"2020-01-01T00:01:15Z","queues":[{
      "name":"a%25b","state":"served","servedBy":{"id":7,"program":"korvexd"},
      "batches":{"name":"a%25b","condition":"sound","error":"","kind":"a file","uid":0,
        "gid":60123,"mode":"0640","size":5000,"messages":2,"bytes":1500,"maxMessages":10,
        "maxMessageSize":4096,
        "lock":{"held":true,"owner":{"id":8,"program":"s\\x5ch","state":"unknown"}}},
      "replies":{"name":"a%25bResponse","condition":"absent","error":"No such file or directory"},
      "problems":["a%bResponse is missing"],
      "streams":{"open":{"since":"2020-01-01T00:00:00Z","bytes":1500,"bytesPerSecond":20.0,
          "place":"there\n"},
        "lastComplete":null,
        "lastIncomplete":{"at":"2020-01-01T00:01:25Z","bytes":7,"reason":"no room\n"},
        "complete":4,"incomplete":2}}],
      "halfMade":[{"name":"h%25","process":5,"maker":"dead"},
        {"name":"i","process":6,"maker":"alive"},{"name":"j","process":0,"maker":"unknown"}],
      "errors":["error"],"exitCode":1})"));
}

TEST(StatusReportJson, LeavesOutWhatCannotBeKnown) {
  const std::pair<Condition, const char*> conditions[] = {{Condition::Unreachable, "unreachable"},
                                                          {Condition::Unfinished, "unfinished"},
                                                          {Condition::Damaged, "damaged"},
                                                          {Condition::Busy, "busy"}};
  for (const auto& [condition, name] : conditions) {
    PairState state = pairOf("q", Service::Abandoned);
    state.batches.condition = condition;
    const json queue = json::parse(reportOf({state}).json())["queues"][0];
    EXPECT_EQ(queue["batches"]["condition"], name);
    EXPECT_EQ(queue["batches"]["size"], 5000);
    EXPECT_FALSE(queue["batches"].contains("messages"));
    EXPECT_EQ(queue["replies"]["lock"], json::parse(R"({"held":false,"owner":null})"));
    EXPECT_EQ(queue["state"], "abandoned");
    EXPECT_EQ(queue["servedBy"], json());
    EXPECT_EQ(queue["streams"], json());
  }
}
