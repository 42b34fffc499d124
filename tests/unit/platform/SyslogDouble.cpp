#include "unit/platform/SyslogDouble.h"

#include <cstdarg>
#include <cstdio>
#include <utility>

// Not <syslog.h>: with hardening on, it turns these names into others.

namespace korvex::test::syslog_double {
namespace {

std::vector<std::string> calls;

void record(int priority, const char* format, std::va_list arguments) {
  char text[1024];
  std::vsnprintf(text, sizeof text, format, arguments);
  calls.push_back(std::to_string(priority) + ": " + text);
}

}  // namespace

std::vector<std::string> take() { return std::exchange(calls, {}); }

}  // namespace korvex::test::syslog_double

extern "C" {

void openlog(const char* identity, int option, int facility) {
  korvex::test::syslog_double::calls.push_back("open " + std::string(identity) +
                                               " option=" + std::to_string(option) +
                                               " facility=" + std::to_string(facility));
}

void syslog(int priority, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  korvex::test::syslog_double::record(priority, format, arguments);
  va_end(arguments);
}

// What syslog becomes in a hardened build.
void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  korvex::test::syslog_double::record(priority, format, arguments);
  va_end(arguments);
}

void closelog() { korvex::test::syslog_double::calls.push_back("close"); }
}
