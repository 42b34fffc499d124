#include <gtest/gtest.h>
#include <sstream>
#include <string>

#include "inspect/HexDump.h"

namespace {

std::string dumpOf(const std::string& bytes, std::size_t offset) {
  std::ostringstream out;
  korvex::tool::writeHexDump(out, reinterpret_cast<const unsigned char*>(bytes.data()),
                             bytes.size(), offset, "> ");
  return out.str();
}

}  // namespace

TEST(HexDump, ShowsOffsetBytesAndPrintableCharacters) {
  EXPECT_EQ(dumpOf("hello korvex\n\x1f ~\x7f\xff!", 0x38),
            "> 00000038  68 65 6c 6c 6f 20 6b 6f  72 76 65 78 0a 1f 20 7e  |hello korvex.. ~|\n"
            "> 00000048  7f ff 21                                          |..!|\n");
}

TEST(HexDump, ShowsNothingForNoBytes) { EXPECT_EQ(dumpOf("", 0), ""); }

TEST(HexDump, StopsWhenTheStreamFails) {
  std::ostringstream out;
  out.setstate(std::ios::badbit);
  const unsigned char byte = 1;
  // A size that is not there: nothing of it may be looked at.
  korvex::tool::writeHexDump(out, &byte, std::size_t{1} << 30, 0, "");
  korvex::tool::writeHex(out, &byte, std::size_t{1} << 30);
  EXPECT_EQ(out.str(), "");
}

TEST(Hex, IsTwoDigitsForEachByte) {
  const std::string bytes(5000, '\x0f');
  std::ostringstream out;
  korvex::tool::writeHex(out, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
  EXPECT_EQ(out.str().size(), 10000u);
  EXPECT_EQ(out.str().find_first_not_of("0f"), std::string::npos);
  EXPECT_EQ(out.str().substr(8190, 4), "0f0f");
}
