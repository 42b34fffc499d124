#include <gtest/gtest.h>

#include "common/Printable.h"

using korvex::common::byteText;
using korvex::common::columnsOf;
using korvex::common::cutToColumns;
using korvex::common::printable;
using korvex::common::timeText;
using korvex::common::unambiguous;

TEST(Printable, LeavesOrdinaryTextAlone) {
  EXPECT_EQ(printable("a b-c_d.\xc3\xa4"), "a b-c_d.\xc3\xa4");
}

TEST(PrintableUntrusted, ShowsControlBytesAsHex) {
  EXPECT_EQ(printable(std::string("a\n\x1b[2J\x7f\0z", 9)), "a\\x0a\\x1b[2J\\x7f\\x00z");
}

TEST(Printable, LeavesCharactersOfEveryLengthAlone) {
  for (const char* character : {"~", "\xc2\xa0", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf",
                                "\xee\x80\x80", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
    EXPECT_EQ(printable(character), character);
  }
}

// Terminals obey these as well: the first one begins the same commands as an escape does.
TEST(PrintableUntrusted, ShowsTheSecondRangeOfControlsAsHex) {
  EXPECT_EQ(printable("a\xc2\x9b"
                      "2Jz"),
            "a\\xc2\\x9b2Jz");
  EXPECT_EQ(printable("\xc2\x80\xc2\x9f\xc2\xa0"), "\\xc2\\x80\\xc2\\x9f\xc2\xa0");
}

TEST(PrintableUntrusted, ShowsWhatIsNoCharacterAsHex) {
  EXPECT_EQ(printable("\x9b"
                      "2J\x80\xff"),
            "\\x9b2J\\x80\\xff");
  EXPECT_EQ(printable("\xc3"), "\\xc3") << "cut";
  EXPECT_EQ(printable("\xe2\x82z"), "\\xe2\\x82z") << "cut by another character";
  EXPECT_EQ(printable("\xc0\xaf\xc1\xbf"), "\\xc0\\xaf\\xc1\\xbf") << "overlong";
  EXPECT_EQ(printable("\xe0\x9f\xbf"), "\\xe0\\x9f\\xbf") << "overlong";
  EXPECT_EQ(printable("\xed\xa0\x80"), "\\xed\\xa0\\x80") << "half of a pair";
  EXPECT_EQ(printable("\xf0\x8f\xbf\xbf"), "\\xf0\\x8f\\xbf\\xbf") << "overlong";
  EXPECT_EQ(printable("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80") << "behind the last";
  EXPECT_EQ(printable("\xf5\x80\x80\x80"), "\\xf5\\x80\\x80\\x80") << "never a first byte";
}

TEST(Unambiguous, GivesDifferentTextsForDifferentBytes) {
  EXPECT_EQ(unambiguous("/srv/a b"), "/srv/a b");
  EXPECT_EQ(unambiguous("\\"), "\\x5c");
  EXPECT_EQ(unambiguous("a\\x0a\n\xff"), "a\\x5cx0a\\x0a\\xff");
  EXPECT_EQ(unambiguous(""), "");
}

TEST(ColumnsOf, CountsWhatATerminalShows) {
  EXPECT_EQ(columnsOf(""), 0u);
  EXPECT_EQ(columnsOf("shop"), 4u);
  EXPECT_EQ(columnsOf("Gem\u00fcse"), 6u);
  EXPECT_EQ(columnsOf("\u5099\u4efd"), 4u) << "wide";
  EXPECT_EQ(columnsOf("e\u0301"), 1u) << "an accent of its own";
  EXPECT_EQ(columnsOf("\U0001f4be"), 2u);
  EXPECT_EQ(columnsOf("\xff"), 1u);
  EXPECT_EQ(columnsOf("\x1b"), 1u);
  // Each of these would have another width if a bit of it were lost.
  EXPECT_EQ(columnsOf("\u0483"), 0u);
  EXPECT_EQ(columnsOf("\u05c4"), 0u);
  EXPECT_EQ(columnsOf("\u3042"), 2u);
  EXPECT_EQ(columnsOf("\U000e0100"), 0u);
}

TEST(CutToColumns, NeverCutsACharacter) {
  EXPECT_EQ(cutToColumns("shop", 4), "shop");
  EXPECT_EQ(cutToColumns("shop", 3), "sho");
  EXPECT_EQ(cutToColumns("\u00fc\u00fc\u00fc", 2), "\u00fc\u00fc");
  EXPECT_EQ(cutToColumns("a\u5099\u4efd", 4), "a\u5099") << "half of it does not fit";
  EXPECT_EQ(cutToColumns("e\u0301x", 1), "e\u0301");
  EXPECT_EQ(cutToColumns("\xc3", 0), "");
}

TEST(ByteText, UsesPowersOfThousandWithOneDecimal) {
  EXPECT_EQ(byteText(0), "0 B");
  EXPECT_EQ(byteText(999), "999 B");
  EXPECT_EQ(byteText(1000), "1.0 kB");
  EXPECT_EQ(byteText(2149000000.0), "2.1 GB");
  EXPECT_EQ(byteText(3e18), "3000.0 PB");
}

TEST(ByteText, NeverRoundsUpToAThousand) {
  EXPECT_EQ(byteText(999.4), "999 B");
  EXPECT_EQ(byteText(999.5), "1.0 kB");
  EXPECT_EQ(byteText(999960), "1.0 MB");
}

TEST(TimeText, LeavesHoursOutWhenThereAreNone) {
  EXPECT_EQ(timeText(std::chrono::seconds(0)), "0:00");
  EXPECT_EQ(timeText(std::chrono::seconds(7)), "0:07");
  EXPECT_EQ(timeText(std::chrono::seconds(754)), "12:34");
  EXPECT_EQ(timeText(std::chrono::seconds(3599)), "59:59");
  EXPECT_EQ(timeText(std::chrono::seconds(3600)), "1:00:00");
}
