// Carries records from one process to another in one way and prints what that took as JSON.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>
#include <unistd.h>

#include "Measurement.h"
#include "Transports.h"

namespace {

using nlohmann::json;

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitMissing = 3;

json usageOf(const bench::Usage& usage) {
  return {{"cpu_seconds", usage.cpuSeconds}, {"peak_kib", usage.peakKib}};
}

void print(const bench::Result& result, const std::string& note) {
  const json line = {{"seconds", result.seconds},
                     {"records", result.records},
                     {"bytes", result.bytes},
                     {"messages", result.messages},
                     {"producer", usageOf(result.producer)},
                     {"consumer", usageOf(result.consumer)},
                     {"note", note}};
  std::cout << line.dump() << '\n';
}

void listTransports() {
  json all = json::object();
  for (const bench::NamedTransport& transport : bench::transports()) {
    all[transport.name] = transport.make != nullptr;
  }
  std::cout << all.dump() << '\n';
}

int carry(const std::string& transportName, const bench::Settings& settings) {
  const auto& all = bench::transports();
  const auto found = std::find_if(all.begin(), all.end(), [&](const bench::NamedTransport& each) {
    return each.name == transportName;
  });
  if (found == all.end()) {
    std::cerr << "no transport is called '" << transportName << "'; see --list\n";
    return kExitUsage;
  }
  if (found->make == nullptr) {
    std::cerr << transportName << ": its package was absent when this was built\n";
    return kExitMissing;
  }
  const auto transport = found->make(settings);
  print(bench::measure(settings, *transport), transport->note());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Carries records between two processes and prints what that took, as JSON"};
  bool list = false;
  std::string transport = "korvex";
  bench::Settings settings = {};
  settings.name = "korvex-bench-" + std::to_string(::getpid());
  settings.recordSize = 1000;
  settings.records = 1000000;
  settings.messageSize = 262144;
  settings.depth = 4;
  settings.framing = bench::Framing::Batch;
  const std::map<std::string, bench::Framing> framings = {{"record", bench::Framing::Record},
                                                          {"batch", bench::Framing::Batch},
                                                          {"opaque", bench::Framing::Opaque}};
  app.add_flag("--list", list, "Print which transports this build has");
  app.add_option("--transport", transport, "Which way");
  app.add_option("--framing", settings.framing, "What a message holds: record, batch or opaque")
      ->transform(CLI::CheckedTransformer(framings));
  app.add_option("--record-size", settings.recordSize, "Data bytes of a record");
  app.add_option("--records", settings.records, "How many")->check(CLI::PositiveNumber);
  app.add_option("--message-size", settings.messageSize, "Largest message, in bytes");
  app.add_option("--depth", settings.depth, "Messages under way")->check(CLI::PositiveNumber);
  CLI11_PARSE(app, argc, argv);
  if (list) {
    listTransports();
    return 0;
  }
  try {
    return carry(transport, settings);
  } catch (const std::exception& error) {
    std::cerr << transport << ": " << error.what() << '\n';
    return kExitFailed;
  }
}
