#include "property/BatchScripts.h"

#include "property/ReadingModel.h"

namespace property {
namespace {

/// Builds a script and runs the model along, so that lengths can aim at the room that is left.
class Builder {
 public:
  explicit Builder(Dice& dice) : dice_(dice), script_{&batchLanguage(), {}} {}

  void addBatch();
  void step();
  const Script& script() const { return script_; }

 private:
  void add(const Operation& operation) {
    script_.operations.push_back(operation);
    if (model_.permits(operation)) model_.perform(operation);
  }
  static Operation operation(const std::string& word) {
    return Operation(batchLanguage().verb(word));
  }

  std::uint32_t recordLength() { return edgyLength(dice_, model_.room(), model_.size() - 8); }
  std::uint64_t pattern() { return dice_.inPercent(12) ? 0 : 1 + dice_.below(200); }
  void addRead();
  void addWithHeader(const std::string& word);

  Dice& dice_;
  Script script_;
  ReadingModel model_;
};

void Builder::addBatch() {
  const std::uint64_t size = dice_.inPercent(5)
                                 ? dice_.of({131072 + 56, 262288})
                                 : dice_.of({8, 9, 55, 56, 57, 104, 105, dice_.below(8),
                                             8 + dice_.below(500), 8 + dice_.below(500)});
  add(operation("batch").set("size", size));
}

void Builder::step() {
  enum { Push, Placeholder, Clear, CanStore, Entry, Read, Print, PrintEntry, Header, MetaData };
  enum { Batch = MetaData + 1, Locale };
  switch (dice_.weighted({40, 2, 5, 10, 12, 12, 10, 5, 4, 2, 2, 1})) {
    case Push:
      return addWithHeader("push");
    case Placeholder:
      return add(operation("placeholder").set("data", pattern()));
    case Clear:
      return add(operation("clear"));
    case CanStore:
      return add(operation("canStore").set("len", recordLength()));
    case Entry: {
      const std::uint64_t index =
          dice_.inPercent(10) ? dice_.any() : dice_.below(model_.count() + 2);
      return add(operation("entry").set("index", index));
    }
    case Read:
      return addRead();
    case Print:
      return add(operation("print").set("style", dice_.below(3)));
    case PrintEntry:
      return addWithHeader("printEntry");
    case Header:
      return addWithHeader("header");
    case MetaData:
      return add(operation("metadata")
                     .set("magic", dice_.of({kSoundBatch, kSoundBatch, dice_.any() & 0xffffffff}))
                     .set("count", dice_.any() & 0xffffffff));
    case Batch:
      return addBatch();
    case Locale:
      return add(operation("locale").set("grouping", dice_.below(2)));
  }
}

void Builder::addRead() {
  Operation read = operation("read");
  read.set("size", dice_.inPercent(15) ? dice_.below(10) : model_.size());
  if (dice_.inPercent(8)) read.set("magic", dice_.of({0, 300810495, kSoundRecord}));
  if (dice_.inPercent(15)) read.set("count", dice_.below(model_.count() + 3));
  add(read);
}

void Builder::addWithHeader(const std::string& word) {
  Operation withHeader = operation(word);
  rollHeader(dice_, withHeader, recordLength());
  if (word != "header") withHeader.set("data", pattern());
  if (word != "push") withHeader.set("style", dice_.below(3));
  add(withHeader);
}

}  // namespace

Script batchScript(Dice& dice, int size) {
  Builder builder(dice);
  builder.addBatch();
  const std::uint64_t steps = dice.below(static_cast<std::uint64_t>(size) / 2 + 2);
  for (std::uint64_t i = 0; i < steps; ++i) builder.step();
  return builder.script();
}

}  // namespace property
