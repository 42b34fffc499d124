#ifndef KORVEX_RECEIVER_STREAM_ERROR_TEXT_H
#define KORVEX_RECEIVER_STREAM_ERROR_TEXT_H

#include <exception>
#include <string>

namespace korvex::receiver {

/// What an error says. Memory may be too short for that; what is said then needs none.
inline std::string textOf(const std::exception& error) noexcept {
  try {
    return error.what();
  } catch (const std::exception&) {
    return "out of memory";
  }
}

}  // namespace korvex::receiver

#endif
