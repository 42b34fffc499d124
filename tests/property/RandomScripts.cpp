#include "property/RandomScripts.h"

#include <functional>

#include "property/BatchModel.h"
#include "property/WriterModel.h"

namespace korvex::test {
namespace {

/// Random choices, all from one seed.
class Dice {
 public:
  explicit Dice(const rc::Random& random) : random_(random) {}

  std::uint64_t any() { return random_.next(); }
  std::uint64_t any32() { return any() & 0xffffffff; }
  std::uint64_t below(std::uint64_t limit) { return any() % limit; }
  bool inPercent(unsigned percent) { return below(100) < percent; }
  std::uint64_t of(const std::vector<std::uint64_t>& values) {
    return values[below(values.size())];
  }

  /// What a `data` argument may be: now and then the null pointer.
  std::uint64_t data(unsigned nullPercent = 12) {
    return inPercent(nullPercent) ? 0 : 1 + below(200);
  }

  /// Any bytes, NUL and quotes among them, fewer than `limit`.
  std::string text(std::size_t limit) {
    std::string bytes(below(limit), '\0');
    const bool isReadable = inPercent(60);
    for (char& byte : bytes) byte = static_cast<char>(isReadable ? 'a' + below(26) : any());
    return bytes;
  }

  /// Record lengths around every edge: none, the free room, the whole room, the limit of a record,
  /// the end of 32 bits.
  std::uint32_t edgyLength(std::uint64_t room, std::uint64_t wholeRoom) {
    const std::uint64_t jitter = below(3) - 1;  // wraps on purpose, as the sums below do
    const std::uint64_t length =
        of({0, 1, below(64), below(64), room - 48 + jitter, room - 48 + jitter, room / 2,
            wholeRoom - 48 + jitter, wholeRoom, 131072 + jitter, 0xffffffff - below(60),
            std::uint64_t{1} << 31});
    return static_cast<std::uint32_t>(length);
  }

 private:
  rc::Random random_;
};

/// One of the things that a script may do next; chosen in proportion to its weight.
struct Choice {
  unsigned weight;
  std::function<void()> add;
};

/// Builds a script and runs a model along, so that lengths can aim at the room that remains.
template <typename Model>
class Builder {
 public:
  Builder(const Language& language, const rc::Random& random)
      : dice_(random), script_{&language, {}} {}

 protected:
  Operation operation(const std::string& word) const {
    return Operation(script_.language->verb(word));
  }

  /// Its header is often as a producer would make it, sometimes anything.
  Operation withHeader(const std::string& word) {
    Operation made = operation(word);
    made.set("len", recordLength())
        .set("type", dice_.of({0, 1, 2, 2, 3, 4, dice_.any32()}))
        .set("state", dice_.of({0, 0, 1, 1, 2, dice_.any32()}));
    if (dice_.inPercent(30)) {
      made.set("sequence", dice_.any()).set("count", dice_.any()).set("empty", dice_.below(3));
      for (const char* name : {"p1", "p2", "p3"}) made.set(name, dice_.any32());
    }
    if (dice_.inPercent(8)) made.set("magic", dice_.of({0, 0xddccbbaa, dice_.below(1000)}));
    return made;
  }

  void add(const Operation& operation) {
    script_.operations.push_back(operation);
    if (model_.permits(operation)) model_.perform(operation);
  }
  void add(const std::string& word) { add(operation(word)); }
  void addLocale() { add(operation("locale").set("grouping", dice_.below(2))); }

  void addSome(int size, const std::vector<Choice>& choices) {
    std::uint64_t sum = 0;
    for (const Choice& choice : choices) sum += choice.weight;
    const std::uint64_t steps = dice_.below(static_cast<std::uint64_t>(size) / 2 + 2);
    for (std::uint64_t i = 0; i < steps; ++i) {
      std::uint64_t rolled = dice_.below(sum);
      auto choice = choices.begin();
      for (; rolled >= choice->weight; ++choice) rolled -= choice->weight;
      choice->add();
    }
  }

  virtual std::uint32_t recordLength() = 0;

  Dice dice_;
  Model model_;
  Script script_;
};

class BatchBuilder : Builder<BatchModel> {
 public:
  explicit BatchBuilder(const rc::Random& random) : Builder(batchLanguage(), random) {}

  Script build(int size) {
    addBatch();
    addSome(
        size,
        {{40, [this] { add(withHeader("push").set("data", dice_.data())); }},
         {2, [this] { add(operation("placeholder").set("data", dice_.data())); }},
         {5, [this] { add("clear"); }},
         {10, [this] { add(operation("canStore").set("len", recordLength())); }},
         {12, [this] { add(operation("entry").set("index", index())); }},
         {12, [this] { addRead(); }},
         {10, [this] { add(operation("print").set("style", dice_.below(3))); }},
         {5,
          [this] {
            add(withHeader("printEntry").set("data", dice_.data()).set("style", dice_.below(3)));
          }},
         {4, [this] { add(withHeader("header").set("style", dice_.below(3))); }},
         {2,
          [this] {
            add(operation("metadata")
                    .set("magic", dice_.of({kBatchMagic, kBatchMagic, dice_.any32()}))
                    .set("count", dice_.any32()));
          }},
         {2, [this] { addBatch(); }},
         {1, [this] { addLocale(); }}});
    return script_;
  }

 private:
  std::uint32_t recordLength() override {
    return dice_.edgyLength(model_.room(), model_.size() - 8);
  }

  std::uint64_t index() {
    return dice_.inPercent(10) ? dice_.any() : dice_.below(model_.count() + 2);
  }

  void addBatch() {
    const std::uint64_t size = dice_.inPercent(5)
                                   ? dice_.of({131072 + 56, 262288})
                                   : dice_.of({8, 9, 55, 56, 57, 104, 105, dice_.below(8),
                                               8 + dice_.below(500), 8 + dice_.below(500)});
    add(operation("batch").set("size", size));
  }

  void addRead() {
    Operation read = operation("read");
    read.set("size", dice_.inPercent(15) ? dice_.below(10) : model_.size());
    if (dice_.inPercent(8)) read.set("magic", dice_.of({0, 300810495, kHeaderMagic}));
    if (dice_.inPercent(15)) read.set("count", dice_.below(model_.count() + 3));
    add(read);
  }
};

class WriterBuilder : Builder<WriterModel> {
 public:
  explicit WriterBuilder(const rc::Random& random) : Builder(writerLanguage(), random) {}

  Script build(int size) {
    addQueues();
    addConstruct();
    if (dice_.inPercent(80)) add("open");
    addSome(size, {{6, [this] { add("open"); }},
                   {5, [this] { add("close"); }},
                   {5, [this] { add(operation("stop").set("useStopTimeout", dice_.below(2))); }},
                   {8, [this] { addAlgorithm(); }},
                   {18, [this] { addSegment(); }},
                   {10, [this] { add("end"); }},
                   {16, [this] { addWrite(); }},
                   {5, [this] { add(operation("flush").set("timeout", sendTimeout())); }},
                   {12, [this] { add("take"); }},
                   {5, [this] { add("drain"); }},
                   {2, [this] { add(operation("fill").set("priority", dice_.below(3))); }},
                   {9, [this] { addReply(); }},
                   {4, [this] { addConstruct(); }},
                   {2, [this] { add("destroy"); }},
                   {1, [this] { addQueues(); }},
                   {1, [this] { addLocale(); }}});
    for (const char* word : {"drain", "end", "drain", "stop", "drain", "destroy", "drain"}) {
      add(word);
    }
    return script_;
  }

 private:
  std::uint32_t recordLength() override {
    return dice_.edgyLength(model_.room(), model_.messageSize() - 8);
  }

  std::uint64_t sendTimeout() {
    return dice_.of({0, 1, 30, 86400, 86401, 2147483647, 2147483648, 4294967295});
  }

  std::uint64_t queueSize() {
    if (dice_.inPercent(6)) {
      return dice_.of({131071, 131072, 131072 + 55, 131072 + 56, 131072 + 57, 262288});
    }
    if (dice_.inPercent(5)) return 1 + dice_.below(8);
    return dice_.of({8, 9, 55, 56, 57, 103, 104, 105, 8 + dice_.below(400), 8 + dice_.below(400)});
  }

  void addQueues() {
    add(operation("queues")
            .set("size", queueSize())
            .set("depth", 1 + dice_.below(4))
            .set("replySize", dice_.of({132, 132, 132, 132, 132, 132, 131, 4, 1, 133}))
            .set("replyDepth", 1 + dice_.below(4))
            .set("missing", dice_.inPercent(3) ? 1 + dice_.below(2) : 0));
  }

  void addConstruct() {
    const bool isUsable = dice_.inPercent(90);
    add(operation("construct")
            .set("timeout", isUsable ? dice_.of({1, 30, 86400}) : dice_.of({0, 86401, 4294967295}))
            .set("stopTimeout", sendTimeout())
            .set("benchmark", dice_.inPercent(7))
            .say(dice_.inPercent(30) ? "" : dice_.text(12)));
  }

  void addAlgorithm() {
    Operation algorithm = operation("algorithm");
    algorithm.set("state", dice_.of({0, 0, 1, 1, 1, 2, 4294967295, dice_.any32()}));
    for (const char* name : {"p1", "p2", "p3"}) {
      algorithm.set(name, dice_.of({0, 1, 4294967295, 4294967296 + dice_.below(4), dice_.any()}));
    }
    add(algorithm);
  }

  void addSegment() {
    const std::uint64_t beyond = dice_.inPercent(15) ? dice_.of({1, 2, 4294967295}) : 0;
    add(operation("segment")
            .set("length", (beyond << 32) + recordLength())
            .set("data", dice_.data(6)));
  }

  void addWrite() {
    add(withHeader("write")
            .set("data", dice_.data())
            .set("timeout", sendTimeout())
            .set("flush", dice_.inPercent(30)));
  }

  void addReply() {
    add(operation("reply")
            .set("status", dice_.of({0, 0, 5, 32, 4294967295, dice_.any32()}))
            .set("size", dice_.inPercent(70) ? 132 : dice_.below(133))
            .set("priority", dice_.inPercent(20) ? dice_.below(3) : 0)
            .say(dice_.text(dice_.inPercent(30) ? 140 : 20)));
  }
};

}  // namespace

Script batchScript(const rc::Random& random, int size) { return BatchBuilder(random).build(size); }

Script writerScript(const rc::Random& random, int size) {
  return WriterBuilder(random).build(size);
}

}  // namespace korvex::test
