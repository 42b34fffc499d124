#include "property/BatchLanguage.h"

#include <stdexcept>

namespace korvex::test {
namespace {

std::string entryText(const Item& item) {
  return printed(item.header) + (item.isNull ? " without data; " : " with data; ");
}

std::optional<std::uint32_t> unlessAsItIs(std::uint64_t value) {
  if (value >= kAsItIs) return std::nullopt;
  return static_cast<std::uint32_t>(value);
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
       {"metadata", {{"magic", kBatchMagic}, {"count", 0}}, false},
       {"locale", {{"grouping", 0}}, false}}};
  return language;
}

void BatchWorld::act(const Operation& operation) {
  const std::string verb = operation.verb->name;
  if (verb == "locale") return setGrouping(operation["grouping"] != 0);
  if (verb == "batch") return makeBatch(operation["size"]);
  if (verb == "printEntry") return printEntry(itemOf(operation), operation["style"]);
  if (verb == "header") return packHeader(headerOf(operation), operation["style"]);
  if (verb == "metadata") return packMetaData(operation.low("magic"), operation.low("count"));
  if (look()) actOnBatch(operation);
}

void BatchWorld::actOnBatch(const Operation& operation) {
  const std::string verb = operation.verb->name;
  if (verb == "push") return push(itemOf(operation));
  if (verb == "placeholder") return pushPlaceholder({{}, {}, operation["data"] == 0});
  if (verb == "clear") return clear();
  if (verb == "canStore") {
    return say(canStore(operation.low("len")) ? "fits" : "does not fit");
  }
  if (verb == "entry") {
    const auto [item, offset] = entry(operation["index"]);
    return say(entryText(item) + (item.isNull ? "" : "at " + std::to_string(offset)));
  }
  if (verb == "read") {
    return read(operation["size"], unlessAsItIs(operation["magic"]),
                unlessAsItIs(operation["count"]));
  }
  if (verb == "print") return print(operation["style"]);
  throw std::logic_error("nobody knows " + verb);
}

void BatchWorld::showState() {
  const std::vector<Item> items = queue();
  say(", queue holds " + std::to_string(items.size()) + ": ");
  for (const Item& item : items) {
    say(entryText(item));
    show(item.data);
  }
  const std::optional<Look> batch = look();
  if (!batch) return;
  say(", batch holds " + std::to_string(batch->count) + " in " + std::to_string(batch->used) +
      (batch->isEmpty ? ", empty" : ""));
  show(batch->raw);
}

}  // namespace korvex::test
