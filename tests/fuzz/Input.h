#ifndef TESTS_FUZZ_INPUT_H
#define TESTS_FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace korvex::test {

/// Ends the process, which both the fuzzer and the replay report with the input at hand.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "violated: %s\n", what);
  std::abort();
}

/// Takes an input apart. Past its end it gives zeros.
class Input {
 public:
  Input(const std::uint8_t* bytes, std::size_t size) : bytes_(bytes), left_(size) {}

  bool isEmpty() const { return left_ == 0; }

  std::uint8_t byte() {
    if (left_ == 0) return 0;
    --left_;
    return *bytes_++;
  }

  std::uint32_t word() {
    std::uint32_t value = 0;
    for (int i = 0; i < 4; ++i) value = value << 8 | byte();
    return value;
  }

  /// Up to `size` bytes of the input itself.
  const std::uint8_t* piece(std::size_t& size) {
    if (size > left_) size = left_;
    const std::uint8_t* const start = bytes_;
    bytes_ += size;
    left_ -= size;
    return start;
  }

 private:
  const std::uint8_t* bytes_;
  std::size_t left_;
};

}  // namespace korvex::test

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size);

#endif
