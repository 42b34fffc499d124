#ifndef KORVEX_RECEIVER_SYSTEM_ERROR_H
#define KORVEX_RECEIVER_SYSTEM_ERROR_H

#include <stdexcept>
#include <string>

#include "korvex/receiver/Export.h"

namespace korvex::receiver {

/// A system call that failed. The text is like "writing data: error 28 (No space left on device)",
/// and a producer sees it in the failure reply, so sinks should throw it too.
class KORVEX_RECEIVER_EXPORT SystemError : public std::runtime_error {
 public:
  /// `doing` says what failed, `number` is the errno.
  SystemError(const std::string& doing, int number);
  ~SystemError() override;

  /// The errno.
  int number() const noexcept { return number_; }

 private:
  int number_;
};

}  // namespace korvex::receiver

#endif
