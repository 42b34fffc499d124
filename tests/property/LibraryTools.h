#ifndef TESTS_PROPERTY_LIBRARY_TOOLS_H
#define TESTS_PROPERTY_LIBRARY_TOOLS_H

#include "korvex/ShmCommon.h"
#include "property/Item.h"

namespace korvex::test {

/// The header as the library's callers write it.
inline qmx_shm_message_t libraryHeader(const Header& header) {
  return headerAt<qmx_shm_message_t>(headerBytes(header).data());
}

/// A record's data as a caller hands it over. Where the library must not read, there is nothing to
/// be read.
inline const unsigned char* pointerTo(const Item& item) {
  constexpr std::uintptr_t kUnreadable = 1;
  if (item.isNull) return nullptr;
  if (item.data.empty()) return reinterpret_cast<const unsigned char*>(kUnreadable);
  return item.data.data();
}

/// Sets the process's locale and gives the classic one back at its end.
class GlobalLocale {
 public:
  GlobalLocale() = default;
  ~GlobalLocale() { set(false); }
  GlobalLocale(const GlobalLocale&) = delete;
  GlobalLocale& operator=(const GlobalLocale&) = delete;

  /// With grouping, a stream prints 1234 as 1'2'3'4.
  void set(bool grouping);
};

}  // namespace korvex::test

#endif
