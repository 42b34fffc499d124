#ifndef TESTS_SUPPORT_OSTREAM_FORMAT_H
#define TESTS_SUPPORT_OSTREAM_FORMAT_H

#include <iomanip>
#include <ios>
#include <locale>
#include <sstream>
#include <string>
#include <tuple>

/// Digits in groups of three with dots between: 2.864.434.397.
class GroupedDigits : public std::numpunct<char> {
 protected:
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

inline std::locale groupingLocale() {
  return std::locale(std::locale::classic(), new GroupedDigits);
}

/// While it lives, the process's global locale groups digits.
class GlobalGrouping {
 public:
  GlobalGrouping() : before_(std::locale::global(groupingLocale())) {}
  ~GlobalGrouping() { std::locale::global(before_); }
  GlobalGrouping(const GlobalGrouping&) = delete;
  GlobalGrouping& operator=(const GlobalGrouping&) = delete;

 private:
  std::locale before_;
};

/// A stream with everything set that could change how a number is written.
inline std::ostringstream oddStream() {
  std::ostringstream stream;
  stream.imbue(groupingLocale());
  stream << std::hex << std::showbase << std::showpos << std::uppercase << std::left
         << std::setfill('*') << std::setprecision(3) << std::setw(40);
  return stream;
}

/// All that a caller has set on its stream, for comparing before and after. Not the width, which is
/// for one item only.
inline auto stateOf(const std::ios& stream) {
  return std::make_tuple(stream.flags(), stream.fill(), stream.precision(),
                         std::use_facet<std::numpunct<char>>(stream.getloc()).grouping());
}

#endif
