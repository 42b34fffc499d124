#ifndef KORVEX_SUPPORT_TEXT_H
#define KORVEX_SUPPORT_TEXT_H

#include <locale>
#include <sstream>
#include <string>

#include <qmx/error.h>

namespace korvex {

/// A stream of the library's own. Numbers are plain decimal digits: a global locale with grouping
/// would otherwise put separators into texts that programs compare. Running out of memory throws: a
/// stream left to itself would give half a text.
inline std::ostringstream plainStream() {
  std::ostringstream stream;
  stream.exceptions(std::ios::badbit);
  stream.imbue(std::locale::classic());
  return stream;
}

/// The pieces, one after the other.
template <typename... Pieces>
std::string textOf(const Pieces&... pieces) {
  std::ostringstream stream = plainStream();
  (stream << ... << pieces);
  return stream.str();
}

/// Every error of the library leaves through here. The location text is always empty.
template <typename... Pieces>
[[noreturn]] void throwError(ov_status_t status, const Pieces&... pieces) {
  throw Ov_ErrnoException(status, textOf(pieces...), "");
}

}  // namespace korvex

#endif
