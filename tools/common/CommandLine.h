#ifndef KORVEX_COMMON_COMMAND_LINE_H
#define KORVEX_COMMON_COMMAND_LINE_H

#include <cstdint>
#include <string>

namespace CLI {
class App;
class Error;
class Option;
}  // namespace CLI

namespace korvex::common {

/// What the parser says of a wrong command line, with unexpected words in their order.
std::string sentenceOf(const CLI::App& app, const CLI::Error& error);

/// Makes the option one for a whole number within these limits, in decimal digits.
void takeWholeNumber(CLI::Option& option, std::uint64_t least, std::uint64_t most);

/// The same for a number of seconds.
void takeSeconds(CLI::Option& option, std::uint64_t least, std::uint64_t most);

/// A number of bytes: decimal digits, then nothing or K, M, G or T for a power of 1024, optionally
/// followed by B or iB; case does not matter. Throws CLI::ValidationError for anything else.
std::string byteCount(const std::string& text);

}  // namespace korvex::common

#endif
