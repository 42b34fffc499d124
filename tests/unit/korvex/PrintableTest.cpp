#include "Printable.h"

#include <gtest/gtest.h>

using korvex::tool::byteText;
using korvex::tool::printable;
using korvex::tool::timeText;

TEST(Printable, LeavesOrdinaryTextAlone) {
  EXPECT_EQ(printable("a b-c_d.\xc3\xa4"), "a b-c_d.\xc3\xa4");
}

TEST(PrintableUntrusted, ShowsControlBytesAsHex) {
  EXPECT_EQ(printable(std::string("a\n\x1b[2J\x7f\0z", 9)), "a\\x0a\\x1b[2J\\x7f\\x00z");
}

TEST(ByteText, UsesPowersOfThousandWithOneDecimal) {
  EXPECT_EQ(byteText(0), "0 B");
  EXPECT_EQ(byteText(999), "999 B");
  EXPECT_EQ(byteText(1000), "1.0 kB");
  EXPECT_EQ(byteText(2149000000.0), "2.1 GB");
  EXPECT_EQ(byteText(3e18), "3000.0 PB");
}

TEST(ByteText, NeverRoundsUpToAThousand) { EXPECT_EQ(byteText(999960), "1.0 MB"); }

TEST(TimeText, LeavesHoursOutWhenThereAreNone) {
  EXPECT_EQ(timeText(std::chrono::seconds(0)), "0:00");
  EXPECT_EQ(timeText(std::chrono::seconds(7)), "0:07");
  EXPECT_EQ(timeText(std::chrono::seconds(754)), "12:34");
  EXPECT_EQ(timeText(std::chrono::seconds(3599)), "59:59");
  EXPECT_EQ(timeText(std::chrono::seconds(3600)), "1:00:00");
}
