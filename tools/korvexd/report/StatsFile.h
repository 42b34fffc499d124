#ifndef KORVEXD_STATS_FILE_H
#define KORVEXD_STATS_FILE_H

#include <string>
#include <utility>
#include <vector>

#include "korvex/receiver/Counters.h"

namespace korvexd {

/// Keeps the counts of all queues as JSON in one file: {"total": {...}, "queues": {NAME: {...}}}.
///
/// Readers see a whole file, the old or the new one. Used by one thread.
class StatsFile {
 public:
  /// Keeps pointers to the counts. Touches no file yet.
  StatsFile(std::string path, std::vector<std::pair<std::string, const Stats*>> queues);

  /// Writes the file when a count has changed since the last time, and the first time. Throws
  /// SystemError.
  void update();

 private:
  std::string text() const;

  std::string path_;
  std::vector<std::pair<std::string, const Stats*>> queues_;
  std::string written_;
};

}  // namespace korvexd

#endif
