#ifndef TESTS_SUPPORT_THROWN_ERROR_H
#define TESTS_SUPPORT_THROWN_ERROR_H

#include <ostream>
#include <qmx/error.h>
#include <string>

namespace korvex::test {

/// What a call threw, to be compared as a whole: EXPECT_EQ(thrownBy(call), (ThrownError{9,
/// "text"})).
struct ThrownError {
  ov_status_t status;
  std::string message;
  std::string location{};  ///< the library leaves it empty, always
};

inline bool operator==(const ThrownError& left, const ThrownError& right) {
  return left.status == right.status && left.message == right.message &&
         left.location == right.location;
}

inline std::ostream& operator<<(std::ostream& stream, const ThrownError& error) {
  return stream << "status " << error.status << " '" << error.message << "' at '" << error.location
                << "'";
}

/// Any other exception passes through and fails the test.
template <typename Call>
ThrownError thrownBy(Call call) {
  try {
    call();
  } catch (const Ov_ErrnoException& error) {
    return {error.getStatus(), error.getMessage(), error.getLocation()};
  }
  return {0, "(nothing was thrown)"};
}

}  // namespace korvex::test

using korvex::test::thrownBy;
using korvex::test::ThrownError;

#endif
