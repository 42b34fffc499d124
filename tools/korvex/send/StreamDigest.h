#ifndef KORVEX_TOOL_STREAM_DIGEST_H
#define KORVEX_TOOL_STREAM_DIGEST_H

#include <cstddef>
#include <cstdint>

#include "korvex/receiver/Receipt.h"
#include "korvex/receiver/StreamDigest.h"

namespace korvex::tool {

/// Counts and digests a stream's data as it goes by.
class StreamDigest {
 public:
  void add(const unsigned char* data, std::size_t size) noexcept {
    digest_.update(data, size);
    bytes_ += size;
  }

  std::uint64_t bytes() const noexcept { return bytes_; }

  /// What the daemon's receipt must say of the data so far.
  Receipt expected() const { return {bytes_, digest_.hex()}; }

 private:
  korvexd::Xxh128 digest_;
  std::uint64_t bytes_ = 0;
};

}  // namespace korvex::tool

#endif
