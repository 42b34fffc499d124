#ifndef KORVEX_TESTS_FAULTS_QUEUE_LANE_H
#define KORVEX_TESTS_FAULTS_QUEUE_LANE_H

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Child.h"
#include "Lane.h"
#include "Producer.h"
#include "Stalls.h"

namespace korvex::test {

/// Outcomes that are reported even if they never occurred: they show how much a run has proved.
inline const std::string kLateInStall = "  late, machine stalled";
inline const std::string kNextLateInStall = "  next stream late, machine stalled";
inline const std::string kTimedOutInStop = "  daemon stopped: timed-out";

/// Producers that write to the queue of a daemon that stores in folders. One of the two is killed
/// or stopped, or both.
class QueueLane : public Lane {
 public:
  QueueLane(const Settings& settings, const Stalls& stalls);

 private:
  /// A producer that goes on by itself.
  struct Running {
    std::unique_ptr<Child> child;
    Load load;
    std::uint64_t index;  ///< of its scenario
    Clock::time_point start;
    Call stop;  ///< from when until when it was stopped; empty when it was not
  };

  void prepare() override {}
  void strike() override;
  void lookAtEnd() override;
  std::vector<std::string> daemonCommand() const override;
  void beforeDaemonStarts() override { removePartialStreams(); }
  void beforeDaemonEnds() override { awaitSurvivors(); }

  void restartDaemon();
  void awaitHalfMadeQueue();
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

  const Stalls& stalls_;
  std::vector<Running> survivors_;
  std::set<std::uint64_t> claimed_;
  std::uint64_t claims_ = 0;
};

}  // namespace korvex::test

#endif
