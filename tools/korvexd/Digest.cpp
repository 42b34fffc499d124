#include "korvexd/Digest.h"

#include <new>
#include <stdexcept>

namespace korvexd {
namespace {

std::string hexOf(const unsigned char* bytes, std::size_t size) {
  static const char digits[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < size; ++i) {
    text += digits[bytes[i] >> 4];
    text += digits[bytes[i] & 15];
  }
  return text;
}

void require(int succeeded) {
  if (succeeded != 1) throw std::runtime_error("computing SHA-256: the crypto library refused");
}

}  // namespace

Xxh128::Xxh128() : state_(XXH3_createState()) {
  if (state_ == nullptr) throw std::bad_alloc();
  reset();
}

void Xxh128::update(const void* data, std::size_t size) noexcept {
  XXH3_128bits_update(state_.get(), data, size);
}

std::string Xxh128::hex() const {
  XXH128_canonical_t canonical;
  XXH128_canonicalFromHash(&canonical, XXH3_128bits_digest(state_.get()));
  return hexOf(canonical.digest, sizeof canonical.digest);
}

void Xxh128::reset() noexcept { XXH3_128bits_reset(state_.get()); }

Sha256::Sha256() : context_(EVP_MD_CTX_new()) {
  if (context_ == nullptr) throw std::bad_alloc();
  require(EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr));
}

void Sha256::update(const void* data, std::size_t size) {
  require(EVP_DigestUpdate(context_.get(), data, size));
}

std::string Sha256::hex() const {
  // Finishing a copy leaves the original open for more.
  const Context copy(EVP_MD_CTX_new());
  if (copy == nullptr) throw std::bad_alloc();
  require(EVP_MD_CTX_copy_ex(copy.get(), context_.get()));
  unsigned char digest[EVP_MAX_MD_SIZE] = {};
  unsigned int size = 0;
  require(EVP_DigestFinal_ex(copy.get(), digest, &size));
  return hexOf(digest, size);
}

}  // namespace korvexd
