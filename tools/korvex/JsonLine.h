#ifndef KORVEX_TOOL_JSON_LINE_H
#define KORVEX_TOOL_JSON_LINE_H

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace korvex::tool {

/// The value on one line, without its line end. Texts that are not UTF-8 never make it fail.
std::string jsonLine(const nlohmann::ordered_json& value);

}  // namespace korvex::tool

#endif
