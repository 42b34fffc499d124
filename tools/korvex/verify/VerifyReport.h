#ifndef KORVEX_TOOL_VERIFY_REPORT_H
#define KORVEX_TOOL_VERIFY_REPORT_H

#include <cstdint>
#include <string>
#include <vector>

#include "Ending.h"
#include "Failure.h"
#include "verify/StoredStream.h"

namespace korvex::tool {

/// What was found out about stored streams, until all were checked or a signal came.
struct VerifyReport {
  std::vector<StoredStream> streams;  ///< in the order of the listing
  std::vector<Failure> failures;      ///< folders that could not be read
  std::uint64_t bytes = 0;            ///< of data that were read
  double seconds = 0;
  bool isQuick = false;
  int signal = 0;  ///< what ended it early; 0 for none

  std::uint64_t count(StreamState state) const;
  double bytesPerSecond() const { return seconds > 0 ? static_cast<double>(bytes) / seconds : 0; }

  /// A failure when anything is damaged or could not be looked at. Partial streams are no failure:
  /// they never promised anything.
  Ending ending() const;

  /// "2 complete, 0 damaged, 1 partial, 0 foreign; 1234 bytes in 0.5 s, 2.1 GB/s".
  std::string summary() const;

  /// One JSON object on one line.
  std::string json() const;
};

/// For people: "damaged   PATH: size: found 1 bytes, expected 2 bytes".
std::string lineOf(const StoredStream& stream);

}  // namespace korvex::tool

#endif
