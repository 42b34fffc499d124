#ifndef KORVEX_TOOL_HEX_DUMP_H
#define KORVEX_TOOL_HEX_DUMP_H

#include <cstddef>
#include <iosfwd>

namespace korvex::tool {

/// Lines of 16 bytes: the offset of the first one, counted from `offset`, the bytes in hex, and the
/// printable ASCII characters among them, with a dot for every other byte. Each line begins with
/// `indent`. Stops early when the stream fails.
void writeHexDump(std::ostream& out, const unsigned char* bytes, std::size_t size,
                  std::size_t offset, const char* indent);

/// Two lower-case digits for each byte, nothing in between.
void writeHex(std::ostream& out, const unsigned char* bytes, std::size_t size);

}  // namespace korvex::tool

#endif
