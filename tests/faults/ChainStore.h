#ifndef KORVEX_TESTS_FAULTS_CHAIN_STORE_H
#define KORVEX_TESTS_FAULTS_CHAIN_STORE_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace korvex::test {

/// How slow an engine is, in microseconds.
struct Pace {
  unsigned afterRead;
  unsigned beforeStore;
  unsigned afterStore;
};

/// The engine that a lane's streams go to, and what it has stored.
class ChainStore {
 public:
  using Show = std::function<void(const std::string& name, const std::vector<unsigned char>&)>;

  /// The longest time from a moment to a kill.
  struct Spans {
    std::chrono::microseconds start;
    std::chrono::microseconds midstream;
    std::chrono::microseconds end;
  };

  virtual ~ChainStore() = default;

  /// For `korvexd --exec`, which needs these variables.
  virtual std::string command() const = 0;
  virtual std::vector<std::string> variables() const { return {}; }

  virtual Spans spans() const = 0;

  /// Whether it costs little to look at what was stored, so that it is done after each kill. If
  /// not, once at the end.
  virtual bool isCheap() const = 0;

  /// For the engines that start from now on; not every kind can be slowed down.
  virtual void slowDown(const Pace&) {}

  /// Whether an engine has read a stream of this size up to its last byte, as far as it can be
  /// seen.
  virtual bool hasRead(std::uint64_t) const { return true; }

  /// Shows everything stored since the last time. No engine may be running. Throws
  /// std::runtime_error when the engine's own tools find damage.
  virtual void show(const Show& show) = 0;
};

/// `kind` is recording or restic; `folder` exists and is empty. Throws std::runtime_error.
std::unique_ptr<ChainStore> makeChainStore(const std::string& kind, const std::string& folder);

}  // namespace korvex::test

#endif
