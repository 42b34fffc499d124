#ifndef QMX_ERROR_H
#define QMX_ERROR_H

#include <cstdint>
#include <exception>
#include <string>

#include "qmx/Export.h"

/// @file
/// How errors are raised.

/// The platform's status code. 0 is success; every component defines its other values.
using ov_status_t = std::uint32_t;

/// The platform's exception: a status for programs, a text for people, and where it was raised.
///
/// Its type information lives in the platform's shared library, so one catch clause serves every
/// component of a process. Catch it by reference: copying allocates memory and may throw.
class QMX_EXPORT Ov_ErrnoException : public std::exception {
 public:
  /// @{
  /// Copies the texts.
  Ov_ErrnoException(ov_status_t status, const std::string& message, const std::string& location);
  Ov_ErrnoException(const Ov_ErrnoException&);
  Ov_ErrnoException& operator=(const Ov_ErrnoException&);
  /// @}
  ~Ov_ErrnoException() noexcept override;

  /// @{
  /// As given to the constructor.
  ov_status_t getStatus() const noexcept { return status_; }
  const std::string& getMessage() const noexcept { return message_; }
  /// @}

  /// Where the error was raised; empty if the thrower does not say.
  const std::string& getLocation() const noexcept { return location_; }

  /// The message. Valid as long as the exception.
  const char* what() const noexcept override;

 private:
  ov_status_t status_;
  std::string message_;
  std::string location_;
};

#endif
