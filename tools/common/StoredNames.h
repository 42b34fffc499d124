#ifndef KORVEX_COMMON_STORED_NAMES_H
#define KORVEX_COMMON_STORED_NAMES_H

#include <cstddef>
#include <cstdint>
#include <string_view>

/// What the daemon calls things on disk, and the tool looks for.
namespace korvex::common {

// A stored stream: a folder, whose name ends in the suffix until the stream is complete.
constexpr const char* kPartialSuffix = ".partial";
constexpr const char* kDataName = "data";
constexpr const char* kManifestName = "manifest.json";
constexpr std::uint64_t kManifestFormat = 1;  ///< its "format"

// A captured batch: QUEUE-NUMBER.batch.
constexpr std::string_view kCaptureSuffix = ".batch";
constexpr std::size_t kFewestCaptureDigits = 8;
constexpr std::size_t kMostCaptureDigits = 18;  ///< always fit into 64 bits

}  // namespace korvex::common

#endif
