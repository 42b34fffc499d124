#include <CLI/CLI.hpp>
#include <gmock/gmock.h>
#include <sstream>

#include "CommandLine.h"
#include "send/FromCommand.h"
#include "send/Send.h"

namespace {

using korvex::tool::cutCommand;
using korvex::tool::declareSend;
using korvex::tool::Progress;
using korvex::tool::runTool;
using korvex::tool::SendOptions;
using korvex::tool::StopSignal;
using testing::HasSubstr;
using Words = std::vector<std::string>;

Words wordsOf(const std::string& line) {
  std::istringstream words(line);
  return {std::istream_iterator<std::string>(words), {}};
}

struct Cut {
  const char* line;     ///< behind the tool's name
  const char* own;      ///< what remains for the tool
  const char* command;  ///< what was cut off
};

const Cut kCuts[] = {
    {"send --from-command tar -cf - d", "send --from-command", "tar -cf - d"},
    {"send --from-command -- tar -cf - d", "send --from-command", "tar -cf - d"},
    {"send --from-command --queue q tar --queue r", "send --from-command --queue q",
     "tar --queue r"},
    {"send --from-command --queue=q tar", "send --from-command --queue=q", "tar"},
    {"send --from-command --json --quiet a", "send --from-command --json --quiet", "a"},
    {"send --queue q --from-command git log -- a", "send --queue q --from-command", "git log -- a"},
    {"send --from-command -- -- a", "send --from-command", "-- a"},
    {"send --from-command - a", "send --from-command", "- a"},
    {"send --from-command a --from-command b", "send --from-command", "a --from-command b"},
    {"send --from-command --", "send --from-command", ""},
    {"send --from-command", "send --from-command", ""},
    {"send --name --from-command a", "send --name --from-command a", ""},
    {"send -- --from-command a", "send -- --from-command a", ""},
    {"send file --from-command a", "send file --from-command", "a"},
    {"send a b", "send a b", ""},
    {"verify --from-command a", "verify --from-command a", ""},
    {"send", "send", ""},
    {"", "", ""},
};

struct Refusal {
  Words words;
  const char* text;
};

const Refusal kRefusals[] = {
    {{"--from-command"}, "--from-command: expected a command after it, found nothing"},
    {{"--from-command", "--"}, "--from-command: expected a command after it, found nothing"},
    {{"--from-command", ""}, "--from-command: the command's name is empty"},
    {{"[a]", "--from-command", "b"},
     "--from-command: found the file '[a]' in front of it, expected only a command after it"},
    {{"--from-command", "-cf", "tar"}, "The following argument was not expected: -cf"},
    {{"--command-timeout", "1"}, "--command-timeout requires --from-command"},
    {{"--from-command", "--command-timeout", "0", "a"}, "--command-timeout: Value 0 not in range"},
    {{"--from-command", "--command-timeout", "86401", "a"}, "not in range"},
    {{"--from-command", "--command-timeout", "x", "a"}, "found 'x', expected a whole number"},
};

}  // namespace

TEST(SendFromCommandLine, CutsTheCommandOff) {
  CLI::App tool;
  SendOptions options;
  const CLI::App& send = *declareSend(tool, options);
  for (const Cut& cut : kCuts) {
    Words words = wordsOf(std::string("korvex ") + cut.line);
    EXPECT_EQ(cutCommand(send, words), wordsOf(cut.command)) << cut.line;
    EXPECT_EQ(words, wordsOf(std::string("korvex ") + cut.own)) << cut.line;
  }
}

TEST(SendFromCommandLine, WaitsAMinuteUnlessTold) {
  CLI::App tool;
  SendOptions options;
  declareSend(tool, options);
  options.command = {"a"};
  tool.parse("send --queue q --from-command");
  EXPECT_TRUE(options.fromCommand);
  EXPECT_EQ(options.commandTimeout, 60u);
}

TEST(SendFromCommandLine, RefusesWhatMakesNoCommand) {
  const StopSignal stop;
  for (const Refusal& refusal : kRefusals) {
    std::vector<const char*> words = {"korvex", "send", "--queue", "korvex-test-no-such-queue"};
    for (const std::string& word : refusal.words) words.push_back(word.c_str());
    std::ostringstream out;
    std::ostringstream errors;
    const int count = static_cast<int>(words.size());
    EXPECT_EQ(runTool(count, words.data(), stop, Progress(), out, errors).exitCode, 2);
    EXPECT_THAT(errors.str(), HasSubstr(refusal.text));
  }
}
