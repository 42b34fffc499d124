#ifndef KORVEX_SUPPORT_TEXT_H
#define KORVEX_SUPPORT_TEXT_H

#include <locale>
#include <qmx/error.h>
#include <sstream>
#include <string>

namespace korvex {

/// The library's own kind of stream. Numbers are plain decimal digits: a global locale with
/// grouping would otherwise put separators into texts that programs compare. Running out of memory
/// throws; by default the text would be silently truncated.
inline std::ostringstream plainStream() {
  std::ostringstream stream;
  stream.exceptions(std::ios::badbit);
  stream.imbue(std::locale::classic());
  return stream;
}

/// The pieces, concatenated.
template <typename... Pieces>
std::string textOf(const Pieces&... pieces) {
  std::ostringstream stream = plainStream();
  (stream << ... << pieces);
  return stream.str();
}

/// Every error of the library is thrown here. The location is always empty.
template <typename... Pieces>
[[noreturn]] void throwError(ov_status_t status, const Pieces&... pieces) {
  throw Ov_ErrnoException(status, textOf(pieces...), "");
}

}  // namespace korvex

#endif
