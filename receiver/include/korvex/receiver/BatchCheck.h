#ifndef KORVEX_RECEIVER_BATCH_CHECK_H
#define KORVEX_RECEIVER_BATCH_CHECK_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "korvex/receiver/Export.h"

namespace korvex::receiver {

/// Checks a received message before anything walks it.
///
/// The bytes come from another process and may hold anything. When `ok()`, every header and every
/// data byte that the batch announces lies inside the message, so the library's reader may be used
/// on it. Keeps no pointer to the bytes. Throws nothing; only text() may run out of memory.
class KORVEX_RECEIVER_EXPORT BatchCheck {
 public:
  /// What is wrong with a message.
  enum class Defect {
    None,           ///< the message is sound
    MetaDataCut,    ///< too short for the metadata block
    MetaDataMagic,  ///< the metadata block's magic is wrong
    HeaderCut,      ///< the message ends before or inside an announced header
    HeaderMagic,    ///< a header's magic is wrong
    DataCut,        ///< a header announces more data than remains
    TrailingBytes   ///< the message goes on after the last announced entry
  };

  /// Does the whole check; `ok()` says how it went.
  BatchCheck(const unsigned char* untrusted, std::size_t size) noexcept;

  /// @{
  /// What the check found.
  bool ok() const noexcept { return defect_ == Defect::None; }
  Defect defect() const noexcept { return defect_; }
  /// @}

  /// Offset of the block that was refused, counted from the start of the message; the size when
  /// `ok()`.
  std::size_t offset() const noexcept { return offset_; }

  /// For people: the defect, its offset, what was found and what was expected.
  std::string text() const;

 private:
  void walk(const unsigned char* untrusted, std::size_t size) noexcept;
  Defect checkMetaData(const unsigned char* untrusted, std::size_t left) noexcept;
  Defect checkEntry(const unsigned char* untrusted, std::size_t left) noexcept;
  Defect refuse(Defect defect, std::uint64_t found, std::uint64_t expected) noexcept;

  Defect defect_ = Defect::None;
  std::size_t offset_ = 0;
  std::size_t dataLength_ = 0;  ///< of the entry being checked
  std::uint32_t entries_ = 0;
  std::uint64_t found_ = 0;
  std::uint64_t expected_ = 0;
};

}  // namespace korvex::receiver

#endif
