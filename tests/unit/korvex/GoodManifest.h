#ifndef TESTS_UNIT_KORVEX_GOOD_MANIFEST_H
#define TESTS_UNIT_KORVEX_GOOD_MANIFEST_H

#include <nlohmann/json.hpp>
#include <string>

namespace korvex::test {

// Of "abc", from the digests' own definitions.
const std::string kSha256 = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
const std::string kXxh128 = "06b05ab6733a618578af5f94892f3950";

/// The manifest of a complete stream that holds "abc".
inline nlohmann::json goodManifest() {
  return {{"format", 1},
          {"queue", "q"},
          {"state", "complete"},
          {"reason", ""},
          {"bytes", 3},
          {"segments", 1},
          {"records", 4},
          {"sha256", kSha256},
          {"xxh128", kXxh128},
          {"opened", "2026-11-21T00:56:23Z"},
          {"closed", "2026-11-21T00:56:24Z"}};
}

}  // namespace korvex::test

#endif
