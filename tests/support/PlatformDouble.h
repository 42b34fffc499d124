#ifndef TESTS_SUPPORT_PLATFORM_DOUBLE_H
#define TESTS_SUPPORT_PLATFORM_DOUBLE_H

#include <string>
#include <vector>

/// Stands in for the platform's trace and log calls in a test program: the program's own
/// definitions of these symbols come before the platform library's. Records every call.
namespace korvex::test::platform_double {

struct Call {
  std::string function;  ///< "InfoA", "AuthA", "WarningA", "ErrorA" or "__TraceA"
  int code;              ///< 0 for __TraceA
  std::string format;    ///< exactly as it was passed
  std::string text;      ///< the format filled with its arguments; empty if that fails
};

/// Forgets all calls and switches tracing off.
void reset();

/// Switches tracing on or off.
void setTracing(bool enabled);

/// How often the flag's address was requested since reset().
unsigned flagReads();

/// The flag reads as off from this read on (1 is the next); 0 means never.
void switchOffAtFlagRead(unsigned read);

/// The calls since reset(), in order.
std::vector<Call> calls();

/// The filled texts of the trace lines since reset().
std::vector<std::string> traceLines();

}  // namespace korvex::test::platform_double

#endif
