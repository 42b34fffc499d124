#ifndef KORVEX_SHM_FORMAT_H
#define KORVEX_SHM_FORMAT_H

#include <cstddef>
#include <cstdint>

#include "korvex/RecordType.h"
#include "korvex/ShmBatch.h"
#include "korvex/ShmCommon.h"

// Every number of the wire format: what producers and daemons of any version must agree on. All
// integers of a batch are big-endian; a reply is sent as it is in memory.
namespace korvex {

// The metadata block at the start of a batch.
constexpr std::uint32_t kMetaDataMagic = 0xff00ee11;
constexpr unsigned long kMetaDataSize = 8;
constexpr unsigned long kEntryCountOffset = 4;

// The header in front of a record's data.
constexpr std::uint32_t kHeaderMagic = 0xaabbccdd;
constexpr unsigned long kHeaderSize = 48;
constexpr unsigned long kLengthOffset = 4;
constexpr unsigned long kSequenceOffset = 8;
constexpr unsigned long kSegmentCountOffset = 16;
constexpr unsigned long kSegmentEmptyOffset = 24;
constexpr unsigned long kSegStateOffset = 28;
constexpr unsigned long kAlgParamsOffset = 32;
constexpr unsigned long kHeaderMagicOffset = 44;

/// The smallest message that carries data: a record of one byte.
constexpr unsigned long kSmallestDataBatch = kMetaDataSize + kHeaderSize + 1;

// The fields have the same offsets in memory as on the wire, so that several can be stored at once.
static_assert(offsetof(qmx_shm_message_t, len) == kLengthOffset, "type comes before");
static_assert(offsetof(qmx_shm_message_t, sequence) == kSequenceOffset, "no padding");
static_assert(offsetof(qmx_shm_message_t, segmentCount) == kSegmentCountOffset, "no padding");
static_assert(offsetof(qmx_shm_message_t, segmentEmpty) == kSegmentEmptyOffset, "no padding");
static_assert(offsetof(qmx_shm_message_t, segState) == kSegStateOffset, "no padding");
static_assert(offsetof(qmx_shm_message_t, algParam1) == kAlgParamsOffset, "three in a row");
static_assert(offsetof(qmx_shm_message_t, magic) == kHeaderMagicOffset, "the last field");
static_assert(sizeof(qmx_shm_message_t) == kHeaderSize, "no padding");

static_assert(sizeof(qmx_shm_response_t) == 132, "travels as raw memory");
static_assert(offsetof(qmx_shm_response_t, message) == 4, "the text follows the status");

}  // namespace korvex

#endif
