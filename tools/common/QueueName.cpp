#include "common/QueueName.h"

#include <korvex/receiver/Receiver.h>
#include <nlohmann/json.hpp>
#include <string_view>

#include "common/Printable.h"

namespace korvex::common {
namespace {

constexpr std::string_view kHexDigits = "0123456789ABCDEF";

/// Only ASCII: the standard classification would follow the locale.
bool staysAsItIs(char character) {
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
         (character >= '0' && character <= '9') || character == '.' || character == '_' ||
         character == '-';
}

void appendEncoded(std::string& text, char character) {
  const auto byte = static_cast<unsigned char>(character);
  text += '%';
  text += kHexDigits[byte >> 4];
  text += kHexDigits[byte & 15];
}

std::string percentEscaped(const std::string& text) {
  std::string escaped;
  for (const char character : text) {
    if (character == '%') {
      appendEncoded(escaped, character);
    } else {
      escaped += character;
    }
  }
  return escaped;
}

}  // namespace

std::string plainQueueName(const std::string& name) {
  return !name.empty() && name.front() == '/' ? name.substr(1) : name;
}

std::string checkQueueName(const std::string& word) {
  const std::string defect = receiver::queueNameDefect(word);
  return defect.empty() ? "" : "'" + printable(word) + "' cannot be a queue's name: " + defect;
}

std::string fileNameOf(const std::string& queue) {
  std::string text;
  for (const char character : queue) {
    const bool hides = text.empty() && character == '.';
    if (staysAsItIs(character) && !hides) {
      text += character;
    } else {
      appendEncoded(text, character);
    }
  }
  return text;
}

std::string jsonNameOf(const std::string& queue) {
  try {
    nlohmann::json(queue).dump();
    return percentEscaped(queue);
  } catch (const nlohmann::json::type_error&) {
    return fileNameOf(queue);
  }
}

}  // namespace korvex::common
