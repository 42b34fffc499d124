#ifndef KORVEXD_CAPTURE_H
#define KORVEXD_CAPTURE_H

#include <cstddef>
#include <cstdint>
#include <korvex/receiver/SystemError.h>
#include <string>

#include "korvexd/os/File.h"

namespace korvexd {

namespace receiver = korvex::receiver;

/// Keeps every message of one queue as it came, in files QUEUE-NUMBER.batch. For one thread.
///
/// The folder is held open. While its path leads elsewhere (it was renamed, or something is mounted
/// there), nothing is stored: people would not find it. Once it was removed, the folder that has
/// its path then takes its place.
class Capture {
 public:
  /// The folder must exist. Throws SystemError.
  Capture(const std::string& folder, const std::string& queue);

  /// The highest number that an earlier daemon used for this queue, else 0. Go on from there.
  std::uint64_t lastNumber() const noexcept { return lastNumber_; }

  /// Throws std::exception: SystemError, even when the number is in use, or std::runtime_error when
  /// the path leads elsewhere.
  void store(std::uint64_t number, const unsigned char* untrusted, std::size_t size);

 private:
  void findFolder();

  const std::string path_;
  File folder_;
  std::string prefix_;
  std::uint64_t lastNumber_;
};

}  // namespace korvexd

#endif
