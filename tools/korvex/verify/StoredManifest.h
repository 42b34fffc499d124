#ifndef KORVEX_TOOL_STORED_MANIFEST_H
#define KORVEX_TOOL_STORED_MANIFEST_H

#include <cstdint>
#include <string>
#include <string_view>

namespace korvex::tool {

/// What a stream folder's manifest.json says of its data.
struct StoredManifest {
  bool isComplete;
  std::string reason;  ///< why it is not complete; may hold anything
  std::uint64_t bytes;
  std::string sha256;  ///< 64 lower-case hex digits; empty if the daemon was to compute none
  std::string xxh128;  ///< 32 lower-case hex digits
};

/// Larger than any manifest that a daemon writes.
constexpr std::size_t kLargestManifest = std::size_t{1} << 20;

/// Reads a manifest's text. Every member that a daemon writes must be there and of the right kind;
/// members that are not known are ignored. Anything else throws a Failure whose text names the
/// member, the value found and the value expected.
StoredManifest parseManifest(std::string_view untrusted);

}  // namespace korvex::tool

#endif
