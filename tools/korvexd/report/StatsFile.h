#ifndef KORVEXD_STATS_FILE_H
#define KORVEXD_STATS_FILE_H

#include <korvex/receiver/Counters.h>
#include <string>
#include <vector>

#include "korvexd/report/ReplacedFile.h"
#include "korvexd/report/StreamLog.h"

namespace korvexd {

namespace receiver = korvex::receiver;

/// Where one queue's numbers come from. They outlive the file.
struct QueueStats {
  std::string queue;
  const receiver::Counters* counters;
  const StreamLog* log = nullptr;  ///< without it, a queue has no history
};

/// Keeps the counts of all queues as JSON in one file: {"total": {...}, "queues": {NAME: {...}}}. A
/// queue also has what is known of its open stream and the last ones that ended.
///
/// Readers see a whole file, the old or the new one. Used by one thread.
class StatsFile {
 public:
  /// Touches no file yet.
  StatsFile(std::string path, std::vector<QueueStats> queues);

  /// Writes the file the first time, and then whenever something in it has changed. Throws as
  /// ReplacedFile::update() does.
  void update() { file_.update(text()); }

 private:
  std::string text() const;

  ReplacedFile file_;
  std::vector<QueueStats> queues_;
};

}  // namespace korvexd

#endif
