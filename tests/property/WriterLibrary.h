#ifndef TESTS_PROPERTY_WRITER_LIBRARY_H
#define TESTS_PROPERTY_WRITER_LIBRARY_H

#include <memory>
#include <string>

#include "property/LibraryTools.h"
#include "property/WriterLanguage.h"

namespace korvex {
class ShmWriter;
}

namespace korvex::test {

/// The library's writer on real queues, which this object makes and removes. One at a time.
///
/// In this program the clock of whole seconds stands in the year 1901. Deadlines are counted from
/// it, so every deadline has passed, whatever the timeout: nothing here ever waits for room.
class WriterLibrary : public WriterWorld {
 public:
  WriterLibrary();
  ~WriterLibrary() override;
  WriterLibrary(const WriterLibrary&) = delete;
  WriterLibrary& operator=(const WriterLibrary&) = delete;

  /// Removes what a process that crashed has left.
  static void removeLeftQueues();

  /// How often this process read the clock.
  static unsigned clockReads();

 private:
  QueueEnd* sendQueue() const override { return sendQueue_.get(); }
  QueueEnd* replyQueue() const override { return replyQueue_.get(); }
  std::optional<Bytes> response() const override;
  std::string logged() override;
  void setGrouping(bool isOn) override { locale_.set(isOn); }
  void makeQueues(std::optional<QueueLimits> send, std::optional<QueueLimits> reply) override;
  void construct(const WriterSettings& settings) override;
  void destroy() override;
  void open() override;
  void close() override;
  void stop(bool useStopTimeout) override;
  void setAlgorithm(const Algorithm& algorithm) override;
  void writeSegment(const Item& item, std::uint64_t length) override;
  void endSegment() override;
  void write(const Item& item, std::uint32_t timeout, bool flush) override;
  void flush(std::uint32_t timeout) override;

  GlobalLocale locale_;
  std::unique_ptr<QueueEnd> sendQueue_;
  std::unique_ptr<QueueEnd> replyQueue_;
  std::unique_ptr<ShmWriter> writer_;
};

}  // namespace korvex::test

#endif
