#include "StreamDigest.h"

#include <xxh_x86dispatch.h>
#include <xxhash.h>

#include <new>

namespace korvex::tool {
namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

std::string hexOf(const XXH128_canonical_t& digest) {
  std::string text;
  for (const unsigned char byte : digest.digest) {
    text += kHexDigits[byte >> 4];
    text += kHexDigits[byte & 0xf];
  }
  return text;
}

}  // namespace

StreamDigest::StreamDigest() : state_(XXH3_createState()) {
  if (state_ == nullptr) throw std::bad_alloc();
  XXH3_128bits_reset(state_);
}

StreamDigest::~StreamDigest() { XXH3_freeState(state_); }

void StreamDigest::add(const unsigned char* data, std::size_t size) {
  XXH3_128bits_update_dispatch(state_, data, size);
  bytes_ += size;
}

Receipt StreamDigest::expected() const {
  XXH128_canonical_t canonical;
  XXH128_canonicalFromHash(&canonical, XXH3_128bits_digest(state_));
  return {bytes_, hexOf(canonical)};
}

}  // namespace korvex::tool
