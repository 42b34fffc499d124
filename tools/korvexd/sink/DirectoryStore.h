#ifndef KORVEXD_DIRECTORY_STORE_H
#define KORVEXD_DIRECTORY_STORE_H

#include <atomic>
#include <cstdint>
#include <ctime>
#include <korvex/receiver/Sink.h>
#include <memory>
#include <mutex>
#include <string>

#include "korvexd/os/File.h"
#include "korvexd/sink/ExtraDigest.h"

namespace korvexd {

namespace receiver = korvex::receiver;

/// The folder that streams are stored in, one folder for each, named
/// QUEUE-yyyymmddThhmmssZ-NUMBER. Any thread may open streams.
///
/// The folder is held open. While its path leads elsewhere (it was renamed, or something is mounted
/// there), no stream is stored: people would not find it. Once it was removed, the folder that has
/// its path then takes its place.
class DirectoryStore {
 public:
  /// The folder must exist and be writable. Throws SystemError.
  explicit DirectoryStore(const std::string& path);

  /// Makes a folder under a name that was never used here. Throws std::exception; nothing is left
  /// then.
  std::unique_ptr<receiver::Sink> open(const std::string& queue, std::time_t opened,
                                       ExtraDigest digest = ExtraDigest::Sha256);

 private:
  std::shared_ptr<const File> findFolder();

  const std::string path_;
  std::mutex mutex_;
  std::shared_ptr<const File> folder_;  ///< guarded by the mutex
  std::atomic<std::uint64_t> lastNumber_{0};
};

/// The path of the output folder leads to another one than it did. Throws std::runtime_error.
[[noreturn]] void throwOutputMoved(const std::string& path);

}  // namespace korvexd

#endif
