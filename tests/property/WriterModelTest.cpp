// The writer against its model.
//
// RC_PARAMS sets how many scripts are run and from which seed, as in
// RC_PARAMS="max_success=1000000 seed=7": a million scripts, the long form.

#include <gtest/gtest.h>

#include <sstream>

#include "property/LateClock.h"
#include "property/Property.h"
#include "property/WriterLanguage.h"
#include "property/WriterScripts.h"

namespace property {
namespace {

Script scriptOf(const std::string& text) {
  std::istringstream stream(text);
  return parseScript(stream, {&writerLanguage()});
}

TEST(WriterModel, IsWhatTheLibraryDoes) {
  EXPECT_TRUE(holds("the writer does what its model does", writerScript));
}

TEST(WriterModel, MeetsNoDeadlineAhead) {
  const unsigned before = late_clock::reads();
  const Script script = scriptOf("language writer\nqueues\nconstruct\nopen\n");
  EXPECT_EQ(replay(script), "");
  EXPECT_GT(late_clock::reads(), before);
}

}  // namespace
}  // namespace property
