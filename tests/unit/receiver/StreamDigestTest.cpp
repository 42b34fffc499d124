#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "korvex/receiver/StreamDigest.h"

using korvex::receiver::StreamDigest;

namespace {

void add(StreamDigest& digest, const std::string& text) {
  digest.add(reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

}  // namespace

// The expected digests come from the xxhsum program (-H2).

TEST(StreamDigest, OfNothingIsThatOfTheEmptyInput) {
  const StreamDigest digest;
  EXPECT_EQ(digest.expected().bytes, 0u);
  EXPECT_EQ(digest.expected().xxh128, "99aa06d3014798d86001c324468d497f");
}

TEST(StreamDigest, IsWrittenInCanonicalOrder) {
  StreamDigest digest;
  add(digest, "abc");
  EXPECT_EQ(digest.expected().bytes, 3u);
  EXPECT_EQ(digest.expected().xxh128, "06b05ab6733a618578af5f94892f3950");
}

TEST(StreamDigest, DoesNotDependOnThePieces) {
  StreamDigest digest;
  const std::vector<unsigned char> zeros(100000);
  for (int i = 0; i < 3; ++i) digest.add(zeros.data(), zeros.size());
  EXPECT_EQ(digest.expected().bytes, 300000u);
  EXPECT_EQ(digest.expected().xxh128, "2257b674f1d4c8ada68e348d6f0dcdee");
}
