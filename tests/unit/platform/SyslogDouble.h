#ifndef TESTS_UNIT_PLATFORM_SYSLOG_DOUBLE_H
#define TESTS_UNIT_PLATFORM_SYSLOG_DOUBLE_H

#include <string>
#include <vector>

/// Stands in for the C library's system log in a test program: the program's own definitions of
/// openlog, syslog and closelog come before the C library's. Records every call.
namespace korvex::test::syslog_double {

/// The calls since the last take(), in order: "open IDENTITY option=N facility=N",
/// "PRIORITY: TEXT", "close".
std::vector<std::string> take();

}  // namespace korvex::test::syslog_double

#endif
