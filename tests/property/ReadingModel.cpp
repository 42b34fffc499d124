#include "property/ReadingModel.h"

namespace property {
namespace {

[[noreturn]] void failCorrupt(const std::string& what, std::uint32_t found,
                              std::uint32_t expected) {
  fail(32, "Could not deserialize " + what + " from buffer because the magic value " +
               std::to_string(found) + " is corrupt (expected=" + std::to_string(expected) + ")");
}

void checkRecordMagic(std::uint32_t found) {
  if (found != kSoundRecord) failCorrupt("qmx_shm_message", found, kSoundRecord);
}

void checkBatchMagic(std::uint32_t found) {
  if (found != kSoundBatch) failCorrupt("ShmBatch::MetaData", found, kSoundBatch);
}

/// Takes the entry at `offset`, and moves the offset past it.
Item takeItem(const Bytes& raw, std::size_t& offset) {
  const Record record = recordFrom(raw, offset);
  checkRecordMagic(record.magic);
  const Bytes data = raw.substr(offset + 48, record.len);
  offset += 48 + record.len;
  return {record, data, record.len == 0};
}

std::string printedEntry(const Item& item) {
  std::string text =
      "type=" + std::to_string(item.record.type) + ", len=" + std::to_string(item.record.len);
  if (item.record.len != 0) text += ", crc=" + std::to_string(checksum(item.data));
  return text;
}

/// The batch's word in the metadata block, unless the operation replaces it.
std::uint32_t orAsItIs(std::uint64_t value, std::uint64_t asItIs) {
  return static_cast<std::uint32_t>(value >= kAsItIs ? asItIs : value);
}

}  // namespace

std::string entryText(const Record& record, bool hasData) {
  return printed(record) + (hasData ? " with data; " : " without data; ");
}

Seen ReadingModel::perform(const Operation& operation) {
  seen_ = {};
  try {
    act(operation);
  } catch (const Failure& failure) {
    seen_.text += failure.text;
  }
  seen_.text += ", queue holds " + std::to_string(queue_.size()) + ": ";
  for (const Item& item : queue_) {
    seen_.text += entryText(item.record, !item.isNull);
    seen_.blocks.push_back(item.data);
  }
  if (!batch_) return seen_;
  seen_.text += ", batch holds " + std::to_string(batch_->count()) + " in " +
                std::to_string(batch_->used().size()) + (batch_->count() == 0 ? ", empty" : "");
  seen_.blocks.push_back(batch_->raw());
  return seen_;
}

bool ReadingModel::permits(const Operation& operation) const {
  const std::string verb = operation.verb->name;
  if (verb == "printEntry") return operation["data"] == 0 || operation.low("len") <= kMostData;
  if (verb != "read" || !batch_) return true;
  std::size_t offset = 8;
  const std::uint32_t count = orAsItIs(operation["count"], batch_->count());
  for (std::uint32_t i = 0; i < count; ++i) {
    if (offset + 48 > size()) return false;
    const Record record = recordFrom(batch_->raw(), offset);
    if (record.magic != kSoundRecord) return true;
    offset += 48 + record.len;
    if (offset > size()) return false;
  }
  return true;
}

void ReadingModel::act(const Operation& operation) {
  const std::string verb = operation.verb->name;
  if (verb == "locale") return;  // no locale reaches a digit
  if (verb == "batch") {
    batch_.reset();
    batch_ = BatchModel(operation["size"]);
    return;
  }
  if (verb == "printEntry") {
    Item item = itemOf(operation);
    seen_.text += printedEntry(item);
    return;
  }
  if (verb == "header") return showHeader(recordOf(operation));
  if (verb == "metadata") return showMetaData(operation.low("magic"), operation.low("count"));
  if (batch_) actOnBatch(operation);
}

void ReadingModel::actOnBatch(const Operation& operation) {
  const std::string verb = operation.verb->name;
  if (verb == "push") return batch_->push(itemOf(operation));
  if (verb == "placeholder") {
    Record zero;
    zero.segmentEmpty = 0;
    zero.magic = 0;
    return batch_->push({zero, "", true});
  }
  if (verb == "clear") return batch_->clear();
  if (verb == "canStore") {
    seen_.text += batch_->canStore(operation.low("len")) ? "fits" : "does not fit";
    return;
  }
  if (verb == "entry") return showEntry(operation["index"]);
  if (verb == "read") return read(operation);
  if (verb == "print") return print();
  throw Failure{"the model does not know " + verb};
}

void ReadingModel::read(const Operation& operation) {
  BatchModel::assertSize(operation["size"]);
  checkBatchMagic(orAsItIs(operation["magic"], kSoundBatch));
  queue_.clear();
  std::size_t offset = 8;
  const std::uint32_t count = orAsItIs(operation["count"], batch_->count());
  for (std::uint32_t i = 0; i < count; ++i) queue_.push_back(takeItem(batch_->raw(), offset));
}

void ReadingModel::showEntry(std::uint64_t index) {
  if (index >= batch_->count()) {
    fail(9, "Cannot get entry because specified index " + std::to_string(index) +
                " is outside the range of available entries " + std::to_string(batch_->count()));
  }
  std::size_t offset = 8;
  for (std::uint64_t i = 0; i < index; ++i) takeItem(batch_->raw(), offset);
  const std::size_t place = offset + 48;
  const Item item = takeItem(batch_->raw(), offset);
  seen_.text += entryText(item.record, !item.isNull);
  if (!item.isNull) seen_.text += "at " + std::to_string(place);
}

void ReadingModel::showHeader(const Record& record) {
  seen_.text += printed(record) + "; ";
  seen_.blocks.push_back(bytesOf(record));
  checkRecordMagic(record.magic);
  seen_.text += "ends at 48";
}

void ReadingModel::showMetaData(std::uint32_t magic, std::uint32_t count) {
  seen_.blocks.push_back(big32(magic) + big32(count));
  checkBatchMagic(magic);
  seen_.text += "ends at 8";
}

void ReadingModel::print() {
  std::string text = "ShmBatch: entries=" + std::to_string(batch_->count()) +
                     ", bufferSize=" + std::to_string(size()) +
                     ", used=" + std::to_string(batch_->used().size());
  std::size_t offset = 8;
  for (std::uint64_t i = 0; i < batch_->count(); ++i) {
    text += ", [" + std::to_string(i) + "]: " + printedEntry(takeItem(batch_->raw(), offset));
  }
  seen_.text += text;
}

}  // namespace property
