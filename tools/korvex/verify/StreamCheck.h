#ifndef KORVEX_TOOL_STREAM_CHECK_H
#define KORVEX_TOOL_STREAM_CHECK_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "StopSignal.h"
#include "verify/StoredManifest.h"
#include "verify/StoredStream.h"

namespace korvex::tool {

/// Which digests are computed.
enum class CheckDepth {
  Both,
  Quick  ///< XXH128 only
};

/// Checks stored streams against their manifests, one after the other. One per thread.
///
/// What lies in a stream's folder may be anything: links are not followed, pipes not waited for,
/// and files may change while they are read.
class StreamCheck {
 public:
  /// Adds to `bytesRead` as it goes on. A signal throws Interrupted.
  StreamCheck(CheckDepth depth, const StopSignal& stop, std::atomic<std::uint64_t>& bytesRead);

  /// Fills in the state and what there is to say of it.
  void check(StoredStream& stream);

 private:
  void checkFinal(int folder, StoredStream& stream);
  void checkData(int folder, const StoredManifest& manifest, StoredStream& stream);
  void digest(int data, const StoredManifest& manifest, StoredStream& stream);
  std::size_t readPiece(int file);

  CheckDepth depth_;
  const StopSignal& stop_;
  std::atomic<std::uint64_t>& bytesRead_;
  std::unique_ptr<unsigned char[]> piece_;
};

}  // namespace korvex::tool

#endif
