#ifndef KORVEX_TESTS_FAULTS_CHAIN_PLAN_H
#define KORVEX_TESTS_FAULTS_CHAIN_PLAN_H

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "ChainStore.h"

namespace korvex::test {

/// The processes that a stream passes through, and the keeper.
enum class Part { Command, Sender, Daemon, Keeper, Engine };

/// In the life of a stream; the close is when its command has written everything.
enum class Moment { Start, Midstream, Close, Finish };

/// Who is killed.
enum class Victims {
  Any,       ///< one or two, but never daemon and keeper: each guards the engine for the other
  Guardians  ///< daemon and keeper together, after which nothing is promised
};

/// Everything about a scenario that is left to chance.
struct ChainPlan {
  std::uint64_t size;  ///< of the stream
  unsigned lingering;  ///< microseconds that the command takes to end
  Pace pace;
  std::vector<Part> victims;  ///< in the order of their deaths
  Moment moment;
  std::uint64_t piece;              ///< of the command's output, for midstream
  std::chrono::microseconds delay;  ///< from the moment to the first kill
  std::chrono::microseconds gap;    ///< from there to the second
  bool isDaemonLate;  ///< its successor starts only when the sender has given up waiting

  bool kills(Part part) const {
    return std::find(victims.begin(), victims.end(), part) != victims.end();
  }
};

ChainPlan drawChainPlan(std::mt19937_64& dice, Victims victims, const ChainStore::Spans& spans);

std::string nameOf(Part part);
std::string nameOf(Moment moment);

}  // namespace korvex::test

#endif
