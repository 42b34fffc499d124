#include "send/SendReport.h"

#include <nlohmann/json.hpp>

#include "common/Printable.h"

namespace korvex::tool {
namespace {

nlohmann::ordered_json objectOf(const ProcessEnd& end) {
  if (end.signal == 0) return {{"exitCode", end.exitCode}};
  return {{"signal", signalName(end.signal)}};
}

}  // namespace

std::string SendReport::summary() const {
  return "sent " + std::to_string(bytes) + " bytes in " + std::to_string(segments) + " segments, " +
         common::secondsText(seconds) + ", " + common::byteText(bytesPerSecond()) +
         "/s: " + message;
}

std::string SendReport::json() const {
  nlohmann::ordered_json object = {{"bytes", bytes},      {"segments", segments},
                                   {"seconds", seconds},  {"bytesPerSecond", bytesPerSecond()},
                                   {"xxh128", xxh128},    {"verified", isVerified},
                                   {"status", status},    {"message", message},
                                   {"exitCode", exitCode}};
  if (command) object["command"] = objectOf(*command);
  // A file name in the message may not be text at all; the result must survive that.
  return object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace korvex::tool
