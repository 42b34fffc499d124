#include "korvex/receiver/StreamDigest.h"

#include <cinttypes>
#include <cstdio>
#include <new>
#ifdef __x86_64__
#include <xxh_x86dispatch.h>
#else
#include <xxhash.h>
#endif

namespace korvex::receiver {
namespace {

/// On x86-64 dispatched at run time to the widest vector instructions that this processor has; the
/// plain function uses only those that every x86-64 has.
void update(XXH3_state_t* state, const unsigned char* data, std::size_t size) noexcept {
#ifdef __x86_64__
  XXH3_128bits_update_dispatch(state, data, size);
#else
  XXH3_128bits_update(state, data, size);
#endif
}

}  // namespace

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
  update(state_->xxh128, data, size);
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
