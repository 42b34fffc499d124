#ifndef KORVEX_SUPPORT_TEXT_H
#define KORVEX_SUPPORT_TEXT_H

#include <locale>
#include <sstream>
#include <string>

#include <qmx/error.h>

namespace korvex {

/// The pieces, one after the other. Numbers are plain decimal digits: a global locale with grouping
/// would otherwise put separators into error texts that programs compare. Running out of memory
/// throws: a stream left to itself would give half a text.
template <typename... Pieces>
std::string textOf(const Pieces&... pieces) {
  std::ostringstream stream;
  stream.exceptions(std::ios::badbit);
  stream.imbue(std::locale::classic());
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
