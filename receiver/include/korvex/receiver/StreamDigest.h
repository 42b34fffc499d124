#ifndef KORVEXD_XXH128_H
#define KORVEXD_XXH128_H

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

}  // namespace korvexd

#endif
