#ifndef KORVEXD_DIGEST_H
#define KORVEXD_DIGEST_H

#include <openssl/evp.h>
#include <xxhash.h>

#include <cstddef>
#include <memory>
#include <string>

namespace korvexd {

/// XXH3 with 128 bits over bytes that come in pieces. Fast enough for both ends of every stream.
class Xxh128 {
 public:
  Xxh128();

  void update(const void* data, std::size_t size) noexcept;

  /// Of everything so far: 32 lower-case hex digits, most significant first.
  std::string hex() const;

  /// Starts anew.
  void reset() noexcept;

 private:
  struct Free {
    void operator()(XXH3_state_t* state) const noexcept { XXH3_freeState(state); }
  };

  std::unique_ptr<XXH3_state_t, Free> state_;
};

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

}  // namespace korvexd

#endif
