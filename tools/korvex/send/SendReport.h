#ifndef KORVEX_TOOL_SEND_REPORT_H
#define KORVEX_TOOL_SEND_REPORT_H

#include <cstdint>
#include <optional>
#include <qmx/error.h>
#include <string>

#include "send/ChildProcess.h"

namespace korvex::tool {

/// The result of a stream, whether it succeeded or not.
struct SendReport {
  std::uint64_t bytes = 0;  ///< of data handed to the writer
  std::uint64_t segments = 0;
  double seconds = 0;
  std::string xxh128;
  bool isVerified = false;
  ov_status_t status = 0;
  std::string message;
  int exitCode = 0;
  int signal = 0;                     ///< what ended it; 0 for none
  std::optional<ProcessEnd> command;  ///< how the command that produced the data ended

  double bytesPerSecond() const { return seconds > 0 ? static_cast<double>(bytes) / seconds : 0; }

  /// "sent 1234 bytes in 3 segments, 0.5 s, 2.1 GB/s: " and the message.
  std::string summary() const;

  /// One JSON object on one line.
  std::string json() const;
};

}  // namespace korvex::tool

#endif
