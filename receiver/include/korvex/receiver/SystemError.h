#ifndef KORVEXD_SYSTEM_ERROR_H
#define KORVEXD_SYSTEM_ERROR_H

#include <stdexcept>
#include <string>

namespace korvexd {

/// A call to the system that failed. The text is
/// "writing data: error 28 (No space left on device)".
class SystemError : public std::runtime_error {
 public:
  /// `doing` says what failed, `number` is the errno.
  SystemError(const std::string& doing, int number);

  int number() const noexcept { return number_; }

 private:
  int number_;
};

}  // namespace korvexd

#endif
