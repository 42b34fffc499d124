#ifndef KORVEX_COMMON_SHA256_H
#define KORVEX_COMMON_SHA256_H

#include <cstddef>
#include <memory>
#include <openssl/evp.h>
#include <string>

namespace korvex::common {

/// SHA-256 over bytes that come in pieces.
class Sha256 {
 public:
  Sha256();

  void update(const void* data, std::size_t size);

  /// Of everything so far: 64 lower-case hex digits.
  std::string hex() const;

 private:
  struct Free {
    void operator()(EVP_MD_CTX* context) const noexcept { EVP_MD_CTX_free(context); }
  };
  using Context = std::unique_ptr<EVP_MD_CTX, Free>;

  Context context_;
};

}  // namespace korvex::common

#endif
