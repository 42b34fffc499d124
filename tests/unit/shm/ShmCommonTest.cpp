#include <algorithm>
#include <cstddef>
#include <cstring>
#include <gtest/gtest.h>
#include <new>
#include <sstream>
#include <tuple>
#include <type_traits>

#include "korvex/ShmCommon.h"
#include "korvex/Status.h"
#include "support/Bytes.h"
#include "support/OstreamFormat.h"
#include "support/ThrownError.h"

using korvex::qmx_shm_message_t;
using korvex::qmx_shm_response_t;

static_assert(std::is_same<std::underlying_type<korvex_seg_state_t>::type, std::int32_t>::value,
              "holds any 32-bit value");
static_assert(KORVEX_SEG_STATE_LIMITED == 0 && KORVEX_SEG_STATE_UNLIMITED == 1,
              "the values travel in headers");
static_assert(korvex::MAX_SEGMENT_SIZE == 131072, "daemons rely on it");

static_assert(std::is_trivially_copyable<qmx_shm_message_t>::value, "a plain value");
static_assert(std::is_standard_layout<qmx_shm_message_t>::value, "no virtual operations");
static_assert(sizeof(qmx_shm_message_t) == 48, "no padding in memory either");
static_assert(offsetof(qmx_shm_message_t, type) == 0 && offsetof(qmx_shm_message_t, len) == 4 &&
                  offsetof(qmx_shm_message_t, sequence) == 8 &&
                  offsetof(qmx_shm_message_t, segmentCount) == 16 &&
                  offsetof(qmx_shm_message_t, segmentEmpty) == 24 &&
                  offsetof(qmx_shm_message_t, segState) == 28 &&
                  offsetof(qmx_shm_message_t, algParam1) == 32 &&
                  offsetof(qmx_shm_message_t, algParam2) == 36 &&
                  offsetof(qmx_shm_message_t, algParam3) == 40 &&
                  offsetof(qmx_shm_message_t, magic) == 44,
              "binary interface");

static_assert(std::is_trivially_copyable<qmx_shm_response_t>::value, "travels as raw memory");
static_assert(std::is_standard_layout<qmx_shm_response_t>::value, "travels as raw memory");
static_assert(sizeof(qmx_shm_response_t) == 132 && offsetof(qmx_shm_response_t, status) == 0 &&
                  offsetof(qmx_shm_response_t, message) == 4,
              "travels as raw memory");

namespace {

constexpr std::size_t kHeaderSize = 48;

const char* const kDefaultBytes =
    "00000000 00000000 "           // type, len
    "00000000 00000000 "           // sequence
    "00000000 00000000 "           // segmentCount
    "00000001 00000000 "           // segmentEmpty, segState
    "00000000 00000000 00000000 "  // algParam1 to algParam3
    "aabbccdd";                    // magic

const char* const kDistinctBytes =
    "01020304 05060708 "           // type, len
    "11121314 15161718 "           // sequence
    "21222324 25262728 "           // segmentCount
    "31323334 41424344 "           // segmentEmpty, segState
    "51525354 61626364 71727374 "  // algParam1 to algParam3
    "aabbccdd";                    // magic

/// No two bytes of this header are equal, so no two can be exchanged unseen.
qmx_shm_message_t distinctHeader() {
  qmx_shm_message_t header;
  header.type = 0x01020304;
  header.len = 0x05060708;
  header.sequence = 0x1112131415161718;
  header.segmentCount = 0x2122232425262728;
  header.segmentEmpty = 0x31323334;
  header.segState = 0x41424344;
  header.algParam1 = 0x51525354;
  header.algParam2 = 0x61626364;
  header.algParam3 = 0x71727374;
  return header;
}

/// Every field, in declaration order.
auto fieldsOf(const qmx_shm_message_t& header) {
  return std::make_tuple(header.type, header.len, header.sequence, header.segmentCount,
                         header.segmentEmpty, header.segState, header.algParam1, header.algParam2,
                         header.algParam3, header.magic);
}

std::string writtenHex(const qmx_shm_message_t& header) {
  Bytes bytes(kHeaderSize, 0xee);
  header.serializeToBuffer(bytes.data());
  return hexOf(bytes);
}

std::string printed(const qmx_shm_message_t& header) {
  std::ostringstream stream;
  stream << header;
  return stream.str();
}

}  // namespace

TEST(MessageHeader, SerializedSizeIs48) { EXPECT_EQ(qmx_shm_message_t::getSerializedSize(), 48u); }

TEST(MessageHeader, StartsFromZeroExceptSegmentEmptyAndMagic) {
  EXPECT_EQ(fieldsOf(qmx_shm_message_t()),
            std::make_tuple(0u, 0u, 0u, 0u, 1u, 0u, 0u, 0u, 0u, 0xaabbccddu));
}

TEST(MessageBytes, DefaultHeaderIsZeroExceptSegmentEmptyAndMagic) {
  EXPECT_EQ(writtenHex(qmx_shm_message_t()), hex(kDefaultBytes));
}

TEST(MessageBytes, AreWrittenFieldByFieldBigEndian) {
  EXPECT_EQ(writtenHex(distinctHeader()), hex(kDistinctBytes));
}

TEST(MessageBytes, AreReadFieldByFieldBigEndian) {
  qmx_shm_message_t header;
  header.deserializeFromBuffer(bytesOf(kDistinctBytes).data());
  EXPECT_EQ(fieldsOf(header), fieldsOf(distinctHeader()));
}

TEST(MessageBytes, SequenceOfOneEndsItsEightBytesWithOne) {
  qmx_shm_message_t header;
  header.sequence = 1;
  EXPECT_EQ(writtenHex(header).substr(16, 16), "0000000000000001");
}

TEST(MessageBytes, LargestValuesKeepAllTheirBits) {
  qmx_shm_message_t header;
  header.sequence = 0xffffffffffffffff;
  header.segmentCount = 0xfffffffffffffffe;
  EXPECT_EQ(writtenHex(header).substr(16, 32), "fffffffffffffffffffffffffffffffe");
}

TEST(MessageBytes, CarryTheMagicThatTheHeaderHolds) {
  qmx_shm_message_t header;
  header.magic = 0x01020304;
  EXPECT_EQ(writtenHex(header).substr(88), "01020304");
}

TEST(MessageBytes, WritingReturnsTheByteAfterTheHeader) {
  Bytes bytes(kHeaderSize);
  EXPECT_EQ(qmx_shm_message_t().serializeToBuffer(bytes.data()), bytes.data() + 48);
}

TEST(MessageBytes, ReadingReturnsTheByteAfterTheHeader) {
  const Bytes bytes = bytesOf(kDefaultBytes);
  qmx_shm_message_t header = distinctHeader();
  EXPECT_EQ(header.deserializeFromBuffer(bytes.data()), bytes.data() + 48);
  EXPECT_EQ(fieldsOf(header), fieldsOf(qmx_shm_message_t()));
}

TEST(MessageBytes, NothingIsWrittenAroundTheHeader) {
  Bytes bytes(kHeaderSize + 2, 0xee);
  distinctHeader().serializeToBuffer(bytes.data() + 1);
  EXPECT_EQ(bytes.front(), 0xee);
  EXPECT_EQ(bytes.back(), 0xee);
}

TEST(MessageBytes, AreWrittenAtAnyAlignment) {
  for (std::size_t offset = 0; offset < 8; ++offset) {
    Bytes bytes(offset + kHeaderSize);
    distinctHeader().serializeToBuffer(bytes.data() + offset);
    EXPECT_EQ(hexOf(bytes.data() + offset, kHeaderSize), hex(kDistinctBytes)) << offset;
  }
}

TEST(MessageBytes, AreReadAtAnyAlignment) {
  for (std::size_t offset = 0; offset < 8; ++offset) {
    Bytes bytes(offset);
    const Bytes whole = bytesOf(kDistinctBytes);
    bytes.insert(bytes.end(), whole.begin(), whole.end());
    qmx_shm_message_t header;
    header.deserializeFromBuffer(bytes.data() + offset);
    EXPECT_EQ(fieldsOf(header), fieldsOf(distinctHeader())) << offset;
  }
}

TEST(MessageMagic, LittleEndianIsRefusedAndReported) {
  Bytes bytes = bytesOf(kDistinctBytes);
  const Bytes swapped = bytesOf("ddccbbaa");
  std::copy(swapped.begin(), swapped.end(), bytes.begin() + 44);
  qmx_shm_message_t header;
  EXPECT_EQ(thrownBy([&] { header.deserializeFromBuffer(bytes.data()); }),
            (ThrownError{korvex::kStatusCorrupt,
                         "Could not deserialize qmx_shm_message from buffer because the magic "
                         "value 3721182122 is corrupt (expected=2864434397)"}));
}

TEST(MessageMagic, RefusedHeaderKeepsAllThatWasRead) {
  Bytes bytes = bytesOf(kDistinctBytes);
  bytes[47] = 0xde;
  qmx_shm_message_t expected = distinctHeader();
  expected.magic = 0xaabbccde;
  qmx_shm_message_t header;
  EXPECT_THROW(header.deserializeFromBuffer(bytes.data()), Ov_ErrnoException);
  EXPECT_EQ(fieldsOf(header), fieldsOf(expected));
}

TEST(MessageMagic, ZeroedBlockIsRefused) {
  const Bytes zeros(kHeaderSize);
  EXPECT_EQ(thrownBy([&] { qmx_shm_message_t().deserializeFromBuffer(zeros.data()); }),
            (ThrownError{korvex::kStatusCorrupt,
                         "Could not deserialize qmx_shm_message from buffer because the magic "
                         "value 0 is corrupt (expected=2864434397)"}));
}

TEST(MessageMagic, IsReportedInPlainDigitsUnderAnyLocale) {
  const GlobalGrouping grouping;
  const Bytes zeros(kHeaderSize);
  EXPECT_EQ(thrownBy([&] { qmx_shm_message_t().deserializeFromBuffer(zeros.data()); }).message,
            "Could not deserialize qmx_shm_message from buffer because the magic value 0 is "
            "corrupt (expected=2864434397)");
}

TEST(MessagePrint, DefaultHeaderIsShown) {
  EXPECT_EQ(printed(qmx_shm_message_t()), "(0,0,0,0,0,1,0,0,0,2864434397)");
}

TEST(MessagePrint, SequenceLeadsAndSegStateComesFourth) {
  qmx_shm_message_t header;
  header.type = 2;
  header.len = 3;
  header.sequence = 1;
  header.segmentCount = 5;
  header.segmentEmpty = 6;
  header.segState = 4;
  header.algParam1 = 7;
  header.algParam2 = 8;
  header.algParam3 = 9;
  header.magic = 10;
  EXPECT_EQ(printed(header), "(1,2,3,4,5,6,7,8,9,10)");
}

TEST(MessagePrint, LargestValuesAreNotNegative) {
  qmx_shm_message_t header;
  header.type = header.len = header.segmentEmpty = header.segState = 0xffffffff;
  header.algParam1 = header.algParam2 = header.algParam3 = header.magic = 0xffffffff;
  header.sequence = header.segmentCount = 0xffffffffffffffff;
  EXPECT_EQ(printed(header),
            "(18446744073709551615,4294967295,4294967295,4294967295,18446744073709551615,"
            "4294967295,4294967295,4294967295,4294967295,4294967295)");
}

TEST(MessagePrint, DigitsArePlainWhateverTheStreamIsSetTo) {
  const GlobalGrouping grouping;
  std::ostringstream stream = oddStream();
  stream << qmx_shm_message_t();
  EXPECT_EQ(stream.str(), "(0,0,0,0,0,1,0,0,0,2864434397)");
}

TEST(MessagePrint, LeavesTheStreamsStateAlone) {
  std::ostringstream stream = oddStream();
  const auto before = stateOf(stream);
  stream << qmx_shm_message_t();
  EXPECT_EQ(stateOf(stream), before);
}

TEST(MessagePrint, WidthPadsNothingAndIsSpent) {
  std::ostringstream stream = oddStream();
  stream << qmx_shm_message_t();
  EXPECT_EQ(stream.str(), "(0,0,0,0,0,1,0,0,0,2864434397)");
  EXPECT_EQ(stream.width(), 0);
}

TEST(MessagePrint, ReturnsItsStream) {
  std::ostringstream stream;
  EXPECT_EQ(&(stream << qmx_shm_message_t()), &stream);
}

TEST(Response, StartsWithAllBytesZero) {
  alignas(qmx_shm_response_t) unsigned char memory[sizeof(qmx_shm_response_t)];
  std::memset(memory, 0xee, sizeof memory);
  new (memory) qmx_shm_response_t();
  EXPECT_EQ(hexOf(memory, sizeof memory), std::string(264, '0'));
}

TEST(Response, ZeroedOneReadsAsSuccessWithoutText) {
  const qmx_shm_response_t response;
  EXPECT_EQ(response.status, 0u);
  EXPECT_STREQ(response.message, "");
}

TEST(Response, StatusTravelsInHostOrder) {
  qmx_shm_response_t response;
  response.assign(0x01020304, "no");
  unsigned char memory[sizeof response];
  std::memcpy(memory, &response, sizeof response);
  const bool isBigEndian = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__;
  EXPECT_EQ(hexOf(memory, 8), hex(isBigEndian ? "01020304 6e6f0000" : "04030201 6e6f0000"));
}

TEST(Response, TextOf127BytesFits) {
  const std::string text(127, 'x');
  qmx_shm_response_t response;
  response.assign(7, text.c_str());
  EXPECT_EQ(response.message, text);
  EXPECT_EQ(response.status, 7u);
}

TEST(Response, LongerTextIsCutTo127BytesAndANul) {
  for (const std::size_t length : {128u, 129u, 5000u}) {
    struct {
      qmx_shm_response_t response;
      char guard = 'g';
    } memory;
    memory.response.assign(7, std::string(length, 'x').c_str());
    EXPECT_EQ(std::string(memory.response.message), std::string(127, 'x')) << length;
    EXPECT_EQ(memory.response.status, 7u);
    EXPECT_EQ(memory.guard, 'g');
  }
}

TEST(Response, ShorterTextKeepsTheBytesBehindItsNul) {
  qmx_shm_response_t response;
  response.assign(1, "abcdef");
  response.assign(2, "xy");
  EXPECT_EQ(std::string(response.message, 8), std::string("xy\0def\0\0", 8));
}

TEST(Response, EmptyTextReplacesTheFirstByteOnly) {
  qmx_shm_response_t response;
  response.assign(1, "abc");
  response.assign(0, "");
  EXPECT_EQ(std::string(response.message, 4), std::string("\0bc\0", 4));
}

// Programs elsewhere compare the numbers; everybody here uses the names.
TEST(Status, NumbersNeverChange) {
  EXPECT_EQ(korvex::kStatusNoRoom, 4u);
  EXPECT_EQ(korvex::kStatusInvalidArgument, 9u);
  EXPECT_EQ(korvex::kStatusTimedOut, 15u);
  EXPECT_EQ(korvex::kStatusCorrupt, 32u);
  EXPECT_EQ(korvex::kStatusWrongState, 44u);
  EXPECT_EQ(korvex::kStatusTooLarge, 85u);
  EXPECT_EQ(korvex::kStatusDoesNotFit, 89u);
}
