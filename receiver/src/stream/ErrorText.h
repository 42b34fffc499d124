#ifndef KORVEX_RECEIVER_STREAM_ERROR_TEXT_H
#define KORVEX_RECEIVER_STREAM_ERROR_TEXT_H

#include <exception>
#include <string>

namespace korvex::receiver {

/// The error's text, or "out of memory" if there is too little memory for a copy of it.
inline std::string textOf(const std::exception& error) noexcept {
  try {
    return error.what();
  } catch (const std::exception&) {
    return "out of memory";
  }
}

}  // namespace korvex::receiver

#endif
