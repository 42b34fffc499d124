#ifndef TESTS_SUPPORT_HOSTILE_BATCHES_H
#define TESTS_SUPPORT_HOSTILE_BATCHES_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <random>
#include <string>
#include <vector>

#include "support/WireFormat.h"

namespace korvex::test::hostile {

using korvex::test::BatchBytes;
using korvex::test::Bytes;

/// Messages that no writer sends, most of them nearly right, and wholly right streams in between.
///
/// One seed gives the same messages everywhere, so a second object knows what another one sent.
class Batches {
 public:
  explicit Batches(std::uint32_t seed) : random_(seed) {}

  /// At most kLargest bytes; may be empty.
  Bytes next();

  /// A right stream in one batch, with an end that no other one has.
  static Bytes last() { return wholeStream("the last one").bytes(); }

  static constexpr std::size_t kLargest = 1024;

 private:
  static BatchBytes wholeStream(const std::string& data);
  std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(random_() % limit); }
  std::string someText();
  std::uint32_t strangeNumber();
  Bytes noise();
  Bytes someBatch();
  Bytes disorder();
  Bytes cut();
  Bytes flipped();
  Bytes withStrangeField();
  Bytes withTrailingBytes();
  Bytes inPieces();

  std::mt19937 random_;
  std::deque<Bytes> pieces_;  ///< the rest of a right stream that comes record by record
};

/// What a daemon must make of such messages, written from the format and the protocol alone.
class Model {
 public:
  void take(const Bytes& message);

  /// The data of the streams that are complete, in order.
  const std::vector<std::string>& complete() const { return complete_; }

  /// Messages that are no batches.
  std::uint64_t badBatches() const { return badBatches_; }

 private:
  struct Record {
    std::uint32_t type;
    std::uint64_t sequence;
    std::string data;
  };

  static bool decode(const Bytes& message, std::vector<Record>& records);
  void take(const Record& record);
  bool isInPlace(const Record& record) const;

  std::vector<std::string> complete_;
  std::uint64_t badBatches_ = 0;
  bool isOpen_ = false;
  bool cutOffAnother_ = false;
  bool isFirst_ = false;  ///< nothing came since the open record
  std::uint64_t sequence_ = 0;
  std::string data_;
};

}  // namespace korvex::test::hostile

#endif
