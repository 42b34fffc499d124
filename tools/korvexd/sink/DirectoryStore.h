#ifndef KORVEXD_DIRECTORY_STORE_H
#define KORVEXD_DIRECTORY_STORE_H

#include <atomic>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

#include "korvexd/os/File.h"
#include "korvex/receiver/Sink.h"

namespace korvexd {

namespace receiver = korvex::receiver;

/// The folder that streams are stored in, one folder for each, named
/// QUEUE-yyyymmddThhmmssZ-NUMBER. Outlives its sinks. Any thread may open streams.
class DirectoryStore {
 public:
  /// The folder must exist. Throws SystemError.
  explicit DirectoryStore(const std::string& path);

  /// Makes a folder under a name that was never used here. Throws SystemError.
  std::unique_ptr<receiver::Sink> open(const std::string& queue, std::time_t opened);

 private:
  bool tryToMake(const std::string& name) const;

  std::string path_;
  File folder_;
  std::atomic<std::uint64_t> lastNumber_{0};
};

}  // namespace korvexd

#endif
