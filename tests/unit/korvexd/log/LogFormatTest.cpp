#include <cstdlib>
#include <gmock/gmock.h>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "korvexd/log/LogFormat.h"
#include "support/TemporaryFolder.h"

using korvexd::Event;
using korvexd::LogEntry;
using korvexd::LogFormat;
using korvexd::LogReader;
using korvexd::LogStyle;
using testing::EndsWith;

namespace {

namespace level = spdlog::level;

const spdlog::log_clock::time_point kTime{std::chrono::milliseconds(1795315984123)};

LogEntry damagedBatch() {
  return LogEntry(Event::BatchRefused, level::warn, "shop", "batch 7 is damaged: cut")
      .with("batch", std::uint64_t{7})
      .with("reason", "cut");
}

std::string lineOf(const LogEntry& entry, LogStyle style, LogReader reader = LogReader::Anyone) {
  return LogFormat(style, reader).line(entry, kTime);
}

/// The words in code style that begin the rows of a page's tables.
std::multiset<std::string> firstCells(const std::string& page) {
  std::istringstream lines(korvex::test::contentsOf(page));
  std::multiset<std::string> found;
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("| `", 0) == 0) found.insert(line.substr(3, line.find('`', 3) - 3));
  }
  return found;
}

}  // namespace

TEST(LogFormat, WritesTextWithTheQueueInFront) {
  EXPECT_THAT(lineOf(damagedBatch(), LogStyle::Text),
              EndsWith(".123] [korvexd] [warning] shop: batch 7 is damaged: cut\n"));
}

TEST(LogFormat, WritesJsonWithTheEventAndItsParts) {
  EXPECT_EQ(lineOf(damagedBatch(), LogStyle::Json),
            "{\"time\":\"2026-11-22T02:53:04.123Z\",\"level\":\"warning\","
            "\"event\":\"batch_refused\",\"queue\":\"shop\",\"batch\":7,\"reason\":\"cut\","
            "\"message\":\"batch 7 is damaged: cut\"}\n");
}

TEST(LogFormat, LeavesTheQueueOutWhereThereIsNone) {
  const LogEntry entry(Event::Note, level::info, "", "hello");
  EXPECT_THAT(lineOf(entry, LogStyle::Text), EndsWith("] [korvexd] [info] hello\n"));
  EXPECT_THAT(lineOf(entry, LogStyle::Json),
              EndsWith("\"event\":\"note\",\"message\":\"hello\"}\n"));
}

TEST(LogFormat, GivesTheJournalAPriorityAndNoTime) {
  const std::pair<level::level_enum, std::string> levels[] = {{level::debug, "<7>"},
                                                              {level::info, "<6>"},
                                                              {level::warn, "<4>"},
                                                              {level::err, "<3>"},
                                                              {level::critical, "<2>"}};
  for (const auto& [severity, priority] : levels) {
    const LogEntry entry(Event::Note, severity, "shop", "hello");
    EXPECT_EQ(lineOf(entry, LogStyle::Text, LogReader::Journal), priority + "shop: hello\n");
    EXPECT_THAT(lineOf(entry, LogStyle::Json, LogReader::Journal),
                testing::StartsWith(priority + "{"));
  }
}

TEST(LogFormatUntrusted, KeepsEverythingOnOneLine) {
  const LogEntry entry = LogEntry(Event::Note, level::info, "a\nb\xff", "c\nd\x1b\xff")
                             .with("place", "e\nf\xff\\")
                             .with("queue", "a\nb\xff");
  EXPECT_THAT(lineOf(entry, LogStyle::Text), EndsWith(" a\\x0ab\\xff: c\\x0ad\\x1b\\xff\n"));
  EXPECT_THAT(lineOf(entry, LogStyle::Json),
              EndsWith("\"queue\":\"a%0Ab%FF\",\"place\":\"e\\\\x0af\\\\xff\\\\x5c\","
                       "\"message\":\"c\\\\x0ad\\\\x1b\\\\xff\"}\n"));
}

TEST(LogReader, IsTheJournalWhereTheDescriptorIsItsStream) {
  struct stat file = {};
  ASSERT_EQ(::fstat(STDIN_FILENO, &file), 0);
  const std::string own = std::to_string(file.st_dev) + ":" + std::to_string(file.st_ino);
  ::setenv("JOURNAL_STREAM", own.c_str(), 1);
  EXPECT_EQ(korvexd::readerOf(STDIN_FILENO), LogReader::Journal);
  ::setenv("JOURNAL_STREAM", (own + "1").c_str(), 1);
  EXPECT_EQ(korvexd::readerOf(STDIN_FILENO), LogReader::Anyone);
  ::unsetenv("JOURNAL_STREAM");
  EXPECT_EQ(korvexd::readerOf(STDIN_FILENO), LogReader::Anyone);
}

TEST(LogReader, IsAnyoneWhereTheDescriptorIsNone) {
  ::setenv("JOURNAL_STREAM", "0:0", 1);
  EXPECT_EQ(korvexd::readerOf(-1), LogReader::Anyone);
  ::unsetenv("JOURNAL_STREAM");
}

TEST(LogEvents, AreTheOnesThatThePageLists) {
  std::multiset<std::string> names;
  for (std::size_t i = 0; i < std::size(korvexd::kEventNames); ++i) {
    EXPECT_EQ(static_cast<std::size_t>(korvexd::kEventNames[i].event), i);
    names.insert(korvexd::kEventNames[i].name);
  }
  EXPECT_EQ(firstCells(KORVEX_DOCS "/logs.md"), names);
}
