#ifndef TESTS_SUPPORT_STREAM_MODEL_H
#define TESTS_SUPPORT_STREAM_MODEL_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace korvex::test {

/// What the daemon must do with the records of one queue, written from the protocol alone: what it
/// replies, stores and counts. Exact after every record; keeps no record.
class StreamModel {
 public:
  struct Record {
    std::uint32_t type;
    std::uint64_t sequence;
    const unsigned char* data;
    std::size_t size;
  };

  enum class Step { None, Opening, Writing, Completing };

  enum class Answer { None, Receipt, SinkFailure, Refusal };

  struct Counts {
    std::uint64_t opened = 0;
    std::uint64_t complete = 0;
    std::uint64_t incomplete = 0;
    std::uint64_t records = 0;
    std::uint64_t dropped = 0;
    std::uint64_t bytes = 0;
  };

  /// Of the stream whose sink was completed or abandoned last.
  struct Summary {
    std::uint64_t bytes = 0;
    std::uint64_t segments = 0;
    std::uint64_t records = 0;
  };

  Answer take(const Record& record);
  Answer takeDamage();
  void end();

  /// The next such step of a sink fails, and only that.
  void failOnce(Step step) { failing_ = step; }

  Step failing() const { return failing_; }
  const Counts& counts() const { return counts_; }
  bool hasSink() const { return state_ == State::Open; }
  std::uint64_t sinks() const { return sinks_; }

  /// What the present sink holds, or the last one held.
  const std::string& data() const { return data_; }

  const Summary& lastSummary() const { return lastSummary_; }

  /// The sequence of a record that follows without a gap.
  std::uint64_t next() const { return sequence_ + (isFirst_ ? 2 : 1); }

  /// The reply to the close of a stream that holds data().
  std::string receipt() const;

 private:
  enum class State { Idle, Open, Failed, Ended };

  Answer takeOpen(const Record& record);
  Answer takeInStream(const Record& record);
  Answer takeData(const Record& record);
  Answer takeClose();
  Answer takeOutside(const Record& record);
  bool isInOrder(const Record& record) const;
  bool fails(Step step);
  Answer refuse();
  void leave(State next);
  void endAt(std::uint64_t sequence);
  void finishSegment();

  State state_ = State::Idle;
  Step failing_ = Step::None;
  Counts counts_;
  Summary present_;
  Summary lastSummary_;
  std::uint64_t sinks_ = 0;
  std::uint64_t sequence_ = 0;
  bool isFirst_ = false;        ///< nothing came since the open record
  bool cutOffAnother_ = false;  ///< the stream before was open
  bool hasSegment_ = false;
  std::string data_;
};

}  // namespace korvex::test

#endif
