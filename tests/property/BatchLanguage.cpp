#include "property/BatchLanguage.h"

#include "property/GlobalLocale.h"
#include "property/Wire.h"

namespace property {
namespace {

std::vector<Parameter> headerAnd(const std::vector<Parameter>& more) {
  std::vector<Parameter> parameters = headerParameters();
  parameters.insert(parameters.end(), more.begin(), more.end());
  return parameters;
}

}  // namespace

const Language& batchLanguage() {
  static const Language language{
      "batch",
      {{"batch", {{"size", 300}}, false},
       {"push", headerAnd({{"data", 0}}), false},
       {"placeholder", {{"data", 0}}, false},
       {"clear", {}, false},
       {"canStore", {{"len", 0}}, false},
       {"entry", {{"index", 0}}, false},
       {"read", {{"size", 300}, {"magic", kAsItIs}, {"count", kAsItIs}}, false},
       {"print", {{"style", 0}}, false},
       {"printEntry", headerAnd({{"data", 0}, {"style", 0}}), false},
       {"header", headerAnd({{"style", 0}}), false},
       {"metadata", {{"magic", kSoundBatch}, {"count", 0}}, false},
       localeVerb()}};
  return language;
}

}  // namespace property
