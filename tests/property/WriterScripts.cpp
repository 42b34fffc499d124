#include "property/WriterScripts.h"

#include "property/WriterModel.h"

namespace property {
namespace {

/// Builds a script and runs the model along, so that lengths can aim at the room that is left.
class Builder {
 public:
  explicit Builder(Dice& dice) : dice_(dice), script_{&writerLanguage(), {}} {}

  void begin();
  void step();
  Script finish();

 private:
  void add(const Operation& operation) {
    script_.operations.push_back(operation);
    model_.perform(operation);
  }
  void add(const std::string& word) { add(operation(word)); }
  static Operation operation(const std::string& word) {
    return Operation(writerLanguage().verb(word));
  }

  std::uint64_t sendTimeout();
  std::uint64_t queueSize();
  std::uint32_t recordLength();
  void addQueues();
  void addConstruct();
  void addAlgorithm();
  void addSegment();
  void addWrite();
  void addReply();

  Dice& dice_;
  Script script_;
  WriterModel model_;
};

void Builder::begin() {
  addQueues();
  addConstruct();
  if (dice_.inPercent(80)) add("open");
}

void Builder::step() {
  enum { Open, Close, Stop, Algorithm, Segment, End, Write, Flush, Take, Drain, Fill, Reply };
  enum { Construct = Reply + 1, Destroy, Queues, Locale };
  switch (dice_.weighted({6, 5, 5, 8, 18, 10, 16, 5, 12, 5, 2, 9, 4, 2, 1, 1})) {
    case Open:
      return add("open");
    case Close:
      return add("close");
    case Stop:
      return add(operation("stop").set("useStopTimeout", dice_.below(2)));
    case Algorithm:
      return addAlgorithm();
    case Segment:
      return addSegment();
    case End:
      return add("end");
    case Write:
      return addWrite();
    case Flush:
      return add(operation("flush").set("timeout", sendTimeout()));
    case Take:
      return add("take");
    case Drain:
      return add("drain");
    case Fill:
      return add(operation("fill").set("priority", dice_.below(3)));
    case Reply:
      return addReply();
    case Construct:
      return addConstruct();
    case Destroy:
      return add("destroy");
    case Queues:
      return addQueues();
    case Locale:
      return add(operation("locale").set("grouping", dice_.below(2)));
  }
}

Script Builder::finish() {
  for (const char* word : {"drain", "end", "drain", "stop", "drain", "destroy", "drain"}) add(word);
  return script_;
}

std::uint64_t Builder::sendTimeout() {
  return dice_.of({0, 1, 30, 86400, 86401, 2147483647, 2147483648, 4294967295});
}

std::uint64_t Builder::queueSize() {
  if (dice_.inPercent(6)) {
    return dice_.of({131071, 131072, 131072 + 55, 131072 + 56, 131072 + 57, 262288});
  }
  if (dice_.inPercent(5)) return 1 + dice_.below(8);
  return dice_.of({8, 9, 55, 56, 57, 103, 104, 105, 8 + dice_.below(400), 8 + dice_.below(400)});
}

std::uint32_t Builder::recordLength() {
  const std::uint64_t size = model_.messageSize();
  return edgyLength(dice_, model_.room(), size - 8);
}

void Builder::addQueues() {
  add(operation("queues")
          .set("size", queueSize())
          .set("depth", 1 + dice_.below(4))
          .set("replySize", dice_.of({132, 132, 132, 132, 132, 132, 131, 4, 1, 133}))
          .set("replyDepth", 1 + dice_.below(4))
          .set("missing", dice_.inPercent(3) ? 1 + dice_.below(2) : 0));
}

void Builder::addConstruct() {
  const bool isUsable = dice_.inPercent(90);
  add(operation("construct")
          .set("timeout", isUsable ? dice_.of({1, 30, 86400}) : dice_.of({0, 86401, 4294967295}))
          .set("stopTimeout", sendTimeout())
          .set("benchmark", dice_.inPercent(7))
          .say(dice_.inPercent(30) ? "" : dice_.text(12)));
}

void Builder::addAlgorithm() {
  add(operation("algorithm")
          .set("state", dice_.of({0, 0, 1, 1, 1, 2, 4294967295, dice_.any() & 0xffffffff}))
          .set("p1", dice_.of({0, 1, 4294967295, 4294967297, dice_.any()}))
          .set("p2", dice_.of({0, 1, 4294967295, 4294967298, dice_.any()}))
          .set("p3", dice_.of({0, 1, 4294967295, 4294967299, dice_.any()})));
}

void Builder::addSegment() {
  const std::uint64_t beyond = dice_.inPercent(15) ? dice_.of({1, 2, 4294967295}) : 0;
  add(operation("segment")
          .set("length", (beyond << 32) + recordLength())
          .set("data", dice_.inPercent(6) ? 0 : 1 + dice_.below(200)));
}

void Builder::addWrite() {
  Operation write = operation("write");
  rollHeader(dice_, write, recordLength());
  add(write.set("data", dice_.inPercent(12) ? 0 : 1 + dice_.below(200))
          .set("timeout", sendTimeout())
          .set("flush", dice_.inPercent(30)));
}

void Builder::addReply() {
  add(operation("reply")
          .set("status", dice_.of({0, 0, 5, 32, 4294967295, dice_.any() & 0xffffffff}))
          .set("size", dice_.inPercent(70) ? 132 : dice_.below(133))
          .set("priority", dice_.inPercent(20) ? dice_.below(3) : 0)
          .say(dice_.text(dice_.inPercent(30) ? 140 : 20)));
}

}  // namespace

Script writerScript(Dice& dice, int size) {
  Builder builder(dice);
  builder.begin();
  const std::uint64_t steps = dice.below(static_cast<std::uint64_t>(size) / 2 + 2);
  for (std::uint64_t i = 0; i < steps; ++i) builder.step();
  return builder.finish();
}

}  // namespace property
