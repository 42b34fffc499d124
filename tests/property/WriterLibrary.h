#ifndef TESTS_PROPERTY_WRITER_LIBRARY_H
#define TESTS_PROPERTY_WRITER_LIBRARY_H

#include <memory>
#include <string>

#include "property/GlobalLocale.h"
#include "property/WriterLanguage.h"

namespace korvex {
class ShmWriter;
}

namespace property {

/// The library's writer on real queues, which this object makes and removes. One at a time.
class WriterLibrary : public World {
 public:
  WriterLibrary();
  ~WriterLibrary() override;
  WriterLibrary(const WriterLibrary&) = delete;
  WriterLibrary& operator=(const WriterLibrary&) = delete;

  /// Removes what a process that crashed has left.
  static void removeLeftQueues();

  Seen perform(const Operation& operation) override;

 private:
  class Queue;

  void act(const Operation& operation);
  void actOnWriter(const Operation& operation);
  void makeQueues(const Operation& operation);
  void construct(const Operation& operation);
  void write(const Operation& operation);
  void take();
  void addState();

  GlobalLocale locale_;
  std::unique_ptr<Queue> sendQueue_;
  std::unique_ptr<Queue> replyQueue_;
  std::unique_ptr<korvex::ShmWriter> writer_;
  Seen seen_;
};

}  // namespace property

#endif
