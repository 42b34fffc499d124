#include "korvex/receiver/SystemError.h"

#include <system_error>

namespace korvex::receiver {

SystemError::SystemError(const std::string& doing, int number)
    : std::runtime_error(doing + ": error " + std::to_string(number) + " (" +
                         std::generic_category().message(number) + ")"),
      number_(number) {}

SystemError::~SystemError() = default;

}  // namespace korvex::receiver
