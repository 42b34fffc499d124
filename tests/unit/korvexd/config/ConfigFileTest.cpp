#include <fstream>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "korvexd/config/ConfigFile.h"
#include "support/TemporaryFolder.h"

using korvexd::ConfigFile;
using korvexd::parseConfigFile;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

/// Each mistake as "LINE:COLUMN: TEXT".
std::vector<std::string> mistakesIn(const std::string& text) {
  std::vector<std::string> found;
  for (const korvexd::Mistake& mistake : parseConfigFile(text).mistakes) {
    found.push_back(std::to_string(mistake.origin.line) + ":" +
                    std::to_string(mistake.origin.column) + ": " + mistake.text);
  }
  return found;
}

std::string valueIn(const korvexd::Layer& values, const std::string& key) {
  return korvexd::tomlOf(values.at(key).value);
}

std::string refusalOf(const std::string& path) {
  try {
    korvexd::readConfigFile(path);
    return "none";
  } catch (const std::exception& error) {
    return error.what();
  }
}

/// A line of a queue's table, and what is wrong with it.
struct WrongLine {
  const char* line;
  const char* mistake;
};

void PrintTo(const WrongLine& wrong, std::ostream* stream) { *stream << wrong.line; }

class ConfigFileUntrusted : public testing::TestWithParam<WrongLine> {};

}  // namespace

TEST(ConfigFileTest, KnowsWhereEachValueStands) {
  const ConfigFile file = parseConfigFile(
      "[daemon]\nstats = 's'\n[defaults]\n  mode = '0660'\n[queue.b]\nexec = ['a', 'b c']\n"
      "[queue.'/a']\ndiscard = true\n");
  EXPECT_THAT(file.mistakes, IsEmpty());
  EXPECT_EQ(valueIn(file.daemon, "stats"), R"("s")");
  EXPECT_EQ(file.defaults.at("mode").origin.line, 4u);
  EXPECT_EQ(file.defaults.at("mode").origin.column, 10u);
  ASSERT_EQ(file.queues.size(), 2u);
  EXPECT_EQ(file.queues[0].name, "b");
  EXPECT_EQ(valueIn(file.queues[0].values, "exec"), R"(["a", "b c"])");
  EXPECT_EQ(file.queues[1].name, "a");
  EXPECT_EQ(file.queues[1].origin.line, 7u);
}

TEST(ConfigFileTest, ReportsEveryMistakeAtItsPlace) {
  EXPECT_THAT(mistakesIn("speed = 1\n[defaults]\nmode = '8'\n[queue.a]\nsink = 'x'\n"
                         "[queue.'x/y']\nmax-messages = 0\n"),
              testing::UnorderedElementsAre(
                  "1:1: found 'speed', expected one of [daemon], [defaults] and [queue.NAME]",
                  R"(3:8: mode: found "8", expected an octal number up to 777)",
                  "5:1: unknown key 'sink', expected one of output, exec, discard, digest, "
                  "exec-timeout, idle-timeout, max-messages, max-message-size, mode, group, "
                  "replace, capture",
                  R"(6:8: "x/y" cannot be a queue's name: it holds a slash, )"
                  "which is allowed only as the first character",
                  "7:16: max-messages: found 0, expected a whole number from 1 to 65536"));
}

TEST(ConfigFileTest, RefusesATimeToDrainBelowZero) {
  EXPECT_THAT(
      mistakesIn("[daemon]\ndrain-timeout = -1\n"),
      ElementsAre("2:17: drain-timeout: found -1, expected a whole number of seconds from 0 "
                  "to 604800"));
}

TEST(ConfigFileTest, ReportsTwoSinksAtTheSecond) {
  EXPECT_THAT(mistakesIn("[queue.a]\ndiscard = true\n\noutput = 'x'\n"),
              ElementsAre("4:10: found output beside discard, expected one of output, exec, "
                          "discard"));
}

TEST(ConfigFileTest, RefusesWhatIsNoTable) {
  EXPECT_THAT(mistakesIn("queue = 1"),
              ElementsAre("1:9: queue: found 1, expected tables [queue.NAME]"));
  EXPECT_THAT(mistakesIn("[queue]\na = 'x'"),
              ElementsAre(R"(2:5: a: found "x", expected a table)"));
  EXPECT_THAT(mistakesIn("daemon = []"), ElementsAre("1:10: daemon: found [], expected a table"));
}

TEST(ConfigFileTest, NamesThePlaceOfASyntaxError) {
  EXPECT_THAT(mistakesIn("[queue.a]\nmode = 0660\n"), ElementsAre(HasSubstr("2:12: ")));
  EXPECT_THAT(mistakesIn("[queue.a]\n[queue.a]\n"), ElementsAre(HasSubstr("2:")));
  EXPECT_THAT(mistakesIn("a = \"\xff\""), ElementsAre(HasSubstr("1:")));
}

TEST(ConfigFileTest, ThrowsForAFileThatCannotBeRead) {
  const korvex::test::TemporaryFolder folder;
  EXPECT_EQ(refusalOf(folder / "none"),
            "reading configuration " + (folder / "none") + ": error 2 (No such file or directory)");
}

TEST(ConfigFileTest, TakesNothingButAFileAndNeverWaits) {
  const korvex::test::TemporaryFolder folder;
  ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
  for (const std::string& path : {folder.path(), folder / "pipe", std::string("/dev/zero")}) {
    EXPECT_EQ(refusalOf(path),
              "reading configuration " + path + ": found something else, expected a file");
  }
}

TEST(ConfigFileTest, ReadsLongFilesAndEmptyOnes) {
  const korvex::test::TemporaryFolder folder;
  const std::string path = folder / "file";
  std::ofstream(path) << std::string(100000, '\n') << "[queue.a]\n";
  EXPECT_EQ(korvexd::readConfigFile(path).queues.at(0).origin.line, 100001u);
  std::ofstream(path, std::ios::trunc).flush();
  EXPECT_THAT(korvexd::readConfigFile(path).mistakes, IsEmpty());
}

TEST_P(ConfigFileUntrusted, IsRefusedWithWhatIsExpected) {
  const auto mistakes = mistakesIn("[queue.a]\n" + std::string(GetParam().line) + "\n");
  ASSERT_EQ(mistakes.size(), 1u) << testing::PrintToString(mistakes);
  EXPECT_THAT(mistakes[0], HasSubstr(GetParam().mistake));
}

INSTANTIATE_TEST_SUITE_P(
    Values, ConfigFileUntrusted,
    testing::Values(
        WrongLine{"output = ''", R"(output: found "", expected a path in quotes)"},
        WrongLine{"output = [ 'x' ]", R"(output: found ["x"], expected a path in quotes)"},
        WrongLine{"capture = \"a\\u0000b\"", R"(capture: found "a\u0000b", expected a path)"},
        WrongLine{"digest = 'md5'", R"(digest: found "md5", expected "sha256" or "xxh128")"},
        WrongLine{"exec = 'a b'", R"(exec: found "a b", expected a list of words)"},
        WrongLine{"exec = []", "exec: found [], expected a list of words"},
        WrongLine{"exec = ['', 'x']", R"(exec: found ["", "x"], expected a list of words)"},
        WrongLine{"exec = ['x', 1]", "exec: found a list with elements other than strings"},
        WrongLine{"exec = ['x', \"a\\u0000\"]",
                  R"(found ["x", "a\u0000"], expected a list of words)"},
        WrongLine{"discard = false", "discard: found false, expected true"},
        WrongLine{"discard = 1", "discard: found 1, expected true"},
        WrongLine{"replace = 'yes'", R"(replace: found "yes", expected true or false)"},
        WrongLine{"exec-timeout = 0", "expected a whole number of seconds from 1 to 604800"},
        WrongLine{"exec-timeout = 604801", "found 604801, expected a whole number of seconds"},
        WrongLine{"idle-timeout = 0", "expected a whole number of seconds from 1 to 604800"},
        WrongLine{"idle-timeout = 1.5", "idle-timeout: found 1.5, expected a whole number"},
        WrongLine{"idle-timeout = 1979-05-27", "found 1979-05-27, expected a whole number"},
        WrongLine{"max-messages = 65537", "found 65537, expected a whole number from 1 to 65536"},
        WrongLine{"max-messages = '8'", R"(max-messages: found "8", expected a whole number)"},
        WrongLine{"max-message-size = 56",
                  "expected a whole number of bytes from 57 to 1073741824"},
        WrongLine{"max-message-size = '2G'", R"(found "2G", expected a whole number of bytes)"},
        WrongLine{"max-message-size = '99999999999G'", R"(found "99999999999G", expected)"},
        WrongLine{"max-message-size = true", "found true, expected a whole number of bytes"},
        WrongLine{"mode = 660", "mode: found 660, expected an octal number in quotes"},
        WrongLine{"mode = '1777'", R"(found "1777", expected an octal number up to 777)"},
        WrongLine{"mode = '00600'", R"(found "00600", expected an octal number up to 777)"},
        WrongLine{"mode = '-600'", R"(found "-600", expected an octal number up to 777)"},
        WrongLine{"mode = '0066'", R"(found "0066", expected read and write permission)"},
        WrongLine{"group = 'no such'", R"(found "no such", expected the name or the number)"},
        WrongLine{"group = '12x'", R"(found "12x", expected the name or the number)"},
        WrongLine{"group = \"daemon\\u0000\"", "expected the name or the number"},
        WrongLine{"group = -1", "group: found -1, expected a whole number from 0 to 4294967294"},
        WrongLine{"group = {}", "group: found a table, expected the name or the number"},
        WrongLine{"[queue.'']", "\"\" cannot be a queue's name: it is empty"},
        WrongLine{"[queue.\"a\\u0000\"]", "cannot be a queue's name: it holds a NUL"}));
