#ifndef KORVEX_COMMON_COMMAND_LINE_H
#define KORVEX_COMMON_COMMAND_LINE_H

#include <string>

namespace CLI {
class App;
class Error;
}  // namespace CLI

namespace korvex::common {

/// What the parser says of a wrong command line, with unexpected words in their order.
std::string sentenceOf(const CLI::App& app, const CLI::Error& error);

/// A whole number as the parser reads it: without leading zeros, which it would take for octal.
/// Throws CLI::ValidationError for anything but decimal digits.
std::string wholeNumber(const std::string& text);

/// A number of bytes: decimal digits, then nothing or K, M, G or T for a power of 1024, optionally
/// followed by B or iB; case does not matter. Throws CLI::ValidationError for anything else.
std::string byteCount(const std::string& text);

}  // namespace korvex::common

#endif
