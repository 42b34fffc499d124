#ifndef KORVEXD_LOG_ENTRY_H
#define KORVEXD_LOG_ENTRY_H

#include <cstddef>
#include <cstdint>
#include <exception>
#include <spdlog/common.h>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace korvexd {

/// What a line of the log is about. The names are for programs and never change; docs/logs.md lists
/// them.
enum class Event : std::size_t {
  Note,
  HalfMadeRemoved,
  Memory,
  State,
  Serving,
  StreamOpened,
  StreamComplete,
  StreamIncomplete,
  AbandonFailed,
  BatchRefused,
  RecordRefused,
  QueuesLost,
  QueuesNotReplaced,
  QueuesReplaced,
  SettingsAccepted,
  SettingsChanged,
  SettingsNotChanged,
  NotServed,
  NoLongerServed,
  MessagesLeft,
  CaptureFailed,
  EngineLine,
  FileFailed,
  LoopStuck,
  LoopMoves,
  ManagerUnreachable,
  ConfigurationRead,
  ConfigurationMistake,
  ConfigurationRefused,
  Draining,
  EndHangs,
  LinesHeld,
  LinesLost,
  DaemonFailed
};

struct EventName {
  Event event;
  const char* name;
};

constexpr EventName kEventNames[] = {{Event::Note, "note"},
                                     {Event::HalfMadeRemoved, "half_made_removed"},
                                     {Event::Memory, "memory"},
                                     {Event::State, "state"},
                                     {Event::Serving, "serving"},
                                     {Event::StreamOpened, "stream_opened"},
                                     {Event::StreamComplete, "stream_complete"},
                                     {Event::StreamIncomplete, "stream_incomplete"},
                                     {Event::AbandonFailed, "abandon_failed"},
                                     {Event::BatchRefused, "batch_refused"},
                                     {Event::RecordRefused, "record_refused"},
                                     {Event::QueuesLost, "queues_lost"},
                                     {Event::QueuesNotReplaced, "queues_not_replaced"},
                                     {Event::QueuesReplaced, "queues_replaced"},
                                     {Event::SettingsAccepted, "settings_accepted"},
                                     {Event::SettingsChanged, "settings_changed"},
                                     {Event::SettingsNotChanged, "settings_not_changed"},
                                     {Event::NotServed, "not_served"},
                                     {Event::NoLongerServed, "no_longer_served"},
                                     {Event::MessagesLeft, "messages_left"},
                                     {Event::CaptureFailed, "capture_failed"},
                                     {Event::EngineLine, "engine_line"},
                                     {Event::FileFailed, "file_failed"},
                                     {Event::LoopStuck, "loop_stuck"},
                                     {Event::LoopMoves, "loop_moves"},
                                     {Event::ManagerUnreachable, "manager_unreachable"},
                                     {Event::ConfigurationRead, "configuration_read"},
                                     {Event::ConfigurationMistake, "configuration_mistake"},
                                     {Event::ConfigurationRefused, "configuration_refused"},
                                     {Event::Draining, "draining"},
                                     {Event::EndHangs, "end_hangs"},
                                     {Event::LinesHeld, "lines_held"},
                                     {Event::LinesLost, "lines_lost"},
                                     {Event::DaemonFailed, "daemon_failed"}};
static_assert(sizeof kEventNames / sizeof *kEventNames ==
                  static_cast<std::size_t>(Event::DaemonFailed) + 1,
              "one name for each event");

constexpr const char* nameOf(Event event) noexcept {
  return kEventNames[static_cast<std::size_t>(event)].name;
}

/// One line of the log: the text for people, and the same in parts for programs.
struct LogEntry {
  using Value = std::variant<std::string, std::uint64_t>;

  LogEntry(Event what, spdlog::level::level_enum severity, std::string about, std::string line)
      : event(what), level(severity), queue(std::move(about)), text(std::move(line)) {}

  /// A part that the text holds too, by its own name. For programs only.
  LogEntry&& with(const char* name, Value value) && {
    fields.emplace_back(name, std::move(value));
    return std::move(*this);
  }

  /// With the queue in front, if it is about one.
  std::string fullText() const { return queue.empty() ? text : queue + ": " + text; }

  Event event;
  spdlog::level::level_enum level;
  std::string queue;  ///< empty for what is about the daemon
  std::string text;   ///< without the queue
  std::vector<std::pair<const char*, Value>> fields;
};

/// Writes it to the process's log; one that memory is too short for is lost. Any thread may call
/// it.
void writeLog(const LogEntry& entry) noexcept;

/// The same for callers that must not throw: memory may be too short already for the entry that
/// `make` gives.
template <typename Make>
void tryToLog(Make make) noexcept {
  try {
    writeLog(make());
  } catch (const std::exception&) {
  }
}

/// The entry that this thread is writing just now; none for what comes to the log otherwise.
const LogEntry* entryBeingWritten() noexcept;

}  // namespace korvexd

#endif
