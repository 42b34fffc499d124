#include <cstdio>
#include <gtest/gtest.h>
#include <time.h>
#include <unistd.h>

#include "korvexd/metrics/MetricsFile.h"
#include "support/TemporaryFolder.h"

using korvexd::MetricsFile;

namespace {

time_t now = 1000000000;

}  // namespace

/// In place of the system's function.
extern "C" time_t time(time_t* result) noexcept {
  if (result != nullptr) *result = now;
  return now;
}

// The file's age tells whether there is a daemon, even if nothing happens.
TEST(MetricsFileAge, NeverExceedsItsLimitWhateverTheClockDoes) {
  const korvex::test::TemporaryFolder folder;
  const std::string path = folder / "night.prom";
  MetricsFile file(path, 0, [](const std::string&) { return korvexd::EngineFailureCounts(); });
  const auto isWrittenAfter = [&](time_t seconds) {
    std::remove(path.c_str());
    now += seconds;
    file.update({}, {});
    return ::access(path.c_str(), F_OK) == 0;
  };
  EXPECT_TRUE(isWrittenAfter(0)) << "there is none yet";
  EXPECT_FALSE(isWrittenAfter(MetricsFile::kLongestAge - 1));
  EXPECT_TRUE(isWrittenAfter(1));
  EXPECT_TRUE(isWrittenAfter(-1)) << "the clock was set back";
}
