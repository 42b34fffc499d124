#include "property/WriterLanguage.h"

#include <algorithm>
#include <cstring>

#include "property/GlobalLocale.h"
#include "property/Wire.h"

namespace property {
namespace {

std::vector<Parameter> directRecordParameters() {
  std::vector<Parameter> parameters = headerParameters();
  parameters.insert(parameters.end(), {{"data", 0}, {"timeout", 0}, {"flush", 0}});
  return parameters;
}

std::size_t atLeastOne(std::uint64_t value) { return std::max<std::uint64_t>(value, 1); }

}  // namespace

const Language& writerLanguage() {
  static const Language language{
      "writer",
      {{"queues",
        {{"size", 300}, {"depth", 2}, {"replySize", 132}, {"replyDepth", 2}, {"missing", 0}},
        false},
       {"construct", {{"timeout", 30}, {"stopTimeout", 0}, {"benchmark", 0}}, true},
       {"destroy", {}, false},
       {"open", {}, false},
       {"close", {}, false},
       {"stop", {{"useStopTimeout", 0}}, false},
       {"algorithm", {{"state", 0}, {"p1", 0}, {"p2", 0}, {"p3", 0}}, false},
       {"segment", {{"length", 0}, {"data", 1}}, false},
       {"end", {}, false},
       {"write", directRecordParameters(), false},
       {"flush", {{"timeout", 0}}, false},
       {"take", {}, false},
       {"drain", {}, false},
       {"fill", {{"priority", 0}}, false},
       localeVerb(),
       {"reply", {{"status", 0}, {"size", 132}, {"priority", 0}}, true}}};
  return language;
}

QueueLimits sendLimitsOf(const Operation& queues) {
  return {atLeastOne(queues["depth"]), atLeastOne(queues["size"])};
}

QueueLimits replyLimitsOf(const Operation& queues) {
  return {atLeastOne(queues["replyDepth"]), atLeastOne(queues["replySize"])};
}

Bytes replyOf(const Operation& reply, std::size_t mostBytes) {
  const std::uint32_t status = reply.low("status");
  Bytes bytes(132, '\0');
  std::memcpy(&bytes[0], &status, sizeof status);
  bytes.replace(4, std::min<std::size_t>(reply.text.size(), 128), reply.text.substr(0, 128));
  bytes.resize(std::min<std::uint64_t>({reply["size"], mostBytes, bytes.size()}));
  return bytes;
}

}  // namespace property
