#include "korvex/receiver/BatchCheck.h"

#include <iomanip>
#include <locale>
#include <sstream>

#include "korvex/receiver/Limits.h"
#include "shm/Format.h"
#include "support/BigEndian.h"

namespace korvex::receiver {
namespace {

constexpr int kHexDigits = 8;  // of a magic

static_assert(Limits::kSmallestMessage == kSmallestDataBatch, "a data record must fit");

std::uint32_t big32At(const unsigned char* bytes) noexcept {
  std::uint32_t value = 0;
  getBig32(bytes, value);
  return value;
}

const char* nameOf(BatchCheck::Defect defect) noexcept {
  switch (defect) {
    case BatchCheck::Defect::MetaDataCut:
      return "metadata block cut";
    case BatchCheck::Defect::MetaDataMagic:
      return "wrong metadata magic";
    case BatchCheck::Defect::HeaderCut:
      return "record header cut";
    case BatchCheck::Defect::HeaderMagic:
      return "wrong header magic";
    case BatchCheck::Defect::DataCut:
      return "record data cut";
    case BatchCheck::Defect::TrailingBytes:
      return "bytes after the last record";
    case BatchCheck::Defect::None:
      break;
  }
  return "sound";
}

bool isMagic(BatchCheck::Defect defect) noexcept {
  return defect == BatchCheck::Defect::MetaDataMagic || defect == BatchCheck::Defect::HeaderMagic;
}

}  // namespace

BatchCheck::BatchCheck(const unsigned char* untrusted, std::size_t size) noexcept {
  walk(untrusted, size);
}

void BatchCheck::walk(const unsigned char* untrusted, std::size_t size) noexcept {
  defect_ = checkMetaData(untrusted, size);
  if (!ok()) return;
  offset_ = kMetaDataSize;
  for (std::uint32_t i = 0; i < entries_; ++i) {
    defect_ = checkEntry(untrusted + offset_, size - offset_);
    if (!ok()) return;
    offset_ += kHeaderSize + dataLength_;
  }
  if (offset_ < size) defect_ = refuse(Defect::TrailingBytes, size - offset_, 0);
}

BatchCheck::Defect BatchCheck::checkMetaData(const unsigned char* untrusted,
                                             std::size_t left) noexcept {
  if (left < kMetaDataSize) return refuse(Defect::MetaDataCut, left, kMetaDataSize);
  const std::uint32_t magic = big32At(untrusted);
  if (magic != kMetaDataMagic) return refuse(Defect::MetaDataMagic, magic, kMetaDataMagic);
  entries_ = big32At(untrusted + kEntryCountOffset);
  return Defect::None;
}

BatchCheck::Defect BatchCheck::checkEntry(const unsigned char* untrusted,
                                          std::size_t left) noexcept {
  if (left < kHeaderSize) return refuse(Defect::HeaderCut, left, kHeaderSize);
  const std::uint32_t magic = big32At(untrusted + kHeaderMagicOffset);
  if (magic != kHeaderMagic) return refuse(Defect::HeaderMagic, magic, kHeaderMagic);
  dataLength_ = big32At(untrusted + kLengthOffset);
  if (dataLength_ > left - kHeaderSize) {
    return refuse(Defect::DataCut, left - kHeaderSize, dataLength_);
  }
  return Defect::None;
}

BatchCheck::Defect BatchCheck::refuse(Defect defect, std::uint64_t found,
                                      std::uint64_t expected) noexcept {
  found_ = found;
  expected_ = expected;
  return defect;
}

std::string BatchCheck::text() const {
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text << nameOf(defect_) << " at offset " << offset_;
  if (ok()) return text.str();
  if (isMagic(defect_)) {
    text << std::hex << std::setfill('0') << ": found 0x" << std::setw(kHexDigits) << found_
         << ", expected 0x" << std::setw(kHexDigits) << expected_;
  } else {
    text << ": found " << found_ << " bytes, expected " << expected_ << " bytes";
  }
  return text.str();
}

}  // namespace korvex::receiver
