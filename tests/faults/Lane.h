#ifndef KORVEX_TESTS_FAULTS_LANE_H
#define KORVEX_TESTS_FAULTS_LANE_H

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "Child.h"

namespace korvex::test {

/// What a run counted, by outcome, and what it found wrong.
struct Tally {
  std::uint64_t kills = 0;
  std::map<std::string, std::uint64_t> outcomes;
  std::vector<std::string> bad;

  void add(const Tally& other);
};

/// One daemon, and the scenarios that befall it one after the other.
///
/// Everything that happens in a scenario follows from the seed and its index. The moment of a kill
/// does too, but what the processes are doing at that moment is up to the machine.
class Lane {
 public:
  struct Settings {
    std::string daemon;  ///< the program
    std::string self;    ///< this program, which is the producer as well
    std::string name;    ///< unique; its queue and its files are called after it
    std::uint64_t seed;
  };

  virtual ~Lane();
  Lane(const Lane&) = delete;
  Lane& operator=(const Lane&) = delete;

  /// One scenario, and the checks after it. Never throws for what happens to the processes: that is
  /// noted as bad, with the index.
  void run(std::uint64_t index);

  std::uint64_t kills() const { return tally_.kills; }

  /// True when there is no daemon any more, or when more of the same would only take long.
  bool isOver() const;

  /// Ends the daemon as an operator does and looks for what was left behind.
  Tally finish();

 protected:
  using Clock = std::chrono::steady_clock;
  using Bytes = std::vector<unsigned char>;

  explicit Lane(const Settings& settings);

  virtual void prepare() = 0;
  virtual void strike() = 0;
  virtual void lookAtEnd() = 0;

  /// The daemon's command line, but for the queue.
  virtual std::vector<std::string> daemonCommand() const = 0;
  virtual void beforeDaemonStarts() {}
  virtual void beforeDaemonEnds() {}

  void startDaemon();
  void awaitServing();
  bool isServing() const;

  /// What is wrong with stored bytes is noted; so is a stream that was stored before.
  void lookAtStored(const std::string& name, const Bytes& bytes);
  static Bytes bytesOf(const std::filesystem::path& path);
  void lookAtSharedMemory();
  bool hasHalfMadeQueue() const;

  std::uint64_t between(std::uint64_t least, std::uint64_t most);
  void count(const std::string& outcome) { ++tally_.outcomes[outcome]; }
  void complain(const std::string& what) { complain(index_, what); }
  void complain(std::uint64_t index, const std::string& what);

  const Settings settings_;
  const std::filesystem::path folder_;
  std::unique_ptr<Child> daemon_;
  std::set<std::uint64_t> stored_;  ///< the numbers of all streams that were ever stored
  std::mt19937_64 dice_;
  std::uint64_t index_ = 0;
  std::uint64_t nextNumber_ = 1;
  Tally tally_;

 private:
  void attempt(const std::function<void()>& step);
  void begin();
  void end();
  std::vector<std::filesystem::path> leftInSharedMemory() const;

  std::vector<pid_t> daemonIds_;
  bool isBroken_ = false;
};

}  // namespace korvex::test

#endif
