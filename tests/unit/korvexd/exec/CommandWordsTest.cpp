#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <stdexcept>
#include <stdlib.h>
#include <sys/stat.h>

#include "korvex/receiver/SystemError.h"
#include "korvexd/exec/CommandWords.h"
#include "support/TemporaryFolder.h"

using korvexd::findProgram;
using korvexd::splitCommand;
using testing::ElementsAre;

namespace {

std::string defectOf(const std::string& command) {
  try {
    splitCommand(command);
    return "";
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
}

std::string obstacleTo(const std::string& name) {
  try {
    return "found " + findProgram(name);
  } catch (const korvex::receiver::SystemError& error) {
    return error.what();
  }
}

/// Two folders in PATH, as long as the object exists.
class TwoFolders {
 public:
  TwoFolders() : before_(::getenv("PATH")) {
    ::setenv("PATH", (first_ + ":" + second_).c_str(), 1);
  }
  ~TwoFolders() { ::setenv("PATH", before_.c_str(), 1); }

  static void make(const std::string& path, mode_t mode) {
    std::ofstream(path).put('\n');
    ::chmod(path.c_str(), mode);
  }

 private:
  korvex::test::TemporaryFolder folder_;
  std::string before_;

 public:
  const std::string first_ = folder_.makeFolder("first");
  const std::string second_ = folder_.makeFolder("second");
};

}  // namespace

TEST(SplitCommand, SeparatesWordsAtBlanks) {
  EXPECT_THAT(splitCommand("restic backup --stdin"), ElementsAre("restic", "backup", "--stdin"));
  EXPECT_THAT(splitCommand(" \t a \n\n b  "), ElementsAre("a", "b"));
}

TEST(SplitCommand, KeepsTogetherWhatIsQuoted) {
  EXPECT_THAT(splitCommand("a 'b  c' \"d  e\""), ElementsAre("a", "b  c", "d  e"));
  EXPECT_THAT(splitCommand("a'b c'd\"e f\"g"), ElementsAre("ab cde fg"));
  EXPECT_THAT(splitCommand("a '' \"\" b"), ElementsAre("a", "", "", "b"));
}

TEST(SplitCommand, TakesSingleQuotesLiterally) {
  EXPECT_THAT(splitCommand(R"(a '\n"$x\')"), ElementsAre("a", R"(\n"$x\)"));
}

TEST(SplitCommand, EscapesInDoubleQuotesOnlyWhatAShellDoes) {
  EXPECT_THAT(splitCommand(R"(a "\" \\ \$ \` \n \'")"), ElementsAre("a", R"(" \ $ ` \n \')"));
}

TEST(SplitCommand, TakesWhatFollowsABackslashLiterally) {
  EXPECT_THAT(splitCommand(R"(a\ b \" \' \\ \n)"), ElementsAre("a b", "\"", "'", "\\", "n"));
}

TEST(SplitCommand, JoinsLinesThatGoOn) {
  EXPECT_THAT(splitCommand("a b\\\nc \\\n d \"e\\\nf\""), ElementsAre("a", "bc", "", "d", "ef"));
}

TEST(SplitCommand, ExpandsNothing) {
  EXPECT_THAT(splitCommand("a $HOME * ~ | >x ; & #"),
              ElementsAre("a", "$HOME", "*", "~", "|", ">x", ";", "&", "#"));
}

TEST(SplitCommand, RefusesACommandWithoutWords) {
  EXPECT_EQ(defectOf(""), "found no word, expected a command");
  EXPECT_EQ(defectOf(" \t\n"), "found no word, expected a command");
  EXPECT_EQ(defectOf("'' x"), "the first word is empty");
}

TEST(SplitCommand, NamesAQuoteThatStaysOpen) {
  EXPECT_EQ(defectOf("ab 'cd"), "the quote ' at character 4 is never closed");
  EXPECT_EQ(defectOf("a \"b' \\\""), "the quote \" at character 3 is never closed");
  EXPECT_EQ(defectOf("\""), "the quote \" at character 1 is never closed");
  EXPECT_EQ(defectOf("\"a\\"), "the quote \" at character 1 is never closed");
  EXPECT_EQ(defectOf("a \\"), "ends in a backslash, expected a character after it");
}

TEST(FindProgram, TakesTheFirstThatMayRun) {
  const TwoFolders path;
  TwoFolders::make(path.second_ + "/engine", 0700);
  TwoFolders::make(path.first_ + "/engine", 0600);
  EXPECT_EQ(findProgram("engine"), path.second_ + "/engine");
  ::chmod((path.first_ + "/engine").c_str(), 0700);
  EXPECT_EQ(findProgram("engine"), path.first_ + "/engine");
}

TEST(FindProgram, LooksInTheUsualFoldersWithoutPath) {
  const TwoFolders path;
  ::unsetenv("PATH");
  EXPECT_THAT(obstacleTo("sh"), testing::MatchesRegex("found (/usr)?/bin/sh"));
}

TEST(FindProgram, TakesAnEmptyEntryForTheWorkingFolder) {
  const TwoFolders path;
  TwoFolders::make(path.first_ + "/engine", 0700);
  ::setenv("PATH", (":" + path.second_).c_str(), 1);
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(path.first_);
  EXPECT_EQ(obstacleTo("engine"), "found ./engine");
  std::filesystem::current_path(before);
}

TEST(FindProgram, LooksNowhereForAPath) {
  const TwoFolders path;
  TwoFolders::make(path.second_ + "/engine", 0700);
  EXPECT_EQ(findProgram(path.second_ + "/engine"), path.second_ + "/engine");
  EXPECT_EQ(obstacleTo("./engine"),
            "checking the engine './engine': error 2 (No such file or directory)");
}

TEST(FindProgram, TellsAMissingProgramFromAForbiddenOne) {
  const TwoFolders path;
  EXPECT_EQ(obstacleTo("engine"),
            "looking for the engine 'engine' in PATH: error 2 (No such file or directory)");
  TwoFolders::make(path.first_ + "/engine", 0600);
  EXPECT_EQ(obstacleTo("engine"),
            "looking for the engine 'engine' in PATH: error 13 (Permission denied)");
  EXPECT_EQ(obstacleTo(path.first_),
            "checking the engine '" + path.first_ + "': error 13 (Permission denied)");
}
