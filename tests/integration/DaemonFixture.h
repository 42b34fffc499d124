#ifndef TESTS_INTEGRATION_DAEMON_FIXTURE_H
#define TESTS_INTEGRATION_DAEMON_FIXTURE_H

#include <gtest/gtest.h>
#include <korvex/ShmWriter.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <signal.h>
#include <string>
#include <vector>

#include "support/Process.h"
#include "support/Queues.h"
#include "support/TemporaryFolder.h"

/// A daemon to start, a queue's name and folders to work with.
class DaemonFixture : public testing::Test {
 protected:
  using Process = korvex::test::Process;

  static constexpr unsigned kTimeout = 20;

  /// Starts a daemon that stores in output_, with more options, and waits until it serves.
  std::unique_ptr<Process> start(const std::vector<std::string>& more = {}) {
    auto daemon = startOnly(more);
    EXPECT_TRUE(awaitServing(*daemon)) << daemon->errors();
    return daemon;
  }

  std::unique_ptr<Process> startOnly(const std::vector<std::string>& more) {
    std::vector<std::string> command = {KORVEXD_PROGRAM, "--queue", queue_, "--output", output_};
    command.insert(command.end(), more.begin(), more.end());
    return std::make_unique<Process>(command);
  }

  bool awaitServing(Process& daemon) const { return awaitLog(daemon, "serving " + queue_ + ","); }

  /// Waits until the daemon has logged this text so many times.
  static bool awaitLog(Process& daemon, const std::string& text, unsigned times = 1) {
    return korvex::test::eventually([&] {
      unsigned found = 0;
      const std::string& log = daemon.errors();
      for (auto at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++found;
      return found >= times;
    });
  }

  /// Ends a daemon as an operator does.
  static void end(Process& daemon) {
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.wait(), 0) << daemon.errors();
  }

  std::unique_ptr<korvex::ShmWriter> writer(const std::string& queue,
                                            unsigned timeout = kTimeout) const {
    return std::make_unique<korvex::ShmWriter>("test", queue, timeout, timeout, false);
  }
  std::unique_ptr<korvex::ShmWriter> writer() const { return writer(queue_); }

  static void write(korvex::ShmWriter& to, const std::string& text) {
    to.writeSegment(reinterpret_cast<const unsigned char*>(text.data()), text.size());
    to.endSegment();
  }

  /// Asks again and again until a reply is there.
  static korvex::qmx_shm_response_t awaitReply(korvex::ShmWriter& from) {
    korvex::qmx_shm_response_t reply;
    korvex::test::eventually([&] {
      try {
        from.flush_shm_buffer(kTimeout);
      } catch (const Ov_ErrnoException&) {
        // The reply itself; it is looked at below.
      }
      reply = from.getResponse();
      return reply.message[0] != 0;
    });
    return reply;
  }

  /// Streams the text and gives the receipt's text.
  std::string stream(const std::string& queue, const std::string& text) const {
    const auto to = writer(queue);
    to->open();
    write(*to, text);
    to->close();
    return awaitReply(*to).message;
  }
  std::string stream(const std::string& text) const { return stream(queue_, text); }

  /// The names of the stream folders that are final, or the ones that are not.
  std::vector<std::string> streams(bool partial) const {
    static const std::string suffix = ".partial";
    std::vector<std::string> found;
    for (const std::string& name : korvex::test::namesIn(output_)) {
      const bool isPartial = name.size() > suffix.size() &&
                             name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
      if (isPartial == partial) found.push_back(name);
    }
    return found;
  }

  std::string dataOf(const std::string& streamName) const {
    return korvex::test::contentsOf(output_ + "/" + streamName + "/data");
  }

  nlohmann::json manifestOf(const std::string& streamName) const {
    return nlohmann::json::parse(
        korvex::test::contentsOf(output_ + "/" + streamName + "/manifest.json"));
  }

  /// The names in shared memory of queues that a daemon did not finish.
  static std::vector<std::string> unfinishedQueuesOf(const Process& daemon) {
    const std::string prefix = ".korvexd-" + std::to_string(daemon.id()) + "-";
    std::vector<std::string> found;
    for (const std::string& name : korvex::test::namesIn("/dev/shm"))
      if (name.rfind(prefix, 0) == 0) found.push_back(name);
    return found;
  }

  korvex::test::TemporaryFolder folder_;
  std::string output_ = folder_.makeFolder("out");
  std::string queue_ = korvex::test::uniqueQueueName();
  korvex::test::QueueRemover remover_{queue_};
};

#endif
