#ifndef KORVEXD_CONFIG_VALUE_H
#define KORVEXD_CONFIG_VALUE_H

#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <variant>
#include <vector>

namespace korvexd {

/// A value as a file or a command line gives it.
using Value = std::variant<bool, std::int64_t, std::string, std::vector<std::string>>;

/// Where a value, or a mistake, comes from.
struct Origin {
  enum class Kind { Default, CommandLine, File };

  Kind kind = Kind::Default;
  std::uint32_t line = 0;    ///< from 1 on, in a file
  std::uint32_t column = 0;  ///< likewise
};

struct GivenValue {
  Value value;
  Origin origin;
};

/// Values by the names of their keys.
using Layer = std::map<std::string, GivenValue>;

/// What is wrong, for a person: the value found and what is expected.
struct Mistake {
  /// What has to change: the file itself, or the system that it describes. A folder may come later,
  /// with a mount for example.
  enum class Remedy { File, System };

  Origin origin;
  std::string text;
  Remedy remedy = Remedy::File;
};

/// For sorting: whether a place in a file is before another.
inline bool isBefore(const Origin& one, const Origin& other) {
  return std::tie(one.line, one.column) < std::tie(other.line, other.column);
}

/// As TOML has it, on one line.
std::string tomlOf(const Value& value);
std::string tomlString(const std::string& text);

/// As TOML has it where a key stands: with quotes only if it needs them.
std::string tomlKey(const std::string& name);

}  // namespace korvexd

#endif
