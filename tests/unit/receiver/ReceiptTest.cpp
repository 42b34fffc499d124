#include <cstring>
#include <gtest/gtest.h>

#include "korvex/receiver/Receipt.h"

namespace {

using korvex::receiver::Receipt;

const std::string kDigest = "0123456789abcdef0123456789abcdef";

}  // namespace

TEST(Receipt, HoldsBytesAndDigest) {
  const auto receipt = Receipt::parse("stored bytes=1234 xxh128=" + kDigest);
  ASSERT_TRUE(receipt);
  EXPECT_EQ(receipt->bytes, 1234u);
  EXPECT_EQ(receipt->xxh128, kDigest);
}

TEST(Receipt, ReachesTheLargestCount) {
  const auto receipt = Receipt::parse("stored bytes=18446744073709551615 xxh128=" + kDigest);
  ASSERT_TRUE(receipt);
  EXPECT_EQ(receipt->bytes, 18446744073709551615u);
}

TEST(Receipt, MayBeForNothing) {
  const auto receipt = Receipt::parse("stored bytes=0 xxh128=" + kDigest);
  ASSERT_TRUE(receipt);
  EXPECT_EQ(receipt->bytes, 0u);
}

TEST(Receipt, IsEqualOnlyWithBothParts) {
  EXPECT_TRUE((Receipt{1, "a"} == Receipt{1, "a"}));
  EXPECT_FALSE((Receipt{2, "a"} == Receipt{1, "a"}));
  EXPECT_FALSE((Receipt{1, "b"} == Receipt{1, "a"}));
}

TEST(Receipt, TellsItselfAsTheDaemonWould) {
  EXPECT_EQ((Receipt{7, kDigest}.text()), "bytes=7 xxh128=" + kDigest);
}

TEST(ReceiptUntrusted, RefusesNumbersAbove64Bits) {
  EXPECT_FALSE(Receipt::parse("stored bytes=18446744073709551616 xxh128=" + kDigest));
  EXPECT_FALSE(Receipt::parse("stored bytes=" + std::string(60, '9') + " xxh128=" + kDigest));
}

TEST(ReceiptUntrusted, RefusesWhatIsNoPlainNumber) {
  for (const char* number : {"", "-1", "+1", " 1", "1 ", "0x1", "1.0", "1,000", "01", "00"}) {
    EXPECT_FALSE(Receipt::parse("stored bytes=" + std::string(number) + " xxh128=" + kDigest))
        << number;
  }
}

TEST(ReceiptUntrusted, RefusesAnyOtherDigest) {
  const std::string digits31 = kDigest.substr(1);
  for (const std::string& digest : {std::string(), digits31, kDigest + "0", digits31 + "g",
                                    digits31 + "A", digits31 + " ", digits31 + '\0'}) {
    EXPECT_FALSE(Receipt::parse("stored bytes=1 xxh128=" + digest)) << digest;
  }
}

TEST(ReceiptUntrusted, RefusesEveryTruncation) {
  const std::string whole = "stored bytes=1 xxh128=" + kDigest;
  for (std::size_t size = 0; size < whole.size(); ++size) {
    EXPECT_FALSE(Receipt::parse(whole.substr(0, size))) << "cut after " << size << " bytes";
  }
}

TEST(ReceiptUntrusted, RefusesOtherWords) {
  EXPECT_FALSE(Receipt::parse("Stored bytes=1 xxh128=" + kDigest));
  EXPECT_FALSE(Receipt::parse(" stored bytes=1 xxh128=" + kDigest));
  EXPECT_FALSE(Receipt::parse("stored bytes=1 xxh64=" + kDigest));
  EXPECT_FALSE(Receipt::parse("stored bytes=1 xxh128=" + kDigest + "\n"));
}

TEST(ReplyTextUntrusted, EndsWithTheFieldWhenThereIsNoNul) {
  korvex::qmx_shm_response_t reply;
  std::memset(reply.message, 'x', sizeof reply.message);
  EXPECT_EQ(korvex::receiver::textOf(reply), std::string(128, 'x'));
}

TEST(ReplyText, EndsAtTheNul) {
  korvex::qmx_shm_response_t reply;
  reply.assign(5, "disk full");
  EXPECT_EQ(korvex::receiver::textOf(reply), "disk full");
}
