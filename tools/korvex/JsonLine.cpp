#include "JsonLine.h"

#include <nlohmann/json.hpp>

#include "common/Printable.h"

namespace korvex::tool {

std::string jsonLine(const nlohmann::ordered_json& value) {
  return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string jsonNameOf(const std::string& name) {
  try {
    nlohmann::json(name).dump();
    return name;
  } catch (const nlohmann::json::type_error&) {
    return printable(name);
  }
}

}  // namespace korvex::tool
