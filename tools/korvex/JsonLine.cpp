#include "JsonLine.h"

#include <nlohmann/json.hpp>

namespace korvex::tool {

std::string jsonLine(const nlohmann::ordered_json& value) {
  return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace korvex::tool
