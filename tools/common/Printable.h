#ifndef KORVEX_COMMON_PRINTABLE_H
#define KORVEX_COMMON_PRINTABLE_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

namespace korvex::common {

/// The text in UTF-8, with every byte of a control character and every byte that belongs to no
/// character as \xNN. File names and a daemon's texts may hold anything, and a terminal obeys some
/// of it.
std::string printable(std::string_view untrusted);

/// The same with every backslash as \x5c, for programs: they can get the bytes back.
std::string unambiguous(std::string_view untrusted);

/// The columns that printable text takes on a terminal: two for most East Asian characters, none
/// for a combining one.
std::size_t columnsOf(std::string_view text);

/// The longest prefix, in whole characters, that fits into this many columns.
std::string_view cutToColumns(std::string_view text, std::size_t columns);

/// "999 B", "1.0 kB", "2.1 GB": powers of 1000, one decimal.
std::string byteText(double bytes);

/// "0.5 s".
std::string secondsText(double seconds);

/// "0:07", "12:34", "3:00:00".
std::string timeText(std::chrono::seconds time);

/// "2026-11-21T00:56:23Z".
std::string utcText(std::time_t time);

}  // namespace korvex::common

#endif
