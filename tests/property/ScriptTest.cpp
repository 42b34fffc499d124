#include "property/Script.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <sstream>
#include <stdexcept>

#include "property/BatchScripts.h"
#include "property/Isolated.h"
#include "property/Property.h"
#include "property/WriterScripts.h"

namespace property {
namespace {

const Language& toyLanguage() {
  static const Language language{
      "toy", {{"go", {{"far", 5}, {"fast", 0}}, false}, {"say", {{"loud", 0}}, true}}};
  return language;
}

Script parsed(const std::string& text) {
  std::istringstream stream(text);
  return parseScript(stream, {&toyLanguage()});
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

TEST(Script, ShrinksAsLongAsItFails) {
  const Script script = parsed("language toy\ngo\nsay loud=9 text=\"abcd\"\ngo far=2\n");
  const auto fails = [](const Script& tried) {
    return textOf(tried).find("say") != std::string::npos && !tried.operations.empty() &&
           textOf(tried.operations.back()).compare(0, 6, "go far") == 0 &&
           tried.operations.back()["far"] < 4;
  };
  EXPECT_EQ(textOf(smallest(script, fails)), "language toy\nsay\ngo far=3\n");
}

TEST(Isolated, TellsHowTheChildEnded) {
  EXPECT_EQ(runInChild([] { return true; }), Ending::Good);
  EXPECT_EQ(runInChild([] { return false; }), Ending::Bad);
  EXPECT_EQ(runInChild([]() -> bool { std::_Exit(1); }), Ending::Crashed);
  EXPECT_EQ(runInChild([] { return ::raise(SIGKILL) == 0; }), Ending::Crashed);
}

TEST(Isolated, KnowsWhichScriptTheChildRan) {
  const Script script = parsed("language toy\ngo far=8\n");
  runInChild([&script]() -> bool {
    noteScript(script);
    std::_Exit(1);
  });
  EXPECT_EQ(notedScript(), "language toy\ngo far=8\n");
}

template <typename MakeScript>
void expectThatPrintedScriptsReplay(MakeScript makeScript) {
  constexpr int kSize = 100;
  for (std::uint64_t seed = 0; seed < 200; ++seed) {
    Dice dice{rc::Random(seed)};
    const std::string text = textOf(makeScript(dice, kSize));
    std::istringstream stream(text);
    EXPECT_EQ(textOf(parseScript(stream, knownLanguages())), text) << "seed " << seed;
  }
}

TEST(Script, IsReadBackAsItWasPrinted) {
  expectThatPrintedScriptsReplay(writerScript);
  expectThatPrintedScriptsReplay(batchScript);
}

}  // namespace
}  // namespace property
