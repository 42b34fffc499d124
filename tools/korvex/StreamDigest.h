#ifndef KORVEX_TOOL_STREAM_DIGEST_H
#define KORVEX_TOOL_STREAM_DIGEST_H

#include <cstddef>
#include <cstdint>
#include <memory>

#include "Receipt.h"

struct XXH3_state_s;

namespace korvex::tool {

/// Counts and digests a stream's data as it goes by.
class StreamDigest {
 public:
  StreamDigest();
  ~StreamDigest();
  StreamDigest(const StreamDigest&) = delete;
  StreamDigest& operator=(const StreamDigest&) = delete;

  void add(const unsigned char* data, std::size_t size);

  std::uint64_t bytes() const noexcept { return bytes_; }

  /// What the daemon's receipt must say of the data so far.
  Receipt expected() const;

 private:
  XXH3_state_s* state_;  ///< owned
  std::uint64_t bytes_ = 0;
};

}  // namespace korvex::tool

#endif
