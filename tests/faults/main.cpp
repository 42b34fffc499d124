// Kills producers, daemons and the other processes of a stream at random moments, and checks
// whether anything was lost, hung or left behind.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <future>
#include <memory>
#include <random>
#include <unistd.h>

#include "ChainLane.h"
#include "QueueLane.h"
#include "Source.h"

using namespace korvex::test;

namespace {

struct Options {
  std::string daemon = KORVEXD_PROGRAM;
  std::uint64_t kills = 500;
  std::uint64_t seed = std::random_device{}();
  std::uint64_t only = 0;
  bool hasOnly = false;
  bool isChain = false;
  std::string engine = "recording";
  Victims victims = Victims::Any;
  unsigned lanes = 4;  ///< side by side: most of a lane's time is waiting
};

std::unique_ptr<Lane> makeLane(const Options& options, unsigned number, const Stalls& stalls) {
  const std::string self = std::filesystem::read_symlink("/proc/self/exe");
  const std::string name =
      "korvex-faults-" + std::to_string(::getpid()) + "-" + std::to_string(number);
  const Lane::Settings settings = {options.daemon, self, name, options.seed};
  if (!options.isChain) return std::make_unique<QueueLane>(settings, stalls);
  return std::make_unique<ChainLane>(settings, options.engine, options.victims);
}

/// Some scenarios come to nothing, because the stream is over first. Others take their place.
Tally runLane(const Options& options, unsigned number, const Stalls& stalls) {
  constexpr std::uint64_t kMostTries = 3;
  const std::unique_ptr<Lane> lane = makeLane(options, number, stalls);
  if (options.hasOnly) {
    lane->run(options.only);
    return lane->finish();
  }
  const std::uint64_t share = (options.kills + options.lanes - 1 - number) / options.lanes;
  for (std::uint64_t i = 0; i < kMostTries * share && lane->kills() < share && !lane->isOver();
       ++i) {
    lane->run(number + i * options.lanes);
  }
  return lane->finish();
}

/// A run of some length has stopped the daemon several times. When no call had to wait for as long
/// as it may, the stops were too short or hit nobody.
void lookAtStops(const Options& options, Tally& tally) {
  constexpr std::uint64_t kSomeLength = 500;
  const bool isShort = options.hasOnly || tally.kills < kSomeLength;
  if (options.isChain || isShort || tally.outcomes[kTimedOutInStop] > 0) return;
  tally.bad.push_back("no stop of the daemon made a call time out");
}

Tally runAll(const Options& options) {
  const Stalls stalls;
  std::vector<std::future<Tally>> lanes;
  for (unsigned number = 0; number < (options.hasOnly ? 1 : options.lanes); ++number) {
    lanes.push_back(
        std::async(std::launch::async, [&, number] { return runLane(options, number, stalls); }));
  }
  Tally tally;
  for (auto& lane : lanes) tally.add(lane.get());
  lookAtStops(options, tally);
  return tally;
}

int report(const Options& options, const Tally& tally, double seconds) {
  for (const auto& [outcome, times] : tally.outcomes) {
    std::printf("%10llu  %s\n", static_cast<unsigned long long>(times), outcome.c_str());
  }
  for (const std::string& what : tally.bad) std::printf("BAD %s\n", what.c_str());
  const unsigned long long wanted = options.hasOnly ? 1 : options.kills;
  const bool isCutShort = tally.kills < wanted;
  if (isCutShort) std::printf("ended early, %llu kills were wanted\n", wanted);
  std::printf("%llu kills, seed %llu, %.0f s: %zu bad\n",
              static_cast<unsigned long long>(tally.kills),
              static_cast<unsigned long long>(options.seed), seconds, tally.bad.size());
  if (!tally.bad.empty()) {
    const std::string chain = options.isChain ? " --chain --engine " + options.engine : "";
    std::printf("replay one with: ./run faults%s%s --seed %llu --only INDEX\n", chain.c_str(),
                options.victims == Victims::Guardians ? " --guardians" : "",
                static_cast<unsigned long long>(options.seed));
  }
  // A single scenario may come to nothing.
  return tally.bad.empty() && (options.hasOnly || !isCutShort) ? 0 : 1;
}

/// For this process, its threads and all that they start.
void blockEndSignal() {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, kEndSignal);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void declareChain(CLI::App& app, Options& options) {
  CLI::Option* const chain =
      app.add_flag("--chain", options.isChain,
                   "Kill one or two of a stream's command, sender, daemon, keeper and engine, but "
                   "not daemon and keeper together: nothing is promised then");
  app.add_option("--engine", options.engine, "What stores the streams of --chain")
      ->check(CLI::IsMember({"recording", "restic"}))
      ->needs(chain)
      ->capture_default_str();
  app.add_flag_callback(
         "--guardians", [&options] { options.victims = Victims::Guardians; },
         "Kill daemon and keeper together all the same, to see that a cut stream is found")
      ->needs(chain);
}

}  // namespace

int main(int argc, char** argv) try {
  blockEndSignal();
  CLI::App app{"Kills what takes part in streams at random and checks what is left"};
  Options options;
  Load load = {"", 1, 1, 1024};
  app.add_option("--kills", options.kills, "How many");
  app.add_option("--seed", options.seed, "Repeats a run");
  auto* const only = app.add_option("--only", options.only, "Just the kill of this index");
  app.add_option("--daemon", options.daemon, "The korvexd to try")->check(CLI::ExistingFile);
  auto* const produce = app.add_option("--produce", load.queue, "Be a producer on this queue");
  app.add_option("--number", load.number, "The first stream of a producer or command");
  app.add_option("--streams", load.streams, "How many streams it sends");
  app.add_option("--size", load.size, "Bytes of each");
  declareChain(app, options);
  Source source = {"", 1, 16, 0};
  auto* const command = app.add_option("--source", source.progress, "Be a command, counting here");
  app.add_option("--lingering", source.lingering, "Microseconds that the command takes to end");
  CLI11_PARSE(app, argc, argv);
  if (*produce) return korvex::test::produce(load);
  source.number = load.number;
  source.size = load.size;
  if (*command) return korvex::test::runSource(source);
  options.hasOnly = !only->empty();
  // First of all, so that even a run that has to be ended can be repeated.
  std::printf("seed %llu\n", static_cast<unsigned long long>(options.seed));
  std::fflush(stdout);
  const auto start = std::chrono::steady_clock::now();
  const Tally tally = runAll(options);
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
  return report(options, tally, taken.count());
} catch (const std::exception& error) {
  std::fprintf(stderr, "faults: %s\n", error.what());
  return 1;
}
