#ifndef TESTS_PROPERTY_BATCH_LANGUAGE_H
#define TESTS_PROPERTY_BATCH_LANGUAGE_H

#include <optional>
#include <string>
#include <vector>

#include "property/Item.h"
#include "property/World.h"

namespace korvex::test {

/// What can be done with a batch and its records.
///
/// `batch` makes a new one. `read` takes a copy of its bytes apart, told a `size` and with the
/// metadata block's magic and count replaced when given; the queue that it fills lives on between
/// reads. `print`, `printEntry` and `header` print, in a `style` of the caller's stream: 0 none,
/// 1 hexadecimal with signs and bases, 2 wide and filled. What needs a batch does nothing without.
const Language& batchLanguage();

/// Stands for "as it is in the batch".
constexpr std::uint64_t kAsItIs = std::uint64_t{1} << 32;

/// The language's meaning: which operation it is, and how its outcome is shown.
class BatchWorld : public World {
 protected:
  /// A batch from outside.
  struct Look {
    std::uint64_t count;
    std::uint64_t used;
    bool isEmpty;
    Bytes raw;
  };

 private:
  void act(const Operation& operation) final;
  void actOnBatch(const Operation& operation);
  void showState() final;

  /// Nothing without a batch.
  virtual std::optional<Look> look() const = 0;
  virtual std::vector<Item> queue() const = 0;

  virtual void setGrouping(bool isOn) = 0;
  virtual void makeBatch(std::uint64_t size) = 0;
  virtual void printEntry(const Item& item, std::uint64_t style) = 0;
  virtual void packHeader(const Header& header, std::uint64_t style) = 0;
  virtual void packMetaData(std::uint32_t magic, std::uint32_t count) = 0;
  virtual void push(const Item& item) = 0;
  virtual void pushPlaceholder(const Item& data) = 0;
  virtual void clear() = 0;
  virtual bool canStore(std::uint32_t length) = 0;

  /// The entry, and the offset of its data.
  virtual std::pair<Item, std::size_t> entry(std::uint64_t index) = 0;
  virtual void read(std::uint64_t size, std::optional<std::uint32_t> magic,
                    std::optional<std::uint32_t> count) = 0;
  virtual void print(std::uint64_t style) = 0;
};

}  // namespace korvex::test

#endif
