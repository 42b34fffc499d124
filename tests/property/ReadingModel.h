#ifndef TESTS_PROPERTY_READING_MODEL_H
#define TESTS_PROPERTY_READING_MODEL_H

#include <optional>
#include <string>
#include <vector>

#include "property/BatchLanguage.h"
#include "property/BatchModel.h"

namespace property {

/// How a batch and its records must behave when they are written, read and printed.
class ReadingModel : public Model {
 public:
  Seen perform(const Operation& operation) override;

  /// A read must stay inside the batch: its reader trusts the count and the lengths that it finds.
  bool permits(const Operation& operation) const override;

  /// Bytes that are left, and all of them; 0 without a batch.
  std::uint64_t room() const { return batch_ ? batch_->room() : 0; }
  std::uint64_t size() const { return batch_ ? batch_->raw().size() : 0; }
  std::uint64_t count() const { return batch_ ? batch_->count() : 0; }

 private:
  void act(const Operation& operation);
  void actOnBatch(const Operation& operation);
  void read(const Operation& operation);
  void showEntry(std::uint64_t index);
  void showHeader(const Record& record);
  void showMetaData(std::uint32_t magic, std::uint32_t count);
  void print();

  std::optional<BatchModel> batch_;
  std::vector<Item> queue_;
  Seen seen_;
};

/// How both sides tell of an entry that was read.
std::string entryText(const Record& record, bool hasData);

}  // namespace property

#endif
