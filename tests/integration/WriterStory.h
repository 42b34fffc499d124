#ifndef TESTS_INTEGRATION_WRITER_STORY_H
#define TESTS_INTEGRATION_WRITER_STORY_H

#include <functional>
#include <korvex/ShmWriter.h>
#include <memory>
#include <string>

/// The life of a writer whose timeouts are one second: the first thing that goes wrong in it, and
/// every call that takes longer than it may.
class WriterStory {
 public:
  explicit WriterStory(std::string queue) : queue_(std::move(queue)) {}

  /// Constructs the writer. "works", or "construct: ERROR".
  std::string construct();

  /// Everything else that a writer does, each call whatever became of those before. "works", or
  /// the first error, "CALL: ERROR"; behind it "; CALL: late" for each late call.
  std::string goOn();

  std::string whole();

  /// Whether a story, told by one of the above, has a late call.
  static bool hasLateCall(const std::string& story);

 private:
  /// How often a call may wait for room. One that makes room for its record first has a whole
  /// timeout for that, and then another for its own flush.
  enum class Waits : unsigned { Once = 1, Twice = 2 };

  void call(const char* name, Waits waits, const std::function<void()>& action);
  std::string told() const { return first_ + late_; }

  std::string queue_;
  std::string first_ = "works";
  std::string late_;
  std::unique_ptr<korvex::ShmWriter> writer_;
};

#endif
