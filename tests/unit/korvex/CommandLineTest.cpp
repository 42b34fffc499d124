#include <CLI/CLI.hpp>
#include <gmock/gmock.h>
#include <sstream>

#include "CommandLine.h"
#include "send/Send.h"

namespace {

using korvex::tool::declareSend;
using korvex::tool::Progress;
using korvex::tool::runTool;
using korvex::tool::SendOptions;
using korvex::tool::StopSignal;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

/// Runs the tool. Names no queue that exists, so what is accepted ends with exit code 1.
class CommandLine : public testing::Test {
 protected:
  int run(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "korvex");
    return runTool(static_cast<int>(arguments.size()), arguments.data(), stop, Progress(), out,
                   errors)
        .exitCode;
  }

  int runSend(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), {"send", "--queue", "korvex-test-no-such-queue"});
    return run(arguments);
  }

  StopSignal stop;
  std::ostringstream out;
  std::ostringstream errors;
};

SendOptions parse(const std::string& line) {
  CLI::App tool;
  SendOptions options;
  declareSend(tool, options);
  tool.parse("send " + line);
  return options;
}

}  // namespace

TEST(SendOptionsParsing, HasDefaults) {
  const SendOptions options = parse("--queue q");
  EXPECT_EQ(options.queue, "q");
  EXPECT_EQ(options.name, "");
  EXPECT_EQ(options.timeout, 60u);
  EXPECT_EQ(options.segmentSize, 1048576u);
  EXPECT_EQ(options.receiptTimeout, 60u);
  EXPECT_EQ(options.keepAlive, std::chrono::seconds(10));
  EXPECT_FALSE(options.noReceipt || options.quiet || options.json);
  EXPECT_THAT(options.files, IsEmpty());
}

TEST(SendOptionsParsing, ReadsEveryOption) {
  const SendOptions options = parse(
      "--queue q --name n --timeout 86400 --segment-size 1 --receipt-timeout 1 --quiet --json");
  EXPECT_EQ(options.name, "n");
  EXPECT_EQ(options.timeout, 86400u);
  EXPECT_EQ(options.segmentSize, 1u);
  EXPECT_EQ(options.receiptTimeout, 1u);
  EXPECT_TRUE(options.quiet && options.json);
  EXPECT_TRUE(parse("--queue q --no-receipt").noReceipt);
}

TEST(SendOptionsParsing, SuffixesArePowersOf1024) {
  EXPECT_EQ(parse("--queue q --segment-size 128K").segmentSize, 131072u);
  EXPECT_EQ(parse("--queue q --segment-size 2m").segmentSize, 2097152u);
  EXPECT_EQ(parse("--queue q --segment-size 3KB").segmentSize, 3072u);
  EXPECT_EQ(parse("--queue q --segment-size 1GiB").segmentSize, 1073741824u);
  EXPECT_EQ(parse("--queue q --segment-size 010").segmentSize, 10u);
  EXPECT_EQ(parse("--queue q --timeout 010").timeout, 10u);
  EXPECT_EQ(parse("--queue q --segment-size 1T").segmentSize, 1099511627776u);
}

TEST(SendOptionsParsing, KeepsTheOrderOfFilesAndTheDash) {
  EXPECT_THAT(parse("--queue q b - a").files, ElementsAre("b", "-", "a"));
}

TEST(SendOptionsParsing, EverythingAfterTwoDashesIsAFile) {
  EXPECT_THAT(parse("--queue q -- --json -x").files, ElementsAre("--json", "-x"));
}

TEST_F(CommandLine, AsksForASubcommand) {
  EXPECT_EQ(run({}), 2);
  EXPECT_THAT(errors.str(), HasSubstr("A subcommand is required"));
}

TEST_F(CommandLine, RefusesAnUnknownSubcommand) {
  EXPECT_EQ(run({"fetch"}), 2);
  EXPECT_THAT(errors.str(), HasSubstr("fetch"));
}

TEST_F(CommandLine, AsksForTheQueue) {
  EXPECT_EQ(run({"send"}), 2);
  EXPECT_THAT(errors.str(), HasSubstr("--queue is required"));
}

TEST_F(CommandLine, RefusesNamesThatNoQueueCanHave) {
  for (const char* name : {"", "/", "a/b", "../a", ".", ".."}) {
    errors.str("");
    EXPECT_EQ(run({"send", "--queue", name}), 2) << name;
    EXPECT_THAT(errors.str(),
                HasSubstr("'" + std::string(name) + "' cannot be a queue's name: it "));
  }
  EXPECT_EQ(run({"send", "--queue", std::string(248, 'a').c_str()}), 2);
}

TEST_F(CommandLine, RefusesAnUnknownOption) {
  EXPECT_EQ(runSend({"--fast"}), 2);
  EXPECT_THAT(errors.str(), HasSubstr("--fast"));
}

TEST_F(CommandLine, RefusesTimeoutsOutOfRange) {
  for (const char* timeout : {"0", "86401", "4294967297"}) {
    errors.str("");
    EXPECT_EQ(runSend({"--timeout", timeout}), 2) << timeout;
    EXPECT_THAT(errors.str(),
                HasSubstr("--timeout: Value " + std::string(timeout) + " not in range 1 to 86400"));
  }
}

TEST_F(CommandLine, RefusesTimeoutsThatAreNoNumber) {
  for (const char* timeout : {"-1", "abc", "1.5", "0x10", ""}) {
    errors.str("");
    EXPECT_EQ(runSend({"--timeout", timeout}), 2) << timeout;
    EXPECT_THAT(errors.str(), HasSubstr("--timeout: found '" + std::string(timeout) +
                                        "', expected a whole number"));
  }
}

TEST_F(CommandLine, NamesUnexpectedWordsInTheirOrder) {
  EXPECT_EQ(run({"one", "two\n", "three"}), 2);
  EXPECT_THAT(errors.str(),
              HasSubstr("The following arguments were not expected: one two\\x0a three\n"));
}

TEST_F(CommandLine, RefusesReceiptTimeoutsOutOfRange) {
  EXPECT_EQ(runSend({"--receipt-timeout", "0"}), 2);
  EXPECT_THAT(errors.str(), HasSubstr("--receipt-timeout: Value 0 not in range 1 to 86400"));
}

TEST_F(CommandLine, RefusesSegmentSizesOutOfRange) {
  for (const char* size : {"0", "0K", "1025G", "2T", "16777215T", "18446744073709551615"}) {
    errors.str("");
    EXPECT_EQ(runSend({"--segment-size", size}), 2) << size;
    EXPECT_THAT(errors.str(), HasSubstr("not in range 1 to 1099511627776")) << size;
  }
}

TEST_F(CommandLine, RefusesWhatIsNoSize) {
  const auto expectRefusal = [this](const std::string& size, const std::string& expected) {
    errors.str("");
    EXPECT_EQ(runSend({"--segment-size", size.c_str()}), 2) << size;
    EXPECT_THAT(errors.str(),
                HasSubstr("--segment-size: found '" + size + "', expected " + expected + "\n"));
  };
  for (const char* size : {"-1", "1X", "1.5M", "", "16777216E", "1B", "1KK", "1KBi", "1 K"}) {
    expectRefusal(size, "a whole number of bytes, K, M, G or T may follow");
  }
  expectRefusal("18446744073709551616", "at most 18446744073709551615");
  expectRefusal("16777216T", "less");
}

TEST_F(CommandLine, RefusesAReceiptTimeoutWithoutAReceipt) {
  EXPECT_EQ(runSend({"--no-receipt", "--receipt-timeout", "5"}), 2);
}

TEST_F(CommandLine, HelpGoesToStandardOutput) {
  EXPECT_EQ(run({"send", "--help"}), 0);
  for (const char* part : {"--queue NAME", "--timeout SECONDS", "--segment-size BYTES",
                           "--receipt-timeout SECONDS", "--no-receipt", "--json", "FILE"}) {
    EXPECT_THAT(out.str(), HasSubstr(part));
  }
  EXPECT_EQ(errors.str(), "");
}

TEST_F(CommandLine, HelpSaysWhereToLookForAMissingBackup) {
  EXPECT_EQ(run({"--help"}), 0);
  for (const char* part :
       {"\n  korvex status ", "\n  korvex verify DIR ", "\n  journalctl -u korvexd "}) {
    EXPECT_THAT(out.str(), HasSubstr(part));
  }
}

TEST_F(CommandLine, TellsItsVersion) {
  EXPECT_EQ(run({"--version"}), 0);
  EXPECT_EQ(out.str(), "0.1.0\n");
}

TEST_F(CommandLine, PrintsACompletion) {
  EXPECT_EQ(run({"completion", "zsh"}), 0);
  EXPECT_THAT(out.str(), StartsWith("#compdef korvex\n"));
  EXPECT_EQ(run({"completion", "csh"}), 2);
  EXPECT_THAT(errors.str(), HasSubstr("found 'csh', expected bash, zsh or fish"));
  EXPECT_EQ(run({"completion"}), 2);
  EXPECT_THAT(errors.str(), HasSubstr("SHELL is required"));
}

TEST_F(CommandLine, RunsTheSubcommand) {
  EXPECT_EQ(runSend({"--quiet", "/dev/null"}), 1);
  EXPECT_THAT(errors.str(), HasSubstr("korvex: queue 'korvex-test-no-such-queue': "));
}

TEST_F(CommandLine, TakesWordsInBracketsAsTheyAre) {
  for (const char* name : {"[nothing]", "[]", "[a,b]", "[[a]]"}) {
    errors.str("");
    EXPECT_EQ(runSend({name}), 1);
    EXPECT_EQ(errors.str(),
              "korvex: cannot read '" + std::string(name) + "': No such file or directory\n");
  }
  errors.str("");
  EXPECT_EQ(runSend({"--timeout", "1", "--", "\x01[]"}), 1);
  EXPECT_EQ(errors.str(), "korvex: cannot read '\\x01[]': No such file or directory\n");
  errors.str("");
  EXPECT_EQ(run({"send", "--queue", "[no-such-queue]", "/dev/null"}), 1);
  EXPECT_THAT(errors.str(), HasSubstr("queue '[no-such-queue]': No such file or directory"));
}

TEST_F(CommandLine, ShowsUnknownWordsWithoutControlCharacters) {
  const std::pair<const char*, const char*> words[] = {{"[foo]", ": [foo]\n"},
                                                       {"\x01[foo]", ": \\x01[foo]\n"},
                                                       {"a[\x01", ": a[\\x01\n"},
                                                       {"\x1b[31m", ": \\x1b[31m\n"},
                                                       {"a\x01", ": a\\x01\n"},
                                                       {"a\x01"
                                                        "b",
                                                        ": a\\x01"
                                                        "b\n"}};
  for (const auto& [word, shown] : words) {
    errors.str("");
    EXPECT_EQ(run({word}), 2);
    EXPECT_THAT(errors.str(), HasSubstr(shown));
    EXPECT_THAT(errors.str(), EndsWith("Run with --help for more information.\n"));
  }
  errors.str("");
  EXPECT_EQ(runSend({"--timeout", "\x1b[31m"}), 2);
  EXPECT_THAT(errors.str(), HasSubstr("\\x1b[31m"));
}

TEST_F(CommandLine, FailsWhenItsOutputCannotBeWritten) {
  out.setstate(std::ios::badbit);
  EXPECT_EQ(run({"--help"}), 1);
  EXPECT_THAT(errors.str(), StartsWith("korvex: cannot write the result to standard output"));
}

TEST_F(CommandLine, KeepsItsExitCodeWhenItsOutputFailsToo) {
  out.setstate(std::ios::badbit);
  EXPECT_EQ(runSend({"--fast"}), 2);
  EXPECT_THAT(errors.str(), HasSubstr("--fast"));
}
