#include <cstdint>
#include <gtest/gtest.h>

#include "support/OstreamFormat.h"
#include "support/Text.h"
#include "support/ThrownError.h"

TEST(Text, JoinsItsPieces) {
  EXPECT_EQ(korvex::textOf("a ", std::string("b"), ' ', 7u, -1), "a b 7-1");
}

TEST(Text, NumbersUpTo64BitsAreUnsignedDecimal) {
  EXPECT_EQ(korvex::textOf(std::uint64_t{18446744073709551615u}, ',', std::uint32_t{4294967295u}),
            "18446744073709551615,4294967295");
}

TEST(Text, DigitsArePlainUnderAGroupingLocale) {
  const GlobalGrouping grouping;
  EXPECT_EQ(korvex::textOf(4294967295u), "4294967295");
}

TEST(Text, LeavesTheGlobalLocaleAlone) {
  const GlobalGrouping grouping;
  korvex::textOf(1);
  std::ostringstream stream;
  stream << 1000;
  EXPECT_EQ(stream.str(), "1.000");
}

TEST(Text, ThrownErrorCarriesStatusTextAndNoLocation) {
  EXPECT_EQ(thrownBy([] { korvex::throwError(85, "too large: ", 131073); }),
            (ThrownError{85, "too large: 131073", ""}));
}
