#ifndef KORVEX_LOGGER_H
#define KORVEX_LOGGER_H

#include <cstdint>
#include <string>

#include "korvex/Export.h"

namespace korvex {
namespace server {

/// Which of the platform's log calls takes a line. The type has a fixed width, so any 32-bit value
/// may be passed, even one without a name; such a level writes nothing.
enum KorvxServerLoglevel : std::int32_t {
  LOGLEVEL_INFO = 1,
  LOGLEVEL_AUTH = 2,
  LOGLEVEL_WARNING = 3,
  LOGLEVEL_ERROR = 4
};

/// Writes one component's lines to the platform's log: "component::function: message", or
/// "function: message" when the component has no name.
///
/// The platform adds time, process and line end, and decides where lines go. A logger holds only
/// its name, so any number of threads may use one at once.
///
/// A message is silently truncated to 4095 characters; names are written whole. A null function
/// name throws std::logic_error before anything is written.
///
/// The platform reads the finished line as a printf format again, this time without arguments. For
/// one percent sign in the log, write four in a message's format and two in a name. Do not pass
/// text that may contain percent signs as an argument: its "%s" would read an argument that is not
/// there, and may crash the process.
class KORVEX_EXPORT Logger final {
 public:
  /// `name` is the component's; it may be empty.
  explicit Logger(const std::string& name);

  /// `code` goes to the platform unchanged; -1 means none. The format and its arguments are
  /// printf's, and the compiler checks them.
  [[gnu::format(printf, 5, 6)]] void log(KorvxServerLoglevel level, const char* function, int code,
                                         const char* format, ...);

  /// A trace line. While the platform's trace flag is off it costs one read of the flag, formats
  /// nothing and takes a null function name.
  [[gnu::format(printf, 3, 4)]] void logTrace(const char* function, const char* format, ...);

  /// Returns the name unchanged. Every function name passes through here on its way into a line.
  std::string trimFunctionName(const std::string& name);

 private:
  KORVEX_NO_EXPORT std::string composeLine(const char* function, const char* message);

  std::string componentName_;
};

}  // namespace server
}  // namespace korvex

#endif
