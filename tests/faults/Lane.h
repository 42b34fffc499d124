#ifndef KORVEX_TESTS_FAULTS_LANE_H
#define KORVEX_TESTS_FAULTS_LANE_H

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "Child.h"
#include "Producer.h"
#include "Stalls.h"

namespace korvex::test {

/// Outcomes that are told even when they never came: they say how much a run has proved.
inline const std::string kLateInStall = "  late, machine stalled";
inline const std::string kNextLateInStall = "  next stream late, machine stalled";
inline const std::string kTimedOutInStop = "  daemon stopped: timed-out";

/// What a run counted, by outcome, and what it found wrong.
struct Tally {
  std::uint64_t kills = 0;
  std::map<std::string, std::uint64_t> outcomes = {
      {kLateInStall, 0}, {kNextLateInStall, 0}, {kTimedOutInStop, 0}};
  std::vector<std::string> bad;

  void add(const Tally& other);
};

/// One daemon, its producers, and the scenarios that befall them one after the other.
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

  Lane(const Settings& settings, const Stalls& stalls);
  ~Lane();

  /// One kill, and the checks after it. Never throws for what happens to the processes: that is
  /// noted as bad, with the index.
  void run(std::uint64_t index);

  /// True when there is no daemon any more, or when more of the same would only take long.
  bool isOver() const;

  /// Ends the daemon as an operator does and looks for what was left behind.
  Tally finish();

 private:
  using Clock = Call::Clock;

  /// A producer that goes on by itself.
  struct Running {
    std::unique_ptr<Child> child;
    Load load;
    std::uint64_t index;  ///< of its scenario
    Clock::time_point start;
    Call stop;  ///< from when until when it was stopped; empty when it was not
  };

  void attempt(const std::function<void()>& step);
  void begin();
  void strike();
  void end();

  void startDaemon();
  void awaitServing();
  void restartDaemon();
  void awaitHalfMadeQueue();
  bool hasHalfMadeQueue() const;
  bool isServing() const;
  Running startProducer(std::uint64_t streams, std::uint64_t size);
  Clock::time_point befall(Running& producer);
  void killDaemon(Running& producer);
  void killProducer(Running& producer);
  void killBoth(Running& producer);
  void stopProducer(Running& producer);
  Clock::time_point stopDaemon(Running& producer);
  std::string finishProducer(Running& producer, const std::string& prefix,
                             std::chrono::milliseconds patience);
  void judge(const Running& producer, const Call& call);
  void finishSurvivors();
  void awaitSurvivors();
  void sendNext(Clock::time_point served);
  bool tryNext();
  std::size_t timesServedAnew() const;
  void lookAtStore();
  std::vector<std::filesystem::path> storedStreams() const;
  void removePartialStreams();
  void lookAtStream(const std::filesystem::path& folder);
  void lookAtClaims();
  void lookAtSharedMemory();
  std::vector<std::filesystem::path> leftInSharedMemory() const;
  void count(const std::string& outcome) { ++tally_.outcomes[outcome]; }
  void complain(const std::string& what) { complain(index_, what); }
  void complain(std::uint64_t index, const std::string& what);

  const Settings settings_;
  const Stalls& stalls_;
  const std::filesystem::path folder_;
  std::unique_ptr<Child> daemon_;
  std::vector<pid_t> daemonIds_;
  std::vector<Running> survivors_;
  std::set<std::uint64_t> stored_;
  std::set<std::uint64_t> claimed_;
  std::uint64_t claims_ = 0;
  std::mt19937_64 dice_;
  std::uint64_t index_ = 0;
  std::uint64_t nextNumber_ = 1;
  bool isBroken_ = false;
  Tally tally_;
};

}  // namespace korvex::test

#endif
