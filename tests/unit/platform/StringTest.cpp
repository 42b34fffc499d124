#include <gtest/gtest.h>
#include <memory>
#include <qmx/string.h>
#include <string>

namespace {

TEST(BoundedCopy, CopiesWhatFitsAndTerminatesIt) {
  char destination[8] = "xxxxxxx";
  EXPECT_EQ(qmxstrcpy(destination, "abc", sizeof destination), destination);
  EXPECT_STREQ(destination, "abc");
}

TEST(BoundedCopy, LeavesTheBytesBehindTheEndAlone) {
  char destination[8] = "xxxxxxx";
  qmxstrcpy(destination, "abc", sizeof destination);
  EXPECT_EQ(std::string(destination, sizeof destination), std::string("abc\0xxx\0", 8));
}

TEST(BoundedCopy, TakesATextThatFillsTheDestination) {
  char destination[4];
  qmxstrcpy(destination, "abc", sizeof destination);
  EXPECT_STREQ(destination, "abc");
}

TEST(BoundedCopy, CutsATextThatIsOneByteTooLong) {
  char destination[4];
  qmxstrcpy(destination, "abcd", sizeof destination);
  EXPECT_STREQ(destination, "abc");
}

TEST(BoundedCopy, WritesOnlyTheEndIntoOneByte) {
  char destination = 'x';
  qmxstrcpy(&destination, "abc", 1);
  EXPECT_EQ(destination, '\0');
}

TEST(BoundedCopy, WritesNothingWithoutRoom) {
  char destination = 'x';
  EXPECT_EQ(qmxstrcpy(&destination, "abc", 0), &destination);
  EXPECT_EQ(destination, 'x');
}

TEST(BoundedCopy, ReadsNoFurtherThanItCopies) {
  const std::unique_ptr<char[]> endless(new char[3]{'a', 'b', 'c'});  // a sanitizer sees an overrun
  char destination[4];
  qmxstrcpy(destination, endless.get(), sizeof destination);
  EXPECT_STREQ(destination, "abc");
}

}  // namespace
