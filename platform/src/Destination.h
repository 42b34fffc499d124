#ifndef QMX_DESTINATION_H
#define QMX_DESTINATION_H

#include <functional>
#include <memory>
#include <string>

#include "qmx/sink.h"

namespace qmx {

/// One place where lines can go. Used by one thread at a time.
class Destination {
 public:
  virtual ~Destination() = default;

  /// Writes the line, or throws: the caller then falls back to standard error.
  virtual void write(const Line& line) = 0;
};

std::unique_ptr<Destination> standardError();

/// Throws Ov_ErrnoException when the file cannot be opened.
std::unique_ptr<Destination> file(const std::string& path);

std::unique_ptr<Destination> systemLog(const std::string& identity);

std::unique_ptr<Destination> callback(std::function<void(const Line&)> receiver);

}  // namespace qmx

#endif
