#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <signal.h>
#include <sstream>
#include <stdexcept>

#include "property/Property.h"
#include "property/WriterLibrary.h"

namespace korvex::test {
namespace {

const Language& toyLanguage() {
  static const Language language{
      "toy", {{"go", {{"far", 5}, {"fast", 0}}, false}, {"say", {{"loud", 0}}, true}}};
  return language;
}

Script parsed(const std::string& text,
              const std::vector<const Language*>& languages = {&toyLanguage()}) {
  std::istringstream stream(text);
  return parseScript(stream, languages);
}

std::string refusalOf(const std::string& text) {
  try {
    parsed(text);
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
  return "";
}

template <typename Thing>
std::string textOf(const Thing& thing) {
  std::ostringstream stream;
  stream << thing;
  return stream.str();
}

TEST(Script, ReadsArgumentsCommentsAndTexts) {
  const Script script =
      parsed("# why\nlanguage toy\n\ngo fast=7\nsay loud=1 text=\"a \\x00\\x22\"\n");
  ASSERT_EQ(script.operations.size(), 2u);
  EXPECT_EQ(script.operations[0]["far"], 5u);
  EXPECT_EQ(script.operations[0]["fast"], 7u);
  EXPECT_EQ(script.operations[1]["loud"], 1u);
  EXPECT_EQ(script.operations[1].text, std::string("a \0\"", 4));
}

TEST(Script, PrintsOnlyWhatIsUnusual) {
  Script script{&toyLanguage(), {}};
  script.add("go").set("fast", 18446744073709551615u);
  script.add("say").say(std::string("\\ \n\xff"));
  EXPECT_EQ(textOf(script),
            "language toy\ngo fast=18446744073709551615\nsay text=\"\\x5c \\x0a\\xff\"\n");
}

TEST(Script, RefusesWhatItCannotMean) {
  EXPECT_EQ(refusalOf(""), "expected a script, found 'nothing'");
  EXPECT_EQ(refusalOf("go\n"), "line 1: expected 'language' and one that is known, found 'go'");
  EXPECT_EQ(refusalOf("language toy\nrun\n"),
            "line 2: expected a verb of the language 'toy', found 'run'");
  EXPECT_EQ(refusalOf("language toy\ngo slow=1\n"),
            "line 2: expected a parameter of go, found 'slow'");
  EXPECT_EQ(refusalOf("language toy\ngo far\n"), "line 2: expected name=value, found 'far'");
  EXPECT_EQ(refusalOf("language toy\ngo far=-1\n"),
            "line 2: expected an unsigned 64-bit number, found '-1'");
  EXPECT_EQ(refusalOf("language toy\nsay text=a\n"),
            "line 2: expected a text in double quotes, found 'a'");
}

TEST(Script, ShrinksTowardsUsualValues) {
  Script script{&toyLanguage(), {}};
  script.add("go").set("far", 9);
  std::vector<std::string> simpler;
  for (const Script& each : simplerScripts(script)) simpler.push_back(textOf(each));
  EXPECT_EQ(simpler,
            (std::vector<std::string>{"language toy\n", "language toy\ngo\n",
                                      "language toy\ngo far=7\n", "language toy\ngo far=8\n"}));
}

TEST(RunInChild, TellsHowTheChildEnded) {
  EXPECT_EQ(runInChild([] { return true; }), Ending::Good);
  EXPECT_EQ(runInChild([] { return false; }), Ending::Bad);
  EXPECT_EQ(runInChild([]() -> bool { std::_Exit(1); }), Ending::Crashed);
  EXPECT_EQ(runInChild([] { return ::raise(SIGKILL) == 0; }), Ending::Crashed);
}

class RandomScript : public testing::TestWithParam<MakeScript> {};

INSTANTIATE_TEST_SUITE_P(All, RandomScript, testing::Values(batchScript, writerScript),
                         [](const testing::TestParamInfo<MakeScript>& made) {
                           return made.param == batchScript ? "Batch" : "Writer";
                         });

TEST_P(RandomScript, IsReadBackAsItWasPrinted) {
  constexpr int kSize = 100;
  for (std::uint64_t seed = 0; seed < 200; ++seed) {
    const std::string text = textOf(GetParam()(rc::Random(seed), kSize));
    EXPECT_EQ(textOf(parsed(text, knownLanguages())), text) << "seed " << seed;
  }
}

// RC_PARAMS sets how many scripts are run and from which seed, as in
// RC_PARAMS="max_success=1000000 seed=7": a million scripts, the long form.
TEST_P(RandomScript, LibraryAndModelAgree) {
  EXPECT_TRUE(holds("the library does what its model does", GetParam()));
}

TEST(WriterModel, MeetsNoDeadlineAhead) {
  const unsigned before = WriterLibrary::clockReads();
  const Script script = parsed("language writer\nqueues\nconstruct\nopen\n", knownLanguages());
  EXPECT_EQ(replay(script), "");
  EXPECT_GT(WriterLibrary::clockReads(), before);
}

/// The scripts on which library and model once differed. A new one is a file beside them.
class KeptScript : public testing::TestWithParam<std::filesystem::path> {};

std::vector<std::filesystem::path> keptScripts() {
  const std::filesystem::directory_iterator files(KORVEX_PROPERTY_SCRIPTS);
  return {begin(files), end(files)};
}

INSTANTIATE_TEST_SUITE_P(All, KeptScript, testing::ValuesIn(keptScripts()), [](const auto& file) {
  std::string name = file.param.stem();
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
});

TEST_P(KeptScript, LibraryAndModelAgree) {
  std::ifstream file(GetParam());
  EXPECT_TRUE(agree(parseScript(file, knownLanguages())));
}

}  // namespace
}  // namespace korvex::test
