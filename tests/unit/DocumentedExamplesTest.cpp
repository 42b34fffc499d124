#include <algorithm>
#include <cstdio>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>

namespace {

/// A page of the documentation, the program that it quotes, and where that was built.
struct Example {
  const char* page;
  const char* source;
  const char* program;
};

void PrintTo(const Example& example, std::ostream* stream) { *stream << example.page; }

std::string contentOf(const std::string& path) {
  std::ifstream file(path);
  if (!file) throw std::runtime_error("cannot read " + path);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

/// The lines of the first fenced block of that language, without the fences.
std::string blockOf(const std::string& page, const std::string& language) {
  const std::string fence = "\n```" + language + "\n";
  const std::size_t start = page.find(fence);
  if (start == std::string::npos) throw std::runtime_error("the page has no block of " + language);
  const std::size_t first = start + fence.size();
  return page.substr(first, page.find("\n```", first) + 1 - first);
}

/// What the program writes, to standard output and standard error.
std::string outputOf(const std::string& program) {
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen((program + " 2>&1").c_str(), "r"), pclose);
  if (!pipe) throw std::runtime_error("cannot run " + program);
  std::string output;
  for (int c = std::fgetc(pipe.get()); c != EOF; c = std::fgetc(pipe.get())) {
    output += static_cast<char>(c);
  }
  return output;
}

class DocumentedExample : public testing::TestWithParam<Example> {};

}  // namespace

TEST_P(DocumentedExample, IsQuotedAsItIsCompiled) {
  EXPECT_EQ(blockOf(contentOf(GetParam().page), "cpp"), contentOf(GetParam().source));
}

TEST_P(DocumentedExample, WritesWhatThePageShows) {
  std::istringstream shown(blockOf(contentOf(GetParam().page), "text"));
  std::istringstream written(outputOf(GetParam().program));
  std::string expected;
  std::string line;
  while (std::getline(shown, expected)) {
    ASSERT_TRUE(std::getline(written, line)) << "missing: " << expected;
    // A log line has more in front of it than the page can know.
    const std::size_t inFront = line.size() - std::min(line.size(), expected.size());
    EXPECT_EQ(line.substr(inFront), expected);
  }
  EXPECT_FALSE(std::getline(written, line)) << "not on the page: " << line;
}

INSTANTIATE_TEST_SUITE_P(
    Services, DocumentedExample,
    testing::Values(Example{KORVEX_DOCS "/server-info.md", KORVEX_EXAMPLES "/ServerInfoExample.cpp",
                            KORVEX_SERVER_INFO_EXAMPLE},
                    Example{KORVEX_DOCS "/identifiers.md",
                            KORVEX_EXAMPLES "/IdentifiersExample.cpp", KORVEX_IDENTIFIERS_EXAMPLE},
                    Example{KORVEX_DOCS "/logger.md", KORVEX_EXAMPLES "/LoggerExample.cpp",
                            KORVEX_LOGGER_EXAMPLE}));

TEST(ReceiverPage, QuotesTheExampleAsItIsCompiled) {
  const std::string page = contentOf(KORVEX_DOCS "/receiver.md");
  EXPECT_EQ(blockOf(page, "cpp"), contentOf(KORVEX_DOCS "/../examples/daemon.cpp"));
}

TEST(Readme, QuotesTheExamplesAsTheyAreCompiled) {
  const std::string readme = contentOf(KORVEX_DOCS "/../README.md");
  for (const char* const name : {"producer.cpp", "reader.cpp"}) {
    const std::string source = contentOf(std::string(KORVEX_DOCS "/../examples/") + name);
    EXPECT_NE(readme.find("```cpp\n" + source + "```"), std::string::npos) << name;
  }
}
