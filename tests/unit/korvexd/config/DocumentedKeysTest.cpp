// The page about the configuration and the code name the same keys, with the same defaults.

#include <gmock/gmock.h>
#include <regex>
#include <sstream>

#include "korvexd/Options.h"
#include "korvexd/config/Keys.h"
#include "support/TemporaryFolder.h"

using testing::ContainerEq;
using testing::IsEmpty;

namespace {

/// Keys with their defaults, as TOML has them; empty for none.
using Defaults = std::map<std::string, std::string>;

std::string page() { return korvex::test::contentsOf(KORVEX_DOCS "/configuration.md"); }

/// The rows `key` | type | default | of the page's tables below a heading.
Defaults documentedIn(const std::string& heading) {
  const std::string text = page();
  const std::size_t start = text.find("\n## " + heading + "\n");
  std::istringstream lines(text.substr(start + 1, text.find("\n## ", start + 1) - start));
  const std::regex row(R"(\| `([^`]+)` \|[^|]+\| (?:`([^|]+)`)? ?\|.*)");
  Defaults found;
  std::smatch match;
  for (std::string line; std::getline(lines, line);) {
    if (std::regex_match(line, match, row)) found[match[1]] = match[2];
  }
  return found;
}

template <typename Target>
Defaults defaultsOf(const std::vector<korvexd::Key<Target>>& keys) {
  Defaults found;
  for (const auto& key : keys) found[key.name] = key.standard ? korvexd::tomlOf(*key.standard) : "";
  return found;
}

template <typename Target>
void expectOptions(const std::vector<korvexd::Key<Target>>& keys, std::set<std::string>& options) {
  for (const auto& key : keys) {
    EXPECT_EQ(options.erase(std::string("--") + key.name), 1u) << key.name;
  }
}

}  // namespace

TEST(ConfigurationPage, HasTheKeysOfAQueueAndTheirDefaults) {
  EXPECT_THAT(documentedIn("Keys of a queue"), ContainerEq(defaultsOf(korvexd::queueKeys())));
}

TEST(ConfigurationPage, HasTheKeysOfTheDaemonAndTheirDefaults) {
  EXPECT_THAT(documentedIn("Keys of the daemon"), ContainerEq(defaultsOf(korvexd::daemonKeys())));
}

TEST(ConfigurationPage, QuotesTheExampleThatIsInstalled) {
  const std::string example = korvex::test::contentsOf(KORVEX_DOCS "/../packaging/korvexd.toml");
  ASSERT_FALSE(example.empty());
  EXPECT_NE(page().find("```toml\n" + example + "```"), std::string::npos);
}

// A key that no option has, or an option that the file cannot give, would be a surprise.
TEST(ConfigurationKeys, AreTheOptionsOfTheCommandLine) {
  std::ostringstream help;
  const char* const words[] = {"korvexd", "--help"};
  korvexd::parseOptions(2, words, help, help);
  const std::string text = help.str();
  std::set<std::string> options;
  const std::regex option("(^|\n| |,)(--[a-z-]+)");
  for (std::sregex_iterator at(text.begin(), text.end(), option), end; at != end; ++at) {
    options.insert((*at)[2]);
  }
  expectOptions(korvexd::queueKeys(), options);
  expectOptions(korvexd::daemonKeys(), options);
  for (const char* name : {"--help", "--version", "--queue", "--config", "--check-config",
                           "--print-config", "--completion"}) {
    options.erase(name);
  }
  EXPECT_THAT(options, IsEmpty());
}
