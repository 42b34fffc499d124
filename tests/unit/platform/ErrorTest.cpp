#include <gtest/gtest.h>
#include <qmx/error.h>

namespace {

TEST(ErrnoException, KeepsStatusMessageAndLocation) {
  const Ov_ErrnoException error(4294967295u, "no room", "here");
  EXPECT_EQ(error.getStatus(), 4294967295u);
  EXPECT_EQ(error.getMessage(), "no room");
  EXPECT_EQ(error.getLocation(), "here");
}

TEST(ErrnoException, WhatIsTheMessage) {
  EXPECT_STREQ(Ov_ErrnoException(4, "no room", "here").what(), "no room");
}

TEST(ErrnoException, IsCaughtAsStandardException) {
  EXPECT_THROW(throw Ov_ErrnoException(4, "no room", ""), std::exception);
}

TEST(ErrnoException, CopiesOwnTheirTexts) {
  Ov_ErrnoException copy(0, "", "");
  {
    const Ov_ErrnoException original(4, "no room", "here");
    copy = original;
  }
  const Ov_ErrnoException second(copy);
  EXPECT_EQ(second.getStatus(), 4u);
  EXPECT_STREQ(second.what(), "no room");
  EXPECT_EQ(second.getLocation(), "here");
}

}  // namespace
