#ifndef TESTS_INTEGRATION_WRITER_STORY_H
#define TESTS_INTEGRATION_WRITER_STORY_H

#include <functional>
#include <memory>
#include <string>

#include <korvex/ShmWriter.h>

/// The life of a writer whose timeouts are one second, and the first thing that goes wrong in it.
class WriterStory {
 public:
  explicit WriterStory(std::string queue) : queue_(std::move(queue)) {}

  /// Constructs the writer. "works", or "construct: ERROR".
  std::string construct();

  /// Everything else that a writer does, each call whatever became of those before. "works", or
  /// the first error, "CALL: ERROR". A call that takes longer than it may is "CALL: late".
  std::string goOn();

  std::string whole();

 private:
  void call(const char* name, const std::function<void()>& action);

  std::string queue_;
  std::string first_ = "works";
  std::unique_ptr<korvex::ShmWriter> writer_;
};

#endif
