#ifndef KORVEX_TOOL_CAPTURE_FILE_H
#define KORVEX_TOOL_CAPTURE_FILE_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "StopSignal.h"

namespace korvex::tool {

/// A file that should hold one captured batch.
struct CaptureFile {
  std::string path;                     ///< "-" is standard input
  std::string capture;                  ///< the path without -NUMBER.batch; else the whole path
  std::optional<std::uint64_t> number;  ///< of the batch, where the name has one

  /// For people: the printable path, or "standard input".
  std::string title() const;
};

/// Reads the batch's number from a name QUEUE-NUMBER.batch as the daemon writes it: 8 to 18 digits.
CaptureFile captureFileOf(const std::string& path);

/// The files in the order in which their batches were captured: captures as they come first on the
/// command line, the files of each by number. A file without a number stays where it is, alone.
std::vector<CaptureFile> inBatchOrder(const std::vector<std::string>& paths);

/// All bytes of the file, unchecked; only the first few of one that does not begin as a batch does,
/// since it may be anything and of any size. Throws a Failure for a file that cannot be read, is
/// empty, or is larger than any batch that a daemon receives.
std::vector<unsigned char> readUntrusted(const CaptureFile& file, const StopSignal& stop);

}  // namespace korvex::tool

#endif
