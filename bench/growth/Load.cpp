// Streams records to a daemon that serves a queue already, and prints after each doubling of the
// bytes what they took so far: one JSON object a line.
#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <exception>
#include <fstream>
#include <iostream>
#include <korvex/ShmWriter.h>
#include <limits>
#include <nlohmann/json.hpp>
#include <string>
#include <sys/resource.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned kTimeoutSeconds = 60;
constexpr std::uint64_t kHeaderSize = 48;
constexpr int kExitFailed = 1;

double seconds(Clock::time_point time) {
  return std::chrono::duration<double>(time.time_since_epoch()).count();
}

double cpuSeconds() {
  rusage own = {};
  ::getrusage(RUSAGE_SELF, &own);
  const auto secondsOf = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
  };
  return secondsOf(own.ru_utime) + secondsOf(own.ru_stime);
}

/// Memory of this process alone, in KiB: what it shares with the daemon is the queue.
std::uint64_t ownMemoryKib() {
  std::ifstream status("/proc/self/status");
  std::string word;
  while (status >> word) {
    std::uint64_t kib = 0;
    if (word == "RssAnon:" && status >> kib) return kib;
  }
  return 0;
}

/// What was done since the start.
class Progress {
 public:
  Progress() : start_(seconds(Clock::now())), startCpu_(cpuSeconds()) {}

  void print(std::uint64_t records, std::uint64_t bytes) const {
    const double now = seconds(Clock::now());
    const nlohmann::json line = {
        {"records", records},       {"bytes", bytes},
        {"start", start_},          {"end", now},
        {"seconds", now - start_},  {"cpu_seconds", cpuSeconds() - startCpu_},
        {"own_kib", ownMemoryKib()}};
    std::cout << line.dump() << std::endl;
  }

 private:
  double start_;
  double startCpu_;
};

struct Load {
  std::string queue;
  std::size_t recordSize = 1000;
  std::uint64_t bytes = std::uint64_t{1} << 30;
  std::uint64_t firstReport = std::numeric_limits<std::uint64_t>::max();
};

/// A segment end now and then, as real streams have.
constexpr std::uint64_t kRecordsPerSegment = 1024;

void run(const Load& load) {
  const std::vector<unsigned char> data(load.recordSize, 0x5a);
  korvex::ShmWriter writer("load", load.queue, kTimeoutSeconds, kTimeoutSeconds, false);
  writer.open();
  const Progress progress;
  const std::uint64_t step = kHeaderSize + load.recordSize;
  std::uint64_t records = 0;
  std::uint64_t reportAt = load.firstReport;
  while (records * step < load.bytes) {
    writer.writeSegment(data.data(), data.size());
    if (++records % kRecordsPerSegment == 0) writer.endSegment();
    if (records * step < reportAt) continue;
    progress.print(records, records * step);
    reportAt *= 2;
  }
  writer.close();
  progress.print(records, records * step);
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Streams records to a running daemon and prints what that took, as JSON"};
  Load load;
  app.add_option("--queue", load.queue, "The daemon's queue")->required();
  app.add_option("--record-size", load.recordSize, "Data bytes of a record");
  app.add_option("--bytes", load.bytes, "Bytes to stream, headers included");
  app.add_option("--first-report", load.firstReport, "Report after so many bytes, then doubling")
      ->check(CLI::PositiveNumber);
  CLI11_PARSE(app, argc, argv);
  try {
    run(load);
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "korvex_load: " << error.what() << '\n';
    return kExitFailed;
  }
}
