#include <gmock/gmock.h>
#include <sstream>

#include "korvexd/Options.h"

using korvex::receiver::Receiver;
using korvexd::Options;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

class OptionsTest : public testing::Test {
 protected:
  /// Parses a command line of words separated by one blank.
  int parse(const std::string& line) {
    std::istringstream words(line);
    std::vector<std::string> arguments = {"korvexd"};
    for (std::string word; words >> word;) arguments.push_back(word);
    return parseWords(arguments);
  }

  int parseWords(const std::vector<std::string>& arguments) {
    std::vector<const char*> argv;
    for (const std::string& argument : arguments) argv.push_back(argument.c_str());
    const auto parsed =
        korvexd::parseOptions(static_cast<int>(argv.size()), argv.data(), out_, err_);
    options_ = parsed.options;
    if (options_) settings_ = korvexd::Configuration(options_->commandLine, {}).settings();
    return parsed.exitCode;
  }

  /// The first one.
  const korvexd::QueueSettings& queue() const { return settings_.queues.front(); }

  std::vector<std::string> names() const {
    std::vector<std::string> names;
    for (const auto& queue : settings_.queues) names.push_back(queue.receiver.queue);
    return names;
  }

  void expectWrong(const std::string& line, const std::string& text) {
    err_.str("");
    EXPECT_EQ(parse(line), 2) << line;
    EXPECT_FALSE(options_.has_value()) << line;
    EXPECT_THAT(err_.str(), HasSubstr(text)) << line;
  }

  std::ostringstream out_;
  std::ostringstream err_;
  std::optional<Options> options_;
  korvexd::Settings settings_;
};

}  // namespace

TEST_F(OptionsTest, DefaultsAreAPairForItsOwnerAlone) {
  ASSERT_EQ(parse("--queue a --discard"), 0);
  EXPECT_THAT(names(), ElementsAre("a"));
  EXPECT_EQ(queue().receiver.existing, Receiver::Existing::Refuse);
  EXPECT_EQ(queue().receiver.mode, 0600u);
  EXPECT_EQ(queue().receiver.limits.messages, 8u);
  EXPECT_EQ(queue().receiver.limits.messageSize, 270336u);
  EXPECT_EQ(queue().digest, korvexd::ExtraDigest::Sha256);
  EXPECT_FALSE(queue().output || queue().capture || settings_.daemon.statsFile);
}

TEST_F(OptionsTest, TakesEverything) {
  ASSERT_EQ(parse("--queue a --queue /b --replace --mode 0660 --group 12345 --max-messages 3 "
                  "--max-message-size 64K --output out --digest xxh128 --capture cap --stats file"),
            0);
  EXPECT_THAT(names(), ElementsAre("a", "b"));
  EXPECT_EQ(queue().receiver.existing, Receiver::Existing::Replace);
  EXPECT_EQ(queue().receiver.mode, 0660u);
  EXPECT_EQ(queue().receiver.group, gid_t{12345});
  EXPECT_EQ(queue().receiver.limits.messages, 3u);
  EXPECT_EQ(queue().receiver.limits.messageSize, 65536u);
  EXPECT_EQ(*queue().output, "out");
  EXPECT_EQ(queue().digest, korvexd::ExtraDigest::None);
  EXPECT_EQ(*queue().capture, "cap");
  EXPECT_EQ(*settings_.daemon.statsFile, "file");
}

TEST_F(OptionsTest, TakesAnEngineAsTheWordsOfItsCommand) {
  ASSERT_EQ(parseWords({"korvexd", "--queue", "a", "--exec", "restic --tag 'a b'"}), 0);
  EXPECT_THAT(queue().engine, ElementsAre("restic", "--tag", "a b"));
  EXPECT_EQ(queue().engineTimeout.count(), 3600);
  EXPECT_FALSE(queue().receiver.idleTimeout || queue().output);
  ASSERT_EQ(parse("--queue a --exec x --exec-timeout 5 --idle-timeout 6"), 0);
  EXPECT_EQ(queue().engineTimeout.count(), 5);
  EXPECT_EQ(queue().receiver.idleTimeout->count(), 6);
}

TEST_F(OptionsTest, RefusesACommandThatIsNone) {
  expectWrong("--queue a --exec 'x", "found ''x': the quote ' at character 1 is never closed");
  EXPECT_EQ(parseWords({"korvexd", "--queue", "a", "--exec", ""}), 2);
  EXPECT_THAT(err_.str(), HasSubstr("found '': found no word, expected a command"));
}

TEST_F(OptionsTest, RefusesTimesOutsideTheirRange) {
  for (const char* time : {"0", "-1", "604801", "x", "0x10"}) {
    expectWrong(std::string("--queue a --exec x --exec-timeout ") + time, "--exec-timeout");
    expectWrong(std::string("--queue a --discard --idle-timeout ") + time, "--idle-timeout");
  }
}

TEST_F(OptionsTest, NumbersAreDecimalWhateverTheyBeginWith) {
  ASSERT_EQ(parse("--queue a --exec x --exec-timeout 010 --idle-timeout 011 --drain-timeout 012 "
                  "--max-messages 013"),
            0);
  EXPECT_EQ(queue().engineTimeout.count(), 10);
  EXPECT_EQ(queue().receiver.idleTimeout->count(), 11);
  EXPECT_EQ(settings_.daemon.drainTimeout.count(), 12);
  EXPECT_EQ(queue().receiver.limits.messages, 13u);
}

TEST_F(OptionsTest, TakesTheFirstAndTheLastOfEachRange) {
  ASSERT_EQ(parse("--queue a --exec x --exec-timeout 1 --idle-timeout 1 --drain-timeout 0 "
                  "--max-messages 1 --max-message-size 57"),
            0);
  EXPECT_EQ(queue().engineTimeout.count(), 1);
  EXPECT_EQ(queue().receiver.idleTimeout->count(), 1);
  EXPECT_EQ(queue().receiver.limits.messages, 1u);
  EXPECT_EQ(queue().receiver.limits.messageSize, 57u);
  ASSERT_EQ(parse("--queue a --exec x --exec-timeout 604800 --idle-timeout 604800 "
                  "--drain-timeout 604800 --max-messages 65536 --max-message-size 1G --mode 777"),
            0);
  EXPECT_EQ(queue().engineTimeout.count(), 604800);
  EXPECT_EQ(queue().receiver.idleTimeout->count(), 604800);
  EXPECT_EQ(settings_.daemon.drainTimeout.count(), 604800);
  EXPECT_EQ(queue().receiver.limits.messages, 65536u);
  EXPECT_EQ(queue().receiver.limits.messageSize, 1073741824u);
  EXPECT_EQ(queue().receiver.mode, 0777u);
  expectWrong("--queue a --discard --drain-timeout 604801", "--drain-timeout");
  expectWrong("--queue a --discard --max-message-size 56", "--max-message-size");
}

TEST_F(OptionsTest, KnowsWhatToDoWithItsFile) {
  using Task = Options::Task;
  const std::pair<std::string, Task> tasks[] = {{"", Task::Serve},
                                                {"--check-config", Task::CheckConfig},
                                                {"--print-config", Task::PrintConfig}};
  for (const auto& [word, task] : tasks) {
    ASSERT_EQ(parse("--config file " + word), 0) << word;
    EXPECT_EQ(options_->task, task) << word;
    EXPECT_EQ(options_->commandLine.configFile, "file");
  }
  expectWrong("--queue a --discard --check-config", "--config");
  expectWrong("--config file --check-config --print-config", "--check-config");
}

TEST_F(OptionsTest, SizesMayCarryAUnit) {
  ASSERT_EQ(parse("--queue a --discard --max-message-size 2M"), 0);
  EXPECT_EQ(queue().receiver.limits.messageSize, 2097152u);
  ASSERT_EQ(parse("--queue a --discard --max-message-size 100"), 0);
  EXPECT_EQ(queue().receiver.limits.messageSize, 100u);
}

TEST_F(OptionsTest, NumbersAreDecimal) {
  ASSERT_EQ(parse("--queue a --discard --max-message-size 0100 --max-messages 010"), 0);
  EXPECT_EQ(queue().receiver.limits.messageSize, 100u);
  EXPECT_EQ(queue().receiver.limits.messages, 10u);
  for (const char* size : {"1.5M", "0x100", "1KX", "M", "64k ", "+64", "99999999999999999999"}) {
    EXPECT_EQ(parseWords({"korvexd", "--queue", "a", "--discard", "--max-message-size", size}), 2);
    EXPECT_THAT(err_.str(), HasSubstr("found '" + std::string(size) + "', expected"));
  }
  expectWrong("--queue a --discard --max-message-size 99999999999T", "expected less");
}

TEST_F(OptionsTest, NamesUnexpectedWordsInOrderAndHarmless) {
  EXPECT_EQ(parseWords({"korvexd", "--queue", "a", "--discard", "one", "two\n\x1b"}), 2);
  EXPECT_THAT(err_.str(), HasSubstr("not expected: one two\\x0a\\x1b\n"));
}

TEST_F(OptionsTest, NeedsAQueue) { expectWrong("--discard", "--queue is required"); }

TEST_F(OptionsTest, NeedsExactlyOnePlaceForTheData) {
  expectWrong("--queue a", "--output,--exec,--discard");
  expectWrong("--queue a --discard --output x", "--output,--exec,--discard");
  expectWrong("--queue a --exec x --output x", "--output,--exec,--discard");
}

TEST_F(OptionsTest, RefusesWhatIsNoMode) {
  for (const char* mode : {"8", "0o600", "rw", "-600", "1777", "06000", "600x"}) {
    expectWrong(std::string("--queue a --discard --mode ") + mode, "--mode");
  }
}

TEST_F(OptionsTest, RefusesAModeThatLocksTheOwnerOut) {
  expectWrong("--queue a --discard --mode 066", "expected read and write permission for the owner");
  expectWrong("--queue a --discard --mode 400", "found '400'");
}

TEST_F(OptionsTest, RefusesLimitsOutsideTheirRange) {
  expectWrong("--queue a --discard --max-messages 0", "--max-messages");
  expectWrong("--queue a --discard --max-messages -1", "--max-messages");
  expectWrong("--queue a --discard --max-messages 65537", "--max-messages");
  expectWrong("--queue a --discard --max-message-size 55", "--max-message-size");
  expectWrong("--queue a --discard --max-message-size 2G", "--max-message-size");
  expectWrong("--queue a --discard --max-message-size big", "--max-message-size");
}

TEST_F(OptionsTest, RefusesNamesThatNoQueueCanHave) {
  expectWrong("--discard --queue a/b", "'a/b' cannot be a queue's name: it holds a slash");
  expectWrong("--discard --queue ..", "it is the name of a folder");
  expectWrong("--discard --queue " + std::string(248, 'a'), "256 characters");
}

TEST_F(OptionsTest, RefusesQueuesThatWouldShareAName) {
  expectWrong("--discard --queue a --queue a", "two of the queues would use the name 'a'");
  expectWrong("--discard --queue a --queue /a", "'a'");
  expectWrong("--discard --queue a --queue aResponse", "'aResponse'");
}

TEST_F(OptionsTest, RefusesLongNamesOnlyWhereFilesAreMade) {
  const std::string name(201, 'a');
  ASSERT_EQ(parse("--discard --queue " + name), 0);
  expectWrong("--exec x --queue " + name, "a file name of 201 characters");
  expectWrong("--output x --queue " + name, "a file name of 201 characters");
  expectWrong("--discard --capture x --queue " + name, "a file name of 201 characters");
}

TEST_F(OptionsTest, TakesTheMetricsFileAndTheLogFormat) {
  ASSERT_EQ(parse("--queue a --discard"), 0);
  EXPECT_FALSE(settings_.daemon.metricsFile);
  EXPECT_EQ(settings_.daemon.logStyle, korvexd::LogStyle::Text);
  ASSERT_EQ(parse("--queue a --discard --metrics file --log-format json"), 0);
  EXPECT_EQ(*settings_.daemon.metricsFile, "file");
  EXPECT_EQ(settings_.daemon.logStyle, korvexd::LogStyle::Json);
  expectWrong("--queue a --discard --log-format xml", "xml");
}

TEST_F(OptionsTest, RefusesEmptyPaths) {
  for (const char* option : {"--output", "--capture", "--stats", "--metrics"}) {
    EXPECT_EQ(parseWords({"korvexd", "--queue", "a", "--discard", option, ""}), 2) << option;
  }
  EXPECT_EQ(parseWords({"korvexd", "--queue", "a", "--output", ""}), 2);
}

TEST_F(OptionsTest, RefusesUnknownWords) {
  expectWrong("--queue a --discard --shout", "--shout");
  expectWrong("--queue a --discard extra", "extra");
}

TEST_F(OptionsTest, HelpAndVersionGoToTheOutputAndSucceed) {
  EXPECT_EQ(parse("--help"), 0);
  EXPECT_FALSE(options_.has_value());
  EXPECT_THAT(out_.str(), HasSubstr("--max-message-size"));
  out_.str("");
  EXPECT_EQ(parse("--version"), 0);
  EXPECT_EQ(out_.str(), "korvexd 0.1.0\n");
  EXPECT_EQ(err_.str(), "");
}
