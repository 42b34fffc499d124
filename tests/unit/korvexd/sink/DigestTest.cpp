#include <gtest/gtest.h>

#include "korvexd/sink/Sha256.h"
#include "korvex/receiver/StreamDigest.h"

TEST(Xxh128, OfNothing) { EXPECT_EQ(korvexd::Xxh128().hex(), "99aa06d3014798d86001c324468d497f"); }

TEST(Xxh128, DoesNotDependOnThePieces) {
  korvexd::Xxh128 digest;
  digest.update("a", 1);
  digest.update("bc", 2);
  EXPECT_EQ(digest.hex(), "06b05ab6733a618578af5f94892f3950");
  digest.reset();
  digest.update("abc", 3);
  EXPECT_EQ(digest.hex(), "06b05ab6733a618578af5f94892f3950");
}

TEST(Sha256, OfNothing) {
  EXPECT_EQ(korvexd::Sha256().hex(),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST(Sha256, DoesNotDependOnThePieces) {
  korvexd::Sha256 digest;
  digest.update("ab", 2);
  EXPECT_EQ(digest.hex(), "fb8e20fc2e4c3f248c60c39bd652f3c1347298bb977b8b4d5903b85055620603");
  digest.update("c", 1);
  EXPECT_EQ(digest.hex(), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}
