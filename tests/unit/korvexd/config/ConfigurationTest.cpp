#include <gmock/gmock.h>
#include <grp.h>
#include <sstream>

#include "korvexd/config/Configuration.h"

using korvexd::CommandLine;
using korvexd::Configuration;
using korvexd::Origin;
using korvexd::QueueSettings;
using korvexd::Value;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

class ConfigurationTest : public testing::Test {
 protected:
  Configuration read(const std::string& text) {
    commandLine_.configFile = "file";
    return {commandLine_, korvexd::parseConfigFile(text)};
  }

  /// The first queue.
  QueueSettings queueIn(const std::string& text) {
    const Configuration configuration = read(text);
    EXPECT_THAT(textsOf(configuration), IsEmpty());
    return configuration.settings().queues.at(0);
  }

  void give(const std::string& key, const Value& value) {
    commandLine_.queue[key] = {value, {Origin::Kind::CommandLine}};
  }

  static std::vector<std::string> textsOf(const Configuration& configuration) {
    std::vector<std::string> texts;
    for (const auto& mistake : configuration.mistakes()) {
      texts.push_back(configuration.textOf(mistake));
    }
    return texts;
  }

  static std::string printed(const Configuration& configuration) {
    std::ostringstream text;
    configuration.print(text);
    return text.str();
  }

  CommandLine commandLine_;
};

}  // namespace

TEST_F(ConfigurationTest, TakesEveryKey) {
  const QueueSettings queue = queueIn(
      "[queue.'/a']\nexec = ['x', 'y z']\nexec-timeout = 5\nidle-timeout = 6\n"
      "max-messages = 7\nmax-message-size = '64K'\nmode = '0640'\ngroup = 12\n"
      "replace = true\ncapture = 'c'\ndigest = 'xxh128'\n");
  EXPECT_EQ(queue.receiver.queue, "a");
  EXPECT_THAT(queue.engine, ElementsAre("x", "y z"));
  EXPECT_EQ(queue.engineTimeout.count(), 5);
  EXPECT_EQ(queue.receiver.idleTimeout->count(), 6);
  EXPECT_EQ(queue.receiver.limits.messages, 7u);
  EXPECT_EQ(queue.receiver.limits.messageSize, 65536u);
  EXPECT_EQ(queue.receiver.mode, 0640u);
  EXPECT_EQ(queue.receiver.group, gid_t{12});
  EXPECT_EQ(queue.receiver.existing, korvex::receiver::Receiver::Existing::Replace);
  EXPECT_EQ(queue.capture, "c");
  EXPECT_EQ(queue.digest, korvexd::ExtraDigest::None);
}

// Where it tells none, a configuration that is read again changes nothing.
TEST_F(ConfigurationTest, TellsEveryDifference) {
  const std::string table = "[queue.a]\n";
  const auto expectChange = [&](const std::string& before, const std::string& after) {
    EXPECT_FALSE(queueIn(table + before) == queueIn(table + after)) << after;
    EXPECT_TRUE(queueIn(table + after) == queueIn(table + after)) << after;
  };
  const std::string engine = "exec = ['x']\n";
  for (const char* line :
       {"exec-timeout = 5", "idle-timeout = 6", "max-messages = 7", "max-message-size = '64K'",
        "mode = '0640'", "group = 12", "capture = 'c'"}) {
    expectChange(engine, engine + line);
  }
  expectChange(engine, "exec = ['x', 'y']");
  expectChange(engine, "discard = true");
  expectChange("output = 'o'", "output = 'p'");
  expectChange("output = 'o'", "output = 'o'\ndigest = 'xxh128'");
}

TEST_F(ConfigurationTest, TakesTheFirstAndTheLastOfEachRange) {
  const std::string table = "[queue.a]\nexec = ['x']\n";
  const QueueSettings least = queueIn(table +
                                      "exec-timeout = 1\nidle-timeout = 1\nmax-messages = 1\n"
                                      "max-message-size = 57\nmode = '0600'\ngroup = 0\n");
  EXPECT_EQ(least.engineTimeout.count(), 1);
  EXPECT_EQ(least.receiver.idleTimeout->count(), 1);
  EXPECT_EQ(least.receiver.limits.messages, 1u);
  EXPECT_EQ(least.receiver.limits.messageSize, 57u);
  EXPECT_EQ(least.receiver.group, gid_t{0});
  const QueueSettings most =
      queueIn(table +
              "exec-timeout = 604800\nidle-timeout = 604800\nmax-messages = 65536\n"
              "max-message-size = 1073741824\nmode = '0777'\ngroup = 4294967294\n[daemon]\n"
              "drain-timeout = 604800\n");
  EXPECT_EQ(most.engineTimeout.count(), 604800);
  EXPECT_EQ(most.receiver.idleTimeout->count(), 604800);
  EXPECT_EQ(most.receiver.limits.messages, 65536u);
  EXPECT_EQ(most.receiver.limits.messageSize, 1073741824u);
  EXPECT_EQ(most.receiver.mode, 0777u);
  EXPECT_EQ(most.receiver.group, gid_t{4294967294u});
}

TEST_F(ConfigurationTest, TakesTheDaemonsKeys) {
  const auto settings =
      read("[daemon]\nstats = 's'\ndrain-timeout = 9\n[queue.a]\ndiscard = true").settings();
  EXPECT_EQ(settings.daemon.statsFile, "s");
  EXPECT_EQ(settings.daemon.drainTimeout.count(), 9);
}

TEST_F(ConfigurationTest, OverrulesTheDaemonsTableByTheCommandLine) {
  commandLine_.daemon["drain-timeout"] = {Value(std::int64_t{7}), {Origin::Kind::CommandLine}};
  const auto daemon =
      read("[daemon]\nstats = 's'\ndrain-timeout = 9\n[queue.a]\ndiscard = true").settings().daemon;
  EXPECT_EQ(daemon.drainTimeout.count(), 7);
  EXPECT_EQ(daemon.statsFile, "s");
}

TEST_F(ConfigurationTest, NamesGroupsByNameOrNumber) {
  const std::string table = "[queue.a]\ndiscard = true\ngroup = ";
  ASSERT_NE(::getgrnam("daemon"), nullptr);
  EXPECT_EQ(queueIn(table + "'daemon'").receiver.group, ::getgrnam("daemon")->gr_gid);
  EXPECT_EQ(queueIn(table + "'54321'").receiver.group, gid_t{54321});
}

TEST_F(ConfigurationTest, OverrulesDefaultsByTablesByTheCommandLine) {
  const std::string text =
      "[defaults]\nmax-messages = 2\nmode = '0640'\nidle-timeout = 3\n"
      "[queue.a]\ndiscard = true\nmax-messages = 4\nmode = '0660'\n";
  give("mode", std::string("0600"));
  const QueueSettings queue = queueIn(text);
  EXPECT_EQ(queue.receiver.idleTimeout->count(), 3);
  EXPECT_EQ(queue.receiver.limits.messages, 4u);
  EXPECT_EQ(queue.receiver.mode, 0600u);
}

TEST_F(ConfigurationTest, TakesTheSinkAsOneChoice) {
  const std::string defaults = "[defaults]\noutput = 'o'\n";
  EXPECT_EQ(queueIn(defaults + "[queue.a]\n").output, "o");
  const QueueSettings discarded = queueIn(defaults + "[queue.a]\ndiscard = true\n");
  EXPECT_FALSE(discarded.output);
  give("exec", std::vector<std::string>{"x"});
  const QueueSettings executed = queueIn(defaults + "[queue.a]\ndiscard = true\n");
  EXPECT_FALSE(executed.output);
  EXPECT_THAT(executed.engine, ElementsAre("x"));
}

TEST_F(ConfigurationTest, ServesQueuesOfTheCommandLineBesideTheOthers) {
  commandLine_.queues = {"b", "a"};
  const auto queues =
      read("[defaults]\ndiscard = true\n[queue.a]\nmax-messages = 2\n").settings().queues;
  ASSERT_EQ(queues.size(), 2u);
  EXPECT_EQ(queues[0].receiver.queue, "a");
  EXPECT_EQ(queues[0].receiver.limits.messages, 2u);
  EXPECT_EQ(queues[1].receiver.queue, "b");
}

TEST_F(ConfigurationTest, RefusesClashingNames) {
  EXPECT_THAT(textsOf(read("[defaults]\ndiscard = true\n[queue.aResponse]\n[queue.a]\n"
                           "[queue.'/a']\n")),
              ElementsAre("file:4:8: two of the queues would use the name 'aResponse'; "
                          "the other is aResponse, file:3",
                          HasSubstr("file:5:8: two of the queues would use the name 'a'")));
  commandLine_.queues = {"aResponse"};
  EXPECT_THAT(textsOf(read("[defaults]\ndiscard = true\n[queue.a]\n")),
              ElementsAre("command line: two of the queues would use the name 'aResponse'; "
                          "the other is a, file:3"));
}

TEST_F(ConfigurationTest, ReportsAMissingFolderOfTheDefaultsOnce) {
  Configuration configuration = read("[defaults]\noutput = '/none'\n[queue.a]\n[queue.b]\n");
  configuration.checkSystem([](const QueueSettings&) { return false; });
  EXPECT_THAT(textsOf(configuration), ElementsAre(HasSubstr("file:2:10: output: found \"/none\"")));
}

TEST_F(ConfigurationTest, ReportsWhatIsMissingInTheFilesOrder) {
  Configuration configuration = read(
      "[queue.a]\ncapture = '/none/c'\noutput = '/none/o'\n"
      "[queue.b]\noutput = '/none/o'\n[queue.c]\nexec = ['/none/e']\n");
  configuration.checkSystem([](const QueueSettings&) { return false; });
  EXPECT_THAT(textsOf(configuration),
              ElementsAre(HasSubstr("file:2:11: capture: found \"/none/c\", expected a folder: "),
                          HasSubstr("file:3:10: output: found \"/none/o\""),
                          HasSubstr("file:5:10: output: found \"/none/o\""),
                          HasSubstr("file:7:8: exec: found [\"/none/e\"]")));
  for (const auto& mistake : configuration.mistakes()) {
    EXPECT_EQ(mistake.remedy, korvexd::Mistake::Remedy::System) << mistake.text;
  }
}

TEST_F(ConfigurationTest, ChecksTheSystemForNewQueuesOnly) {
  Configuration configuration = read("[defaults]\noutput = '/none'\n[queue.a]\n");
  configuration.checkSystem([](const QueueSettings& queue) { return queue.output == "/none"; });
  EXPECT_THAT(textsOf(configuration), IsEmpty());
}

TEST_F(ConfigurationTest, RefusesAFileWithoutQueues) {
  EXPECT_THAT(textsOf(read("[defaults]\ndiscard = true\n")),
              ElementsAre("file:1:1: found no queue, expected a table [queue.NAME]"));
}

TEST_F(ConfigurationTest, SaysNothingElseOfAQueueThatCannotBe) {
  EXPECT_THAT(textsOf(read("[queue.'x/y']\n")),
              ElementsAre(HasSubstr("file:1:8: \"x/y\" cannot be a queue's name")));
  EXPECT_THAT(textsOf(read("[queue]\na = 1\n")),
              ElementsAre("file:2:5: a: found 1, expected a table"));
}

TEST_F(ConfigurationTest, RefusesAQueueWithoutSink) {
  EXPECT_THAT(textsOf(read("[queue.a]\n")),
              ElementsAre("file:1:8: queue a: found no output, exec or discard, expected one, here "
                          "or in [defaults]"));
}

TEST_F(ConfigurationTest, RefusesLongNamesOnlyWhereFilesAreNeeded) {
  const std::string table = "[queue." + std::string(201, 'a') + "]\n";
  EXPECT_THAT(textsOf(read(table + "discard = true\n")), IsEmpty());
  EXPECT_THAT(textsOf(read(table + "output = 'x'\n")),
              ElementsAre(HasSubstr("a file name of 201 characters, expected at most 200")));
  EXPECT_THAT(textsOf(read("[queue." + std::string(200, 'a') + "]\noutput = 'x'\n")), IsEmpty());
}

TEST_F(ConfigurationTest, RefusesALongNameForFilesOfTwoKinds) {
  const std::string table = "[queue." + std::string(201, 'a') + "]\ncapture = 'c'\n";
  for (const char* sink : {"output = 'x'\n", "exec = ['x']\n", "discard = true\n"}) {
    EXPECT_THAT(textsOf(read(table + sink)), ElementsAre(HasSubstr("of 201 characters"))) << sink;
  }
}

TEST_F(ConfigurationTest, ListsMistakesInTheOrderOfTheFile) {
  EXPECT_THAT(textsOf(read("[queue.a]\n[queue.b]\nmode = 1\n[queue.c]\ndiscard = 1\n")),
              ElementsAre(HasSubstr("file:1:8: queue a: found no output"),
                          HasSubstr("file:2:8: queue b: found no output"),
                          HasSubstr("file:3:8: mode"), HasSubstr("file:5:11: discard")));
}

TEST_F(ConfigurationTest, MakesMistakesHarmlessForATerminal) {
  EXPECT_THAT(textsOf(read("\"\\u001b[2J\" = 1\n")), ElementsAre(HasSubstr("found '\\x1b[2J'")));
}

TEST_F(ConfigurationTest, PrintsWhereEachValueComesFrom) {
  give("max-messages", std::int64_t{3});
  EXPECT_EQ(printed(read("[queue.a]\noutput = 'o'\n")),
            "[daemon]\n# stats: not set\n# metrics: not set\nlog-format = \"text\"  # default\n"
            "drain-timeout = 0  # default\n\n"
            "[queue.a]  # file:1\n"
            "output = \"o\"  # file:2\n"
            "# exec: not set\n# discard: not set\n"
            "digest = \"sha256\"  # default\n"
            "exec-timeout = 3600  # default\n"
            "# idle-timeout: not set\n"
            "max-messages = 3  # command line\n"
            "max-message-size = 270336  # default\n"
            "mode = \"0600\"  # default\n"
            "# group: not set\n"
            "replace = false  # default\n"
            "# capture: not set\n");
}

TEST_F(ConfigurationTest, PrintsStrangeTextsThatCanBeReadAgain) {
  const Configuration first =
      read("[queue.\"a b\\n\\\"'ä%\"]\nexec = [\"x\\\\\", \"\\t\\u007f#\", '']\n");
  ASSERT_THAT(textsOf(first), IsEmpty());
  const Configuration again = read(printed(first));
  ASSERT_THAT(textsOf(again), IsEmpty()) << printed(first);
  EXPECT_TRUE(again.settings().queues == first.settings().queues);
}
