#include "korvexd/config/Value.h"

#include <cstdio>

namespace korvexd {
namespace {

constexpr unsigned char kDelete = 0x7f;

bool isControl(unsigned char byte) { return byte < ' ' || byte == kDelete; }

std::string escaped(char character) {
  if (character == '"' || character == '\\') return std::string("\\") + character;
  if (!isControl(static_cast<unsigned char>(character))) return std::string(1, character);
  char text[sizeof "\\u0000"];
  std::snprintf(text, sizeof text, "\\u%04X", static_cast<unsigned>(character));
  return text;
}

std::string tomlList(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : ", ") + tomlString(word);
  return "[" + text + "]";
}

struct TomlText {
  std::string operator()(bool value) const { return value ? "true" : "false"; }
  std::string operator()(std::int64_t value) const { return std::to_string(value); }
  std::string operator()(const std::string& value) const { return tomlString(value); }
  std::string operator()(const std::vector<std::string>& value) const { return tomlList(value); }
};

}  // namespace

std::string tomlOf(const Value& value) { return std::visit(TomlText(), value); }

std::string tomlString(const std::string& text) {
  std::string quoted = "\"";
  for (const char character : text) quoted += escaped(character);
  return quoted + '"';
}

std::string tomlKey(const std::string& name) {
  const bool isBare =
      !name.empty() &&
      name.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-") ==
          std::string::npos;
  return isBare ? name : tomlString(name);
}

}  // namespace korvexd
