#include "korvex/receiver/StreamDigest.h"

#include <xxh_x86dispatch.h>

#include <new>

#include "korvexd/Hex.h"

namespace korvexd {

Xxh128::Xxh128() : state_(XXH3_createState()) {
  if (state_ == nullptr) throw std::bad_alloc();
  reset();
}

void Xxh128::update(const void* data, std::size_t size) noexcept {
  XXH3_128bits_update_dispatch(state_.get(), data, size);
}

std::string Xxh128::hex() const {
  XXH128_canonical_t canonical;
  XXH128_canonicalFromHash(&canonical, XXH3_128bits_digest(state_.get()));
  return hexOf(canonical.digest, sizeof canonical.digest);
}

void Xxh128::reset() noexcept { XXH3_128bits_reset(state_.get()); }

}  // namespace korvexd
