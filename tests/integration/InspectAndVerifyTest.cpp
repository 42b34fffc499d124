// The tool's look at what a real daemon captured and stored.

#include <fcntl.h>
#include <fstream>
#include <gmock/gmock.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "integration/DaemonFixture.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

class InspectAndVerify : public DaemonFixture {
 protected:
  struct Result {
    int code;
    std::string output;
    std::string errors;
  };

  static Result run(std::vector<std::string> words) {
    words.insert(words.begin(), KORVEX_PROGRAM);
    Process process(words);
    const int code = process.wait().value_or(-1000);
    return {code, process.output(), process.errors()};
  }

  /// Streams each text through a daemon that captures.
  void streamAll(const std::vector<std::string>& texts) {
    const auto daemon = start({"--capture", captured_});
    for (const std::string& text : texts) {
      const auto to = writer();
      to->open();
      write(*to, text);
      to->close();
      EXPECT_THAT(std::string(awaitReply(*to).message), StartsWith("stored "));
    }
    end(*daemon);
  }

  std::vector<std::string> captures() const {
    std::vector<std::string> paths;
    for (const std::string& name : korvex::test::namesIn(captured_)) {
      paths.push_back(captured_ + "/" + name);
    }
    return paths;
  }

  Result inspect(std::vector<std::string> words) const {
    const auto files = captures();
    words.insert(words.begin(), "inspect");
    words.insert(words.end(), files.rbegin(), files.rend());
    return run(words);
  }

  std::string captured_ = folder_.makeFolder("captured");
};

}  // namespace

TEST_F(InspectAndVerify, ShowsWhatTheDaemonCaptured) {
  streamAll({"hello", "korvex"});
  const Result found = inspect({"--json", "--data"});
  EXPECT_EQ(found.code, 0) << found.errors;
  std::istringstream lines(found.output);
  std::string types;
  std::string data;
  nlohmann::json object;
  for (std::string line; std::getline(lines, line);) {
    object = nlohmann::json::parse(line);
    if (object["kind"] != "record") continue;
    types += std::to_string(object["type"].get<int>());
    data += object["data"].get<std::string>();
  }
  EXPECT_EQ(types, "01230123") << "in the order of the batches, not of the command line";
  EXPECT_EQ(data, "68656c6c6f6b6f72766578");
  EXPECT_EQ(object["kind"], "summary");
  EXPECT_EQ(object["dataBytes"], 11);
  EXPECT_EQ(object["streams"], 2);
  EXPECT_EQ(object["captures"].size(), 1u);
  EXPECT_EQ(object["captures"][0]["firstBatch"], 1);
  EXPECT_EQ(object["captures"][0]["lastBatch"], captures().size());
  EXPECT_TRUE(object["captures"][0]["missing"].empty());
}

TEST_F(InspectAndVerify, FindsACaptureThatWasCut) {
  streamAll({"hello"});
  for (const std::string& path : captures()) {
    const std::string bytes = korvex::test::contentsOf(path);
    std::ofstream(path, std::ios::binary) << bytes.substr(0, bytes.size() - 1);
  }
  const Result found = inspect({});
  EXPECT_EQ(found.code, 1);
  EXPECT_THAT(found.output, HasSubstr("  damaged: "));
}

TEST_F(InspectAndVerify, FindsStoredStreamsComplete) {
  streamAll({"hello", std::string(100000, 'x'), "korvex"});
  const Result found = run({"verify", "--json", output_});
  EXPECT_EQ(found.code, 0) << found.errors;
  const auto json = nlohmann::json::parse(found.output);
  EXPECT_EQ(json["complete"], 3);
  EXPECT_EQ(json["bytes"], 100011);
  for (const auto& stream : json["streams"]) {
    EXPECT_EQ(stream["bytes"],
              manifestOf(stream["path"].get<std::string>().substr(output_.size() + 1))["bytes"]);
  }
}

TEST_F(InspectAndVerify, FindsOneChangedByte) {
  streamAll({"hello", "korvex"});
  const std::string path = output_ + "/" + streams(false)[1];
  std::fstream(path + "/data", std::ios::in | std::ios::out | std::ios::binary).put('K');
  const Result found = run({"verify", "--quiet", output_});
  EXPECT_EQ(found.code, 1);
  EXPECT_THAT(found.output, StartsWith("damaged   " + path + ": sha256: found "));
  EXPECT_EQ(run({"verify", output_ + "/" + streams(false)[0]}).code, 0);
}

TEST_F(InspectAndVerify, ReportsAnOpenStreamAsPartial) {
  const auto daemon = start();
  const auto open = writer();
  open->open();
  write(*open, "hello");
  open->flush_shm_buffer(kTimeout);
  ASSERT_TRUE(korvex::test::eventually([this] { return streams(true).size() == 1; }));
  const Result running = run({"verify", output_});
  EXPECT_EQ(running.code, 0);
  EXPECT_THAT(running.output, HasSubstr(".partial: still open, or its daemon died: no manifest\n"));
  end(*daemon);
  const Result ended = run({"verify", output_});
  EXPECT_EQ(ended.code, 0);
  EXPECT_THAT(ended.output, HasSubstr("0 complete, 0 damaged, 1 partial, 0 foreign"));
  EXPECT_EQ(ended.output.find("no manifest"), std::string::npos) << ended.output;
}

TEST_F(InspectAndVerify, EndByTheSignalThatInterruptsThem) {
  const std::string pipe = folder_ / "pipe";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  Process process({KORVEX_PROGRAM, "inspect", pipe});
  // Succeeds once the tool has opened the pipe; then it waits for bytes that nobody writes.
  int writer = -1;
  ASSERT_TRUE(korvex::test::eventually([&] {
    writer = ::open(pipe.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    return writer >= 0;
  }));
  process.signal(SIGTERM);
  EXPECT_EQ(process.wait(), -SIGTERM);
  EXPECT_EQ(process.errors(), "korvex: interrupted by signal 15\n");
  ::close(writer);
}

TEST_F(InspectAndVerify, RefuseWrongUsage) {
  for (const auto& words : std::vector<std::vector<std::string>>{{"inspect"},
                                                                 {"inspect", "--quick", "x"},
                                                                 {"verify"},
                                                                 {"verify", "--jobs", "0", "x"},
                                                                 {"verify", "--data", "x"}}) {
    const Result found = run(words);
    EXPECT_EQ(found.code, 2);
    EXPECT_EQ(found.output, "");
    EXPECT_THAT(found.errors, HasSubstr("Run with --help"));
  }
}

TEST_F(InspectAndVerify, ExplainThemselves) {
  for (const char* verb : {"send", "inspect", "verify"}) {
    EXPECT_THAT(run({"--help"}).output, HasSubstr(std::string("  ") + verb + " "));
    const Result help = run({verb, "--help"});
    EXPECT_EQ(help.code, 0);
    EXPECT_THAT(help.output, HasSubstr("--json"));
  }
}
