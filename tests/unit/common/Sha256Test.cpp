#include <gtest/gtest.h>

#include "common/Sha256.h"

TEST(Sha256, OfNothing) {
  EXPECT_EQ(korvex::common::Sha256().hex(),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST(Sha256, DoesNotDependOnThePieces) {
  korvex::common::Sha256 digest;
  digest.update("ab", 2);
  EXPECT_EQ(digest.hex(), "fb8e20fc2e4c3f248c60c39bd652f3c1347298bb977b8b4d5903b85055620603");
  digest.update("c", 1);
  EXPECT_EQ(digest.hex(), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}
