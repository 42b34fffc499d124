#include "inspect/HexDump.h"

#include <algorithm>
#include <ostream>
#include <string>
#include <string_view>

namespace korvex::tool {
namespace {

constexpr std::size_t kBytesInLine = 16;
constexpr std::size_t kBytesInPiece = 4096;
constexpr int kOffsetDigits = 8;  // a batch has at most 2^30 bytes
constexpr std::string_view kDigits = "0123456789abcdef";

void appendHex(std::string& text, unsigned char byte) {
  text += kDigits[byte >> 4];
  text += kDigits[byte & 15];
}

void appendOffset(std::string& text, std::size_t offset) {
  for (int digit = kOffsetDigits - 1; digit >= 0; --digit) {
    text += kDigits[(offset >> (4 * digit)) & 15];
  }
}

/// The locale's idea of a printable character would follow the environment.
char shown(unsigned char byte) {
  return byte >= ' ' && byte <= '~' ? static_cast<char>(byte) : '.';
}

void appendLine(std::string& text, const unsigned char* bytes, std::size_t size) {
  for (std::size_t i = 0; i < kBytesInLine; ++i) {
    text += i == kBytesInLine / 2 ? "  " : " ";
    if (i < size) {
      appendHex(text, bytes[i]);
    } else {
      text += "  ";
    }
  }
  text += "  |";
  for (std::size_t i = 0; i < size; ++i) text += shown(bytes[i]);
  text += "|\n";
}

}  // namespace

void writeHexDump(std::ostream& out, const unsigned char* bytes, std::size_t size,
                  std::size_t offset, const char* indent) {
  for (std::size_t at = 0; at < size && out; at += kBytesInLine) {
    std::string line = indent;
    appendOffset(line, offset + at);
    line += ' ';
    appendLine(line, bytes + at, std::min(size - at, kBytesInLine));
    out << line;
  }
}

void writeHex(std::ostream& out, const unsigned char* bytes, std::size_t size) {
  for (std::size_t at = 0; at < size && out; at += kBytesInPiece) {
    std::string digits;
    const std::size_t end = std::min(size, at + kBytesInPiece);
    for (std::size_t i = at; i < end; ++i) appendHex(digits, bytes[i]);
    out << digits;
  }
}

}  // namespace korvex::tool
