#ifndef KORVEX_TOOL_FAILURE_H
#define KORVEX_TOOL_FAILURE_H

#include <qmx/error.h>
#include <stdexcept>
#include <string>

#include "common/ExitCode.h"

namespace korvex::tool {

/// Why a command could not do its work, ready for a person to read.
///
/// The status is a number for programs: the writer's or the daemon's own, or the system's error
/// number where a file or a queue could not be used.
class Failure : public std::runtime_error {
 public:
  Failure(ov_status_t status, const std::string& text)
      : std::runtime_error(text), status_(status) {}

  ov_status_t status() const noexcept { return status_; }

 private:
  ov_status_t status_;
};

/// Thrown where a signal asked the process to end. Not an error, so not an exception class.
struct Interrupted {
  int signal;
};

}  // namespace korvex::tool

#endif
