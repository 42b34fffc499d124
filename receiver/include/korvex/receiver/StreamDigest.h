#ifndef KORVEX_RECEIVER_STREAM_DIGEST_H
#define KORVEX_RECEIVER_STREAM_DIGEST_H

#include <cstddef>
#include <cstdint>
#include <memory>

#include "korvex/receiver/Export.h"
#include "korvex/receiver/Receipt.h"

namespace korvex::receiver {

/// Counts and digests a stream's data as it goes by: XXH3 with 128 bits, fast enough for both ends
/// of every stream. It finds accidents, not forgeries.
class KORVEX_RECEIVER_EXPORT StreamDigest {
 public:
  /// Throws std::bad_alloc.
  StreamDigest();
  ~StreamDigest();
  StreamDigest(const StreamDigest&) = delete;
  StreamDigest& operator=(const StreamDigest&) = delete;

  void add(const unsigned char* data, std::size_t size) noexcept;

  std::uint64_t bytes() const noexcept { return bytes_; }

  /// What a receipt for the data so far says.
  Receipt expected() const;

  /// Starts again with nothing.
  void reset() noexcept;

 private:
  struct State;

  std::unique_ptr<State> state_;
  std::uint64_t bytes_ = 0;
};

}  // namespace korvex::receiver

#endif
