#ifndef KORVEX_TESTS_FAULTS_CHAIN_LANE_H
#define KORVEX_TESTS_FAULTS_CHAIN_LANE_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ChainPlan.h"
#include "ChainStore.h"
#include "Lane.h"
#include "support/Process.h"
#include "support/SharedCounter.h"

namespace korvex::test {

/// The whole way of a stream, from the command that makes it to the engine that stores it. One or
/// two of the processes on that way are killed.
class ChainLane : public Lane {
 public:
  /// Throws std::runtime_error when the engine's store cannot be made.
  ChainLane(const Settings& settings, std::string engine, Victims victims);
  ~ChainLane() override;

 private:
  /// A stream on its way.
  struct Stream {
    std::uint64_t number;
    std::uint64_t pieces;  ///< of its command's output
    std::unique_ptr<SharedCounter> progress;
    std::unique_ptr<Process> sender;
  };

  /// A stream whose sender is gone, until it is known what was stored.
  struct Sent {
    std::uint64_t index;  ///< of its scenario
    std::uint64_t number;
    ChainPlan plan;  ///< without victims when nobody was killed
    int code;        ///< the sender's exit code, minus the signal that ended it
    std::string message;
    bool isCommandDone;
  };

  void prepare() override;
  void strike() override;
  void lookAtEnd() override;
  std::vector<std::string> daemonCommand() const override;

  Stream start(const ChainPlan& plan);
  bool awaitMoment(const ChainPlan& plan, Stream& stream) const;
  bool kill(const ChainPlan& plan, Stream& stream);
  pid_t find(Part part, const Stream& stream) const;
  void finish(const ChainPlan& plan, Stream& stream);
  void sendNext(const ChainPlan& plan);
  void awaitNobody();
  void killLeft() const;
  void lookAtStore();
  void judge(const Sent& sent);
  void complainOf(const Sent& sent, const std::string& what);

  const std::string engine_;
  const Victims victims_;
  std::unique_ptr<ChainStore> store_;
  std::vector<Sent> sent_;
};

}  // namespace korvex::test

#endif
