#ifndef KORVEX_TOOL_STATUS_REPORT_H
#define KORVEX_TOOL_STATUS_REPORT_H

#include <ctime>
#include <korvex/receiver/Leftovers.h>
#include <optional>
#include <string>
#include <vector>

#include "Ending.h"
#include "status/DaemonStats.h"
#include "status/PairState.h"

namespace korvex::tool {

/// One look at everything.
struct StatusReport {
  /// A pair and what its daemon says of its streams.
  struct Pair {
    PairState state;
    std::optional<StreamStats> streams;
    double bytesPerSecond = 0;  ///< of the open stream
  };

  std::vector<Pair> pairs;
  std::vector<receiver::HalfMadeQueue> halfMade;
  std::vector<std::string> errors;  ///< of statistics that were asked for, and of a missing queue
  std::time_t now = 0;
  bool hasFailed = false;

  Ending ending() const;

  /// A table, with a line for each remark about a pair; ends with a line feed.
  std::string text() const;

  /// One JSON object on one line.
  std::string json() const;
};

/// Rows of equal columns, two spaces between them.
std::string tableOf(const std::vector<std::vector<std::string>>& rows);

}  // namespace korvex::tool

#endif
