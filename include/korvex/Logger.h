#ifndef KORVEX_LOGGER_H
#define KORVEX_LOGGER_H

#include <cstdint>
#include <string>

#include "korvex/Export.h"

namespace korvex {
namespace server {

/// Which of the platform's log calls takes a line. The type has a fixed width, so any 32-bit value
/// may be passed on, also one that has no name; such a level writes nothing.
enum KorvxServerLoglevel : std::int32_t {
  LOGLEVEL_INFO = 1,
  LOGLEVEL_AUTH = 2,
  LOGLEVEL_WARNING = 3,
  LOGLEVEL_ERROR = 4
};

/// Writes one component's lines to the platform's log: "component::function: message", or
/// "function: message" when the component has no name.
///
/// The platform adds what it adds (time, process, line end) and decides where lines go. Keeps only
/// its name, so any number of threads may use one logger at once.
///
/// A message is cut at 4095 characters, silently; names are written whole. A null function name
/// throws std::logic_error before anything is written.
///
/// The platform reads a finished line as a printf format once more, with no arguments left. To see
/// one percent sign in the log, a message's format has four and a name has two. A text that may
/// hold percent signs of its own must not be an argument: its "%s" would read an argument that is
/// not there, and may end the process.
class KORVEX_EXPORT Logger final {
 public:
  explicit Logger(const std::string& name);

  /// `code` goes to the platform unchanged; -1 says that there is none. The format and its
  /// arguments are printf's, and the compiler checks them.
  [[gnu::format(printf, 5, 6)]] void log(KorvxServerLoglevel level, const char* function, int code,
                                         const char* format, ...);

  /// A trace line. While the platform's trace flag is off it costs one read of the flag, formats
  /// nothing and takes a null function name.
  [[gnu::format(printf, 3, 4)]] void logTrace(const char* function, const char* format, ...);

  /// The name as it is. Every function name passes through here on its way into a line.
  std::string trimFunctionName(const std::string& name);

 private:
  KORVEX_NO_EXPORT std::string composeLine(const char* function, const char* message);

  std::string componentName_;
};

}  // namespace server
}  // namespace korvex

#endif
