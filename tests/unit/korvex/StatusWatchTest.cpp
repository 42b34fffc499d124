// What is drawn depends on the terminal behind standard output.

#include <algorithm>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sstream>
#include <sys/ioctl.h>
#include <unistd.h>

#include "status/Status.h"
#include "support/RestoredDescriptor.h"
#include "support/Terminal.h"

namespace {

using korvex::test::RestoredDescriptor;
using korvex::tool::Ending;
using korvex::tool::runStatus;
using korvex::tool::StatusOptions;
using korvex::tool::StopSignal;
using testing::StartsWith;

const std::string kClear = "\x1b[H\x1b[J";

/// A file in the place of standard output.
class StandardOutput {
 public:
  explicit StandardOutput(const std::string& path)
      : file_(::open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC)), output_(STDOUT_FILENO, file_) {
    ::close(file_);
  }

  void resize(unsigned short rows, unsigned short columns) const {
    const winsize size = {rows, columns, 0, 0};
    EXPECT_EQ(::ioctl(STDOUT_FILENO, TIOCSWINSZ, &size), 0);
  }

 private:
  int file_;
  RestoredDescriptor output_;
};

/// One look at a queue that does not exist. There are 32 lines to draw: a title and errors.
class StatusWatch : public testing::Test {
 protected:
  StatusWatch() {
    options_.queue = "korvex-test-no-such-queue";
    options_.stats = std::vector<std::string>(30, "/no/such/file");
    options_.watch = true;
    stop_.note(SIGTERM);  // so that it is the last
  }

  std::string watch() {
    out_.str("");
    const Ending ending = runStatus(options_, stop_, out_, errors_);
    EXPECT_EQ(ending.exitCode, 128 + SIGTERM);
    EXPECT_EQ(ending.signal, SIGTERM);
    return out_.str();
  }

  StatusOptions options_;
  StopSignal stop_;
  std::ostringstream out_;
  std::ostringstream errors_;
};

}  // namespace

TEST_F(StatusWatch, DrawsAsManyLinesAsFit) {
  struct Row {
    unsigned short rows;
    unsigned short columns;
    long lines;
  };
  const korvex::test::Terminal terminal(80);
  const StandardOutput output(terminal.name());
  for (const Row& row : {Row{33, 80, 32}, Row{32, 80, 31}, Row{5, 80, 4}, Row{2, 80, 1},
                         Row{1, 80, 32}, Row{5, 1, 32}}) {
    output.resize(row.rows, row.columns);
    const std::string text = watch();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), row.lines) << row.rows;
    EXPECT_THAT(text, StartsWith(kClear));
  }
  output.resize(3, 2);
  EXPECT_EQ(watch(), kClear + "2\nq\n") << "of the year and of the word queue";
  EXPECT_EQ(errors_.str(), "");
}

TEST_F(StatusWatch, DrawsNothingElsewhere) {
  const StandardOutput output("/dev/null");
  EXPECT_EQ(watch(), "\n") << "between two looks";
  EXPECT_THAT(errors_.str(),
              StartsWith("korvex: queue 'korvex-test-no-such-queue' does not exist"));
}
