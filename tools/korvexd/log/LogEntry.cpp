#include "korvexd/log/LogEntry.h"

#include <exception>
#include <spdlog/spdlog.h>

namespace korvexd {
namespace {

// The logging library carries a text and a level. The rest goes beside it, on the same thread.
thread_local const LogEntry* current = nullptr;

}  // namespace

void writeLog(const LogEntry& entry) noexcept {
  current = &entry;
  try {
    const std::string text = entry.fullText();
    spdlog::default_logger_raw()->log(entry.level, spdlog::string_view_t(text));
  } catch (const std::exception&) {
    // Nothing more can be said about it.
  }
  current = nullptr;
}

const LogEntry* entryBeingWritten() noexcept { return current; }

}  // namespace korvexd
