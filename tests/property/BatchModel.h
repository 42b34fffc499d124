#ifndef TESTS_PROPERTY_BATCH_MODEL_H
#define TESTS_PROPERTY_BATCH_MODEL_H

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "property/BatchLanguage.h"

namespace korvex::test {

/// How a batch must behave, byte by byte, written as plainly as possible.
class ModelBatch {
 public:
  explicit ModelBatch(std::uint64_t size);

  static void assertSize(std::uint64_t size);

  bool canStore(std::uint32_t length) const;
  void push(const Item& item);
  void clear();

  /// Bytes that remain for entries.
  std::uint64_t room() const { return raw_.size() - used_; }

  std::uint32_t count() const { return count_; }
  const Bytes& raw() const { return raw_; }
  Bytes used() const { return Bytes(raw_.data(), raw_.data() + used_); }

 private:
  void put(std::size_t offset, const Bytes& bytes);
  void putMetaData();

  Bytes raw_;
  std::size_t used_ = kMetaDataSize;
  std::uint32_t count_ = 0;
};

/// How a batch and its records must behave when they are written, read and printed.
class BatchModel : public BatchWorld {
 public:
  /// A read must stay inside the batch: its reader trusts the count and the lengths that it finds.
  bool permits(const Operation& operation) const override;

  /// Bytes that remain, and all of them; 0 without a batch.
  std::uint64_t room() const { return batch_ ? batch_->room() : 0; }
  std::uint64_t size() const { return batch_ ? batch_->raw().size() : 0; }
  std::uint64_t count() const { return batch_ ? batch_->count() : 0; }

 private:
  std::optional<Look> look() const override;
  std::vector<Item> queue() const override { return queue_; }
  void setGrouping(bool) override {}  // no locale reaches a digit
  void makeBatch(std::uint64_t size) override;
  void printEntry(const Item& item, std::uint64_t style) override;
  void packHeader(const Header& header, std::uint64_t style) override;
  void packMetaData(std::uint32_t magic, std::uint32_t count) override;
  void push(const Item& item) override { batch_->push(item); }
  void pushPlaceholder(const Item& data) override;
  void clear() override { batch_->clear(); }
  bool canStore(std::uint32_t length) override { return batch_->canStore(length); }
  std::pair<Item, std::size_t> entry(std::uint64_t index) override;
  void read(std::uint64_t size, std::optional<std::uint32_t> magic,
            std::optional<std::uint32_t> count) override;
  void print(std::uint64_t style) override;

  std::optional<ModelBatch> batch_;
  std::vector<Item> queue_;
};

}  // namespace korvex::test

#endif
