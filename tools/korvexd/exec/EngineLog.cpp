#include "korvexd/exec/EngineLog.h"

#include <algorithm>

#include "common/Printable.h"
#include "korvexd/log/LogWriter.h"

namespace korvexd {

void EngineLog::take(std::string_view untrusted, Clock::time_point now) {
  while (!untrusted.empty()) {
    const std::size_t size = std::min(untrusted.find_first_of("\r\n"), untrusted.size());
    takePart(untrusted.substr(0, size));
    if (size == untrusted.size()) return;
    endLine(now);
    untrusted.remove_prefix(size + 1);
  }
}

void EngineLog::takePart(std::string_view untrusted) {
  const std::size_t room = kLongestLine - line_.size();
  line_ += untrusted.substr(0, room);
  if (untrusted.size() > room) cutBytes_ += untrusted.size() - room;
}

void EngineLog::endLine(Clock::time_point now) {
  if (line_.empty()) return;
  lastLine_ = shownLine();
  line_.clear();
  cutBytes_ = 0;
  if (now - periodStart_ >= kPeriod) {
    printOmitted();
    periodStart_ = now;
    printed_ = 0;
  }
  if (printed_ == kMostLines) {
    ++omitted_;
    ++logLosses().held;
    return;
  }
  ++printed_;
  print_(lastLine_);
}

void EngineLog::end() {
  endLine(periodStart_);
  printOmitted();
}

void EngineLog::printOmitted() {
  if (omitted_ == 0) return;
  print_("(" + std::to_string(omitted_) + " more lines)");
  omitted_ = 0;
}

std::string EngineLog::lastLine() const { return line_.empty() ? lastLine_ : shownLine(); }

std::string EngineLog::shownLine() const {
  std::string shown = korvex::common::printable(line_);
  if (cutBytes_ != 0) shown += "... (" + std::to_string(cutBytes_) + " more bytes)";
  return shown;
}

}  // namespace korvexd
