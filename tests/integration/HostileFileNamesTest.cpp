// Files that are called whatever a file can be called, sent with the command-line tool.

#include <fstream>
#include <gmock/gmock.h>

#include "integration/DaemonFixture.h"
#include "support/HostileNames.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

class HostileFileNames : public DaemonFixture {
 protected:
  HostileFileNames() {
    for (const std::string& name : korvex::test::hostileNames()) {
      if (name != "-") names_.push_back(name);  // which is standard input
    }
  }

  /// Runs the tool in a folder, so that the names are all that it is told.
  Process send(const std::string& folder, const std::vector<std::string>& arguments) const {
    std::vector<std::string> command = {"/bin/sh", "-c",           "cd \"$0\" && exec \"$@\"",
                                        folder,    KORVEX_PROGRAM, "send",
                                        "--queue", queue_};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return Process(command);
  }

  std::vector<std::string> names_;
};

/// Whether a terminal only shows it. In UTF-8 there is a second range of control characters.
bool isHarmless(const std::string& text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < ' ' || byte == 0x7f) return false;
    if (byte == 0xc2 && static_cast<unsigned char>(text[i + 1]) < 0xa0) return false;
  }
  return true;
}

}  // namespace

TEST_F(HostileFileNames, AreNothingButNames) {
  ASSERT_GE(names_.size(), 100u);
  const auto daemon = start();
  const std::string files = folder_.makeFolder("files");
  names_.insert(names_.end(),
                {"[]", "[a,b]", "[[a]]", "\x01[a]", "\x01\x01", "-\n\x1b[2J \xff'\"$x;*"});
  std::vector<std::string> arguments = {"--quiet", "--"};
  std::string all;
  for (const std::string& name : names_) {
    std::ofstream(files + "/" + name, std::ios::binary) << name;
    arguments.push_back(name);
    all += name;
  }
  Process sender = send(files, arguments);
  EXPECT_EQ(sender.wait(), 0) << sender.errors();
  EXPECT_EQ(sender.output() + sender.errors(), "");
  ASSERT_EQ(streams(false).size(), 1u);
  EXPECT_TRUE(dataOf(streams(false)[0]) == all);
  EXPECT_EQ(korvex::test::namesIn(files).size(), names_.size()) << "nothing came or went";
  end(*daemon);
}

TEST_F(HostileFileNames, AreReportedInOneHarmlessLineWhenMissing) {
  for (const std::string& name : names_) {
    Process sender = send(folder_.path(), {"--json", "--", "missing" + name});
    EXPECT_EQ(sender.wait(), 1) << name;
    std::string line = sender.errors();
    ASSERT_THAT(line, EndsWith("': No such file or directory\n"));
    line.pop_back();
    EXPECT_THAT(line, StartsWith("korvex: cannot read 'missing"));
    EXPECT_TRUE(isHarmless(line)) << line;
    // Which it could not be if it were no text.
    EXPECT_EQ(nlohmann::json::parse(sender.output())["message"], line.substr(8));
  }
}

TEST_F(HostileFileNames, AreShownByteByByteWhereNotText) {
  Process sender = send(folder_.path(), {"--json", "\n\x1b[2J\xff"});
  EXPECT_EQ(sender.wait(), 1);
  EXPECT_EQ(sender.errors(),
            "korvex: cannot read '\\x0a\\x1b[2J\\xff': No such file or directory\n");
  EXPECT_EQ(nlohmann::json::parse(sender.output())["status"], ENOENT);
}
