#ifndef TESTS_INTEGRATION_EXEC_FIXTURE_H
#define TESTS_INTEGRATION_EXEC_FIXTURE_H

#include <algorithm>
#include <fstream>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "integration/DaemonFixture.h"
#include "support/EngineProcesses.h"

/// A daemon that gives its streams to engines, and ways to look at these.
class ExecFixture : public DaemonFixture {
 protected:
  using Reply = korvex::qmx_shm_response_t;

  std::unique_ptr<Process> startExec(const std::string& command,
                                     const std::vector<std::string>& more = {}) const {
    std::vector<std::string> words = {KORVEXD_PROGRAM, "--queue", queue_, "--exec", command};
    words.insert(words.end(), more.begin(), more.end());
    auto daemon = std::make_unique<Process>(words);
    EXPECT_TRUE(awaitServing(*daemon)) << daemon->errors();
    return daemon;
  }

  /// An engine that stores what it reads in output_ when it sees the end of its input.
  static std::string recorder() { return KORVEX_RECORDING_ENGINE; }
  std::string recorderCommand() const { return recorder() + " " + output_; }

  /// A script of a shell, in which $0 is output_.
  std::string script(const std::string& text) const { return "sh -c '" + text + "' " + output_; }

  /// What has come to its name, and what has not.
  std::vector<std::string> stored() const { return files(false); }
  std::vector<std::string> unfinished() const { return files(true); }

  /// Opens a stream and sends some data.
  std::unique_ptr<korvex::ShmWriter> openStream(const std::string& text) const {
    auto to = writer();
    try {
      to->open();
      write(*to, text);
      to->flush_shm_buffer(kTimeout);
    } catch (const Ov_ErrnoException&) {
      if (to->getResponse().message[0] == '\0') throw;  // else the engine failed that early
    }
    return to;
  }

  /// The same, and waits until the recording engine has it.
  std::unique_ptr<korvex::ShmWriter> openRecorded(const std::string& text) const {
    auto to = openStream(text);
    EXPECT_TRUE(awaitRecorded(text));
    return to;
  }

  bool awaitRecorded(const std::string& text) const {
    return korvex::test::eventually([&] {
      const auto names = unfinished();
      return std::any_of(names.begin(), names.end(), [&](const std::string& name) {
        return korvex::test::contentsOf(output_ + "/" + name) == text;
      });
    });
  }

  /// A whole stream, and what the daemon says to it.
  Reply replyTo(const std::string& text) const {
    const auto to = openStream(text);
    return replyToClose(*to);
  }

  static Reply replyToClose(korvex::ShmWriter& to) {
    try {
      to.close();
    } catch (const Ov_ErrnoException&) {
      return to.getResponse();  // it failed before
    }
    return awaitReply(to);
  }

  void makeFile(const std::string& name, const std::string& contents = "",
                mode_t mode = 0600) const {
    const std::string path = output_ + "/" + name;
    std::ofstream(path + ".new") << contents;
    ::chmod((path + ".new").c_str(), mode);
    ::rename((path + ".new").c_str(), path.c_str());
  }

  bool awaitFile(const std::string& name) const {
    return korvex::test::eventually([&] { return hasFile(name); });
  }

  bool hasFile(const std::string& name) const {
    struct stat found = {};
    return ::stat((output_ + "/" + name).c_str(), &found) == 0;
  }

  /// The first word in a file, as a process id.
  pid_t processIn(const std::string& name) const {
    EXPECT_TRUE(awaitFile(name));
    return std::stoi(korvex::test::contentsOf(output_ + "/" + name));
  }

  pid_t keeper() const {
    const auto keepers = korvex::test::keepersFor(queue_);
    EXPECT_EQ(keepers.size(), 1u);
    return keepers.empty() ? 0 : keepers.front();
  }

  bool awaitNoProcess() const {
    return korvex::test::eventually([&] { return korvex::test::processesFor(queue_).empty(); });
  }

 private:
  std::vector<std::string> files(bool partial) const {
    std::vector<std::string> found;
    for (const std::string& name : streams(partial))
      if (name.rfind(queue_ + "-", 0) == 0) found.push_back(name);
    return found;
  }
};

#endif
