#ifndef TESTS_UNIT_PLATFORM_DOUBLE_H
#define TESTS_UNIT_PLATFORM_DOUBLE_H

#include <string>
#include <vector>

/// Stands in for the platform's trace and log calls in a test program: the program's own
/// definitions of these symbols come before the platform library's. Records every call.
namespace korvex::test::platform_double {

struct Call {
  std::string function;  ///< "InfoA", "AuthA", "WarningA", "ErrorA" or "__TraceA"
  int code;              ///< 0 for __TraceA
  std::string format;    ///< exactly as it was passed
  std::string text;      ///< the format filled with its arguments; empty when it is no sound format
};

/// Forgets all calls and switches tracing off.
void reset();

/// Switches tracing on or off.
void setTracing(bool enabled);

/// How often the flag's place was asked for since reset().
unsigned flagReads();

/// From the given read of the flag on (1 is the next), it reads as off. 0 never.
void switchOffAtFlagRead(unsigned read);

/// The calls since reset(), in order.
std::vector<Call> calls();

/// The filled texts of the trace lines since reset().
std::vector<std::string> traceLines();

}  // namespace korvex::test::platform_double

#endif
