#include <cerrno>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ostream>
#include <qmx/log.h>
#include <qmx/sink.h>
#include <string>
#include <vector>

namespace qmx {

// NOLINTNEXTLINE: the name is the one that GoogleTest looks for
void PrintTo(Level level, std::ostream* stream) { *stream << "level " << static_cast<int>(level); }

}  // namespace qmx

namespace {

using testing::ElementsAre;
using testing::FieldsAre;

struct Received {
  qmx::Level level;
  int code;
  std::string text;
};

/// Calls of the log functions as a callback receives them.
class Log : public testing::Test {
 protected:
  Log() {
    qmx::logToCallback([this](const qmx::Line& line) {
      lines_.push_back({line.level, line.code, line.text});
    });
  }
  ~Log() override { qmx::logToStandardError(); }

  std::vector<Received> lines_;
};

TEST_F(Log, EveryFunctionWritesAtItsLevel) {
  InfoA(1, "a");
  AuthA(2, "b");
  WarningA(3, "c");
  ErrorA(4, "d");
  __TraceA("e");
  EXPECT_THAT(
      lines_,
      ElementsAre(FieldsAre(qmx::Level::Info, 1, "a"), FieldsAre(qmx::Level::Auth, 2, "b"),
                  FieldsAre(qmx::Level::Warning, 3, "c"), FieldsAre(qmx::Level::Error, 4, "d"),
                  FieldsAre(qmx::Level::Trace, 0, "e")));
}

TEST_F(Log, ArgumentsAreFilledIn) {
  WarningA(-1, "%s: %d of %u, %.2f%%", "part", -3, 4000000000u, 12.5);
  EXPECT_THAT(lines_,
              ElementsAre(FieldsAre(qmx::Level::Warning, -1, "part: -3 of 4000000000, 12.50%")));
}

TEST_F(Log, TextIsWholeHoweverLong) {
  const std::string text(1 << 20, 'x');
  InfoA(1, "%s!", text.c_str());
  ASSERT_EQ(lines_.size(), 1u);
  EXPECT_EQ(lines_[0].text, text + "!");
}

TEST_F(Log, EmptyTextIsALine) {
  InfoA(1, "%s", "");
  EXPECT_THAT(lines_, ElementsAre(FieldsAre(qmx::Level::Info, 1, "")));
}

// The test runs in the "C" locale, which has no bytes for the euro sign: printf fails.
TEST_F(Log, TextThatCannotBeFormattedIsWrittenRaw) {
  ErrorA(5, "name %ls of %d", L"\u20ac", 3);
  EXPECT_THAT(lines_, ElementsAre(FieldsAre(qmx::Level::Error, 5, "name %ls of %d")));
}

// The lines that a logger composes are such formats: in memory that can be written, without an
// argument. Checked builds of the C library end the process at them.
TEST_F(Log, FormatThatStoresSomethingIsWrittenRaw) {
  void (*const volatile unchecked)(int, const char*, ...) =
      WarningA;  // the compiler would refuse it
  for (const std::string spelling :
       {"100%name", "% n",    "%+n",  "%-n",    "%#n",       "%0n",   "%'n",  "%In",
        "%5n",      "%*n",    "%.3n", "%.*n",   "%-08.3lln", "%hhn",  "%hn",  "%ln",
        "%lln",     "%Ln",    "%qn",  "%jn",    "%zn",       "%Zn",   "%tn",  "%1$n",
        "%2$*1$n",  "%1$lln", "%w8n", "%wf16n", "%%%n",      "%5%%n", "%y%n", "%%d %d %n"}) {
    lines_.clear();
    unchecked(1, spelling.c_str(), 0, 0, 0);
    ASSERT_EQ(lines_.size(), 1u);
    EXPECT_EQ(lines_[0].text, spelling);
  }
}

TEST_F(Log, HarmlessPercentSignsBeforeAnNAreFormatted) {
  InfoA(1, "%%n");
  InfoA(1, "%%%%n %dn", 5);
  InfoA(1, "%sn %c%%n", "a", 'b');
  EXPECT_THAT(lines_, ElementsAre(FieldsAre(qmx::Level::Info, 1, "%n"),
                                  FieldsAre(qmx::Level::Info, 1, "%%n 5n"),
                                  FieldsAre(qmx::Level::Info, 1, "an b%n")));
}

TEST_F(Log, MissingFormatIsALine) {
  void (*const volatile unchecked)(int, const char*, ...) = InfoA;  // the compiler would refuse it
  unchecked(6, nullptr);
  EXPECT_THAT(lines_, ElementsAre(FieldsAre(qmx::Level::Info, 6, "(null format)")));
}

TEST_F(Log, ErrnoMayBeLoggedAndIsKept) {
  errno = ENOENT;
  InfoA(1, "%m");
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(lines_.at(0).text, "No such file or directory");
}

TEST_F(Log, CallbackReceivesTheTextUnescaped) {
  InfoA(1, "%s", "a\nb\\");
  EXPECT_EQ(lines_.at(0).text, "a\nb\\");
}

}  // namespace
