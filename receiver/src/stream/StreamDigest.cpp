#include "korvex/receiver/StreamDigest.h"

#include <cinttypes>
#include <cstdio>
#include <new>
#include <xxh_x86dispatch.h>

namespace korvex::receiver {

struct StreamDigest::State {
  State() : xxh128(XXH3_createState()) {
    if (xxh128 == nullptr) throw std::bad_alloc();
  }
  ~State() { XXH3_freeState(xxh128); }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  XXH3_state_t* xxh128;  ///< allocated by xxHash, which needs it aligned
};

StreamDigest::StreamDigest() : state_(std::make_unique<State>()) { reset(); }

StreamDigest::~StreamDigest() = default;

void StreamDigest::add(const unsigned char* data, std::size_t size) noexcept {
  XXH3_128bits_update_dispatch(state_->xxh128, data, size);
  bytes_ += size;
}

Receipt StreamDigest::expected() const {
  const XXH128_hash_t hash = XXH3_128bits_digest(state_->xxh128);
  char digits[33];
  std::snprintf(digits, sizeof digits, "%016" PRIx64 "%016" PRIx64, std::uint64_t{hash.high64},
                std::uint64_t{hash.low64});
  return {bytes_, digits};
}

void StreamDigest::reset() noexcept {
  XXH3_128bits_reset(state_->xxh128);
  bytes_ = 0;
}

}  // namespace korvex::receiver
