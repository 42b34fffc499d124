#ifndef KORVEX_RECEIVER_STREAM_DIGEST_H
#define KORVEX_RECEIVER_STREAM_DIGEST_H

#include <cstddef>
#include <cstdint>
#include <memory>

#include "korvex/receiver/Export.h"
#include "korvex/receiver/Receipt.h"

namespace korvex::receiver {

/// Counts and hashes a stream's data as it passes: 128-bit XXH3, fast enough for both ends of every
/// stream. It detects accidents, not forgeries.
class KORVEX_RECEIVER_EXPORT StreamDigest {
 public:
  /// Throws std::bad_alloc.
  StreamDigest();
  ~StreamDigest();
  StreamDigest(const StreamDigest&) = delete;
  StreamDigest& operator=(const StreamDigest&) = delete;

  /// Takes the next bytes of the stream.
  void add(const unsigned char* data, std::size_t size) noexcept;

  /// How many bytes it has taken.
  std::uint64_t bytes() const noexcept { return bytes_; }

  /// The receipt for the data so far.
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
