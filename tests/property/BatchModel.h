#ifndef TESTS_PROPERTY_BATCH_MODEL_H
#define TESTS_PROPERTY_BATCH_MODEL_H

#include <string>

#include "property/Wire.h"

namespace property {

/// What the models throw where the library throws: the error as text.
struct Failure {
  std::string text;
};

[[noreturn]] void fail(std::uint32_t status, const std::string& message);

/// A record and its data, or the null pointer in place of them.
struct Item {
  Record record;
  Bytes data;
  bool isNull;
};

/// The item that an operation's header and `data` arguments describe.
Item itemOf(const Operation& operation);

/// How a batch must behave, byte by byte, written as plainly as possible.
class BatchModel {
 public:
  explicit BatchModel(std::uint64_t size);

  static void assertSize(std::uint64_t size);

  bool canStore(std::uint32_t length) const;
  void push(const Item& item);
  void clear();

  /// Bytes that are left for entries.
  std::uint64_t room() const { return raw_.size() - used_; }

  std::uint64_t count() const { return count_; }
  const Bytes& raw() const { return raw_; }
  Bytes used() const { return raw_.substr(0, used_); }

 private:
  void put(std::size_t offset, const Bytes& bytes) { raw_.replace(offset, bytes.size(), bytes); }
  void putMetaData();

  Bytes raw_;
  std::size_t used_ = 8;
  std::uint32_t count_ = 0;
};

}  // namespace property

#endif
