#include "common/Sha256.h"

#include <new>
#include <spdlog/fmt/ranges.h>
#include <stdexcept>

namespace korvex::common {
namespace {

void require(int succeeded) {
  if (succeeded != 1) throw std::runtime_error("computing SHA-256: the crypto library refused");
}

}  // namespace

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
  return fmt::format("{:02x}", fmt::join(digest, digest + size, ""));
}

}  // namespace korvex::common
