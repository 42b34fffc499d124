#include "korvexd/metrics/Metrics.h"

#include <cstdlib>
#include <initializer_list>
#include <iterator>
#include <spdlog/fmt/fmt.h>
#include <utility>

#include "korvexd/log/LogWriter.h"

namespace korvexd {
namespace {

using receiver::Count;
using Defect = QueueCounts::Defect;

struct Label {
  const char* name;
  std::string value;
};

/// Three characters mean something between the quotes of a label.
std::string escaped(const std::string& text) {
  std::string result;
  for (const char byte : text) {
    if (byte == '\n') {
      result += "\\n";
      continue;
    }
    if (byte == '"' || byte == '\\') result += '\\';
    result += byte;
  }
  return result;
}

const char* reasonOf(Defect defect) noexcept {
  switch (defect) {
    case Defect::MetaDataCut:
      return "metadata_cut";
    case Defect::MetaDataMagic:
      return "metadata_magic";
    case Defect::HeaderCut:
      return "header_cut";
    case Defect::HeaderMagic:
      return "header_magic";
    case Defect::DataCut:
      return "data_cut";
    case Defect::TrailingBytes:
      return "trailing_bytes";
    case Defect::None:
      break;
  }
  return "none";
}

const char* reasonOf(EngineFailure failure) noexcept {
  switch (failure) {
    case EngineFailure::NotStarted:
      return "not_started";
    case EngineFailure::ExitCode:
      return "exit_code";
    case EngineFailure::Killed:
      return "killed";
    case EngineFailure::EarlyExit:
      return "early_exit";
    case EngineFailure::ClosedInput:
      return "closed_input";
    case EngineFailure::TookNothing:
      return "took_nothing";
    case EngineFailure::TimedOut:
      return "timed_out";
    case EngineFailure::KeeperLost:
      return "keeper_lost";
    case EngineFailure::DaemonEnded:
      break;
  }
  return "daemon_ended";
}

}  // namespace

/// The lines of one family.
class MetricFamily::Samples {
 public:
  Samples(std::string& text, const char* name) : text_(text), name_(name) {}

  void add(std::initializer_list<Label> labels, const std::string& value) {
    text_ += name_;
    const char* separator = "{";
    for (const Label& label : labels) {
      text_ += separator + std::string(label.name) + "=\"" + escaped(label.value) + '"';
      separator = ",";
    }
    text_ += "} " + value + "\n";
  }
  void add(std::initializer_list<Label> labels, std::uint64_t value) {
    add(labels, std::to_string(value));
  }

 private:
  std::string& text_;
  const char* name_;
};

namespace {

using Samples = MetricFamily::Samples;

template <typename ValueOf>
void addPerQueue(Samples& to, const DaemonNumbers& from, ValueOf valueOf) {
  for (const QueueNumbers& queue : from.queues) to.add({{"queue", queue.name}}, valueOf(queue));
}

template <Count kCount>
void addCount(Samples& to, const DaemonNumbers& from) {
  addPerQueue(to, from, [](const QueueNumbers& queue) { return queue.counters->get(kCount); });
}

template <QueueCounts::Number QueueCounts::*kNumber>
void addNumber(Samples& to, const DaemonNumbers& from) {
  addPerQueue(to, from, [](const QueueNumbers& queue) { return (queue.counts->*kNumber).load(); });
}

void addResults(Samples& to, const DaemonNumbers& from) {
  for (const QueueNumbers& queue : from.queues) {
    for (std::size_t i = 0; i < QueueCounts::kEndings; ++i) {
      const char* const result = resultOf(static_cast<QueueCounts::Ending>(i));
      to.add({{"queue", queue.name}, {"result", result}}, queue.counts->ended[i]);
    }
  }
}

void addRefusals(Samples& to, const DaemonNumbers& from) {
  for (const QueueNumbers& queue : from.queues) {
    for (std::size_t i = 1; i < QueueCounts::kDefects; ++i) {
      const char* const reason = reasonOf(static_cast<Defect>(i));
      to.add({{"queue", queue.name}, {"reason", reason}}, queue.counts->batchesRefused[i]);
    }
  }
}

void addEngineFailures(Samples& to, const DaemonNumbers& from) {
  for (const QueueNumbers& queue : from.queues) {
    for (std::size_t i = 0; i < kEngineFailures; ++i) {
      const char* const reason = reasonOf(static_cast<EngineFailure>(i));
      to.add({{"queue", queue.name}, {"reason", reason}}, queue.engineFailures[i]);
    }
  }
}

/// The three numbers are read one after the other: a stream that ends in between counts once.
std::uint64_t openStreams(const QueueNumbers& queue) {
  const std::uint64_t ended =
      queue.counters->get(Count::StreamsComplete) + queue.counters->get(Count::StreamsIncomplete);
  return queue.counters->get(Count::StreamsOpened) > ended ? 1 : 0;
}

void addBuildInfo(Samples& to, const DaemonNumbers& from) {
  to.add({{"daemon", from.name}, {"version", KORVEX_VERSION}}, 1);
}

template <std::uint64_t DaemonFailures::*kFailures>
void addFailures(Samples& to, const DaemonNumbers& from) {
  to.add({{"daemon", from.name}}, from.failures.*kFailures);
}

void addFileFailures(Samples& to, const DaemonNumbers& from) {
  to.add({{"daemon", from.name}, {"file", "stats"}}, from.failures.stats);
  to.add({{"daemon", from.name}, {"file", "metrics"}}, from.metricsFailures);
}

void addLostLines(Samples& to, const DaemonNumbers& from) {
  const LogLosses& losses = logLosses();
  to.add({{"daemon", from.name}, {"reason", "unread"}}, losses.unread);
  to.add({{"daemon", from.name}, {"reason", "unwritten"}}, losses.unwritten);
  to.add({{"daemon", from.name}, {"reason", "too_many"}}, losses.held);
}

std::uint64_t seconds(std::time_t time) { return static_cast<std::uint64_t>(time); }

// A queue that cannot be made needs the alerts as much as any other.

void addLastSuccess(Samples& to, const DaemonNumbers& from) {
  addPerQueue(to, from, [](const QueueNumbers& queue) { return seconds(queue.lastSuccess); });
  for (const AwaitedQueue& queue : from.awaited) {
    to.add({{"queue", queue.name}}, seconds(queue.lastSuccess));
  }
}

void addServed(Samples& to, const DaemonNumbers& from) {
  addPerQueue(to, from, [](const QueueNumbers& queue) {
    return std::uint64_t{queue.counts->isServed ? 1u : 0u};
  });
  for (const AwaitedQueue& queue : from.awaited) to.add({{"queue", queue.name}}, 0);
}

constexpr const char* kLastSuccess = "korvex_last_success_timestamp_seconds";
constexpr const char* kCounter = "counter";
constexpr const char* kGauge = "gauge";

constexpr MetricFamily kDaemonFamilies[] = {
    {"korvex_build_info", kGauge, "The daemon's version; always 1.", addBuildInfo},
    {"korvex_start_timestamp_seconds", kGauge, "When the daemon started.",
     [](Samples& to, const DaemonNumbers& from) {
       to.add({{"daemon", from.name}}, seconds(from.started));
     }},
    {"korvex_written_timestamp_seconds", kGauge,
     "When the daemon wrote these metrics, every 15 seconds at least.",
     [](Samples& to, const DaemonNumbers& from) {
       to.add({{"daemon", from.name}}, seconds(from.written));
     }},
    {"korvex_config_last_reload_successful", kGauge,
     "Whether the last attempt to load the configuration succeeded.",
     [](Samples& to, const DaemonNumbers& from) {
       to.add({{"daemon", from.name}}, std::uint64_t{from.isReloadRefused ? 0u : 1u});
     }},
    {"korvex_config_last_reload_success_timestamp_seconds", kGauge,
     "When the configuration was last loaded.",
     [](Samples& to, const DaemonNumbers& from) {
       to.add({{"daemon", from.name}}, seconds(from.configured));
     }},
    {"korvex_config_reload_failures_total", kCounter, "Refused reloads of the configuration.",
     addFailures<&DaemonFailures::reloads>},
    {"korvex_queue_creation_failures_total", kCounter,
     "Queues that a reload added and that could not be created at once.",
     addFailures<&DaemonFailures::newQueues>},
    {"korvex_service_manager_failures_total", kCounter,
     "Failed attempts to notify the service manager.", addFailures<&DaemonFailures::notifications>},
    {"korvex_watchdog_withheld_total", kCounter,
     "Times that the watchdog was not fed because a queue was stuck.",
     addFailures<&DaemonFailures::feedings>},
    {"korvex_shutdown_hangs_total", kCounter, "Shutdowns held up by a sink that did not return.",
     addFailures<&DaemonFailures::ends>},
    {"korvex_file_write_failures_total", kCounter,
     "Failed attempts to write the statistics or the metrics.", addFileFailures},
    {"korvex_log_lines_lost_total", kCounter, "Lines missing from the log, by reason.",
     addLostLines},
};

constexpr MetricFamily kStreamFamilies[] = {
    {"korvex_streams_opened_total", kCounter, "Streams that were opened.",
     addCount<Count::StreamsOpened>},
    {"korvex_streams_total", kCounter, "Streams that ended, by result.", addResults},
    {"korvex_stream_open", kGauge, "Whether a stream is open.",
     [](Samples& to, const DaemonNumbers& from) { addPerQueue(to, from, openStreams); }},
    {kLastSuccess, kGauge, "When a stream last completed; 0 for never.", addLastSuccess},
    {"korvex_bytes_total", kCounter, "Bytes of data that were handed to a sink.",
     addCount<Count::Bytes>},
    {"korvex_records_total", kCounter, "Records in valid batches.", addCount<Count::Records>},
    {"korvex_records_dropped_total", kCounter, "Records outside of a stream or in a failed one.",
     addCount<Count::DroppedRecords>},
    {"korvex_records_refused_total", kCounter,
     "Records against the protocol while no stream was open.",
     addNumber<&QueueCounts::recordsRefused>},
    {"korvex_batches_total", kCounter, "Messages that were received, damaged ones too.",
     addCount<Count::Batches>},
    {"korvex_batches_refused_total", kCounter, "Damaged batches, by what was wrong.", addRefusals},
    {"korvex_engine_failures_total", kCounter,
     "Streams that an engine did not store, by what went wrong with it.", addEngineFailures},
    {"korvex_abandon_failures_total", kCounter,
     "Incomplete streams that could not be marked as such.",
     addNumber<&QueueCounts::abandonFailures>},
    {"korvex_capture_failures_total", kCounter, "Messages that could not be captured.",
     addNumber<&QueueCounts::captureFailures>},
};

constexpr MetricFamily kQueueFamilies[] = {
    {"korvex_replies_total", kCounter, "Replies that were sent to producers.",
     addCount<Count::RepliesSent>},
    {"korvex_replies_withdrawn_total", kCounter,
     "Replies to an earlier producer that were taken back.", addCount<Count::RepliesWithdrawn>},
    {"korvex_replies_lost_total", kCounter, "Replies for which there was no room.",
     addCount<Count::RepliesLost>},
    {"korvex_replies_waiting", kGauge, "Replies that wait for room on the response queue.",
     addCount<Count::RepliesPending>},
    {"korvex_messages_waiting", kGauge, "Messages on the queue that the daemon has not taken.",
     [](Samples& to, const DaemonNumbers& from) {
       addPerQueue(to, from, [](const QueueNumbers& queue) { return queue.waiting; });
     }},
    {"korvex_queue_capacity_messages", kGauge, "Messages that the queue holds.",
     [](Samples& to, const DaemonNumbers& from) {
       addPerQueue(to, from, [](const QueueNumbers& queue) { return queue.capacity; });
     }},
    {"korvex_queue_full_seconds_total", kCounter,
     "Time that the queue was full and producers had to wait, sampled once a second.",
     [](Samples& to, const DaemonNumbers& from) {
       addPerQueue(to, from, [](const QueueNumbers& queue) {
         return fmt::format("{:.3f}", queue.fullSeconds);
       });
     }},
    {"korvex_queue_served", kGauge,
     "0 while the pair of queues is lost and not yet recreated, or could not be created at all.",
     addServed},
    {"korvex_queue_pairs_replaced_total", kCounter,
     "Pairs of queues that became unusable and were given up.", addCount<Count::QueueReplacements>},
    {"korvex_queue_pair_failures_total", kCounter,
     "Times that a lost pair could not be recreated at once.",
     addNumber<&QueueCounts::failuresToReplace>},
    {"korvex_settings_failures_total", kCounter,
     "Times that changed settings could not be applied and the old ones were kept.",
     addNumber<&QueueCounts::settingsFailures>},
    {"korvex_messages_untaken_total", kCounter,
     "Messages that were lost with the queue when the daemon ended.",
     addNumber<&QueueCounts::messagesLeft>},
};

}  // namespace

std::vector<MetricFamily> metricFamilies() {
  std::vector<MetricFamily> all(std::begin(kDaemonFamilies), std::end(kDaemonFamilies));
  all.insert(all.end(), std::begin(kStreamFamilies), std::end(kStreamFamilies));
  all.insert(all.end(), std::begin(kQueueFamilies), std::end(kQueueFamilies));
  return all;
}

std::string metricsText(const DaemonNumbers& numbers) {
  std::string text;
  for (const MetricFamily& family : metricFamilies()) {
    text += fmt::format("# HELP {0} {1}\n# TYPE {0} {2}\n", family.name, family.help, family.type);
    Samples samples(text, family.name);
    family.add(samples, numbers);
  }
  return text;
}

std::time_t lastSuccessIn(const std::string& metrics, const std::string& queue) {
  std::string sample;
  Samples(sample, kLastSuccess).add({{"queue", queue}}, "");
  sample.pop_back();  // the line feed
  const std::size_t at = metrics.find(sample);
  return at == std::string::npos ? 0 : std::atol(metrics.c_str() + at + sample.size());
}

}  // namespace korvexd
