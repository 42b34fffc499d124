#include "property/BatchModel.h"

#include <algorithm>

namespace korvex::test {
namespace {

[[noreturn]] void failCorrupt(const std::string& what, std::uint32_t found,
                              std::uint32_t expected) {
  fail(32, "Could not deserialize " + what + " from buffer because the magic value " +
               std::to_string(found) + " is corrupt (expected=" + std::to_string(expected) + ")");
}

void checkHeaderMagic(std::uint32_t found) {
  if (found != kHeaderMagic) failCorrupt("qmx_shm_message", found, kHeaderMagic);
}

void checkBatchMagic(std::uint32_t found) {
  if (found != kBatchMagic) failCorrupt("ShmBatch::MetaData", found, kBatchMagic);
}

/// Takes the entry at `offset`, and moves the offset past it.
Item takeItem(const Bytes& raw, std::size_t& offset) {
  const Header header = headerAt(&raw.at(offset));
  checkHeaderMagic(header.magic);
  const unsigned char* const data = raw.data() + offset + kHeaderSize;
  offset += kHeaderSize + header.len;
  return {header, Bytes(data, data + header.len), header.len == 0};
}

std::uint32_t checksum(const Bytes& bytes) {
  std::uint64_t first = 1;
  std::uint64_t second = 0;
  for (const unsigned char byte : bytes) {
    first = (first + byte) % 65521;
    second = (second + first) % 65521;
  }
  return static_cast<std::uint32_t>(second * 65536 + first);
}

std::string entryPrinted(const Item& item) {
  std::string text =
      "type=" + std::to_string(item.header.type) + ", len=" + std::to_string(item.header.len);
  if (item.header.len != 0) text += ", crc=" + std::to_string(checksum(item.data));
  return text;
}

}  // namespace

ModelBatch::ModelBatch(std::uint64_t size) {
  assertSize(size);
  raw_.assign(size, 0);
  putMetaData();
}

void ModelBatch::assertSize(std::uint64_t size) {
  if (size >= kMetaDataSize) return;
  fail(9, "Buffer size " + std::to_string(size) +
              " is invalid because it is smaller than the minimum required buffer size of 8");
}

bool ModelBatch::canStore(std::uint32_t length) const {
  return std::uint64_t{length} + kHeaderSize <= room();
}

void ModelBatch::push(const Item& item) {
  const std::uint32_t length = item.header.len;
  if (!canStore(length)) {
    fail(4, "Could not add new batch entry because there is no room for it in the buffer");
  }
  put(used_, headerBytes(item.header));
  if (length != 0 && item.isNull) {
    fail(9, "Invalid header; the specified length of data is " + std::to_string(length) +
                " but the data pointer is NULL");
  }
  put(used_ + kHeaderSize, item.data);
  used_ += kHeaderSize + length;
  ++count_;
  putMetaData();
}

void ModelBatch::clear() {
  used_ = kMetaDataSize;
  count_ = 0;
  putMetaData();
}

void ModelBatch::put(std::size_t offset, const Bytes& bytes) {
  std::copy(bytes.begin(), bytes.end(), raw_.data() + offset);
}

void ModelBatch::putMetaData() { put(0, metaDataBytes(kBatchMagic, count_)); }

bool BatchModel::permits(const Operation& operation) const {
  const std::string verb = operation.verb->name;
  if (verb == "printEntry") return operation["data"] == 0 || operation.low("len") <= kMostData;
  if (verb != "read" || !batch_) return true;
  std::size_t offset = kMetaDataSize;
  const std::uint64_t told = operation["count"];
  for (std::uint64_t more = told < kAsItIs ? told : batch_->count(); more > 0; --more) {
    if (offset + kHeaderSize > size()) return false;
    const Header header = headerAt(&batch_->raw()[offset]);
    if (header.magic != kHeaderMagic) return true;
    offset += kHeaderSize + header.len;
    if (offset > size()) return false;
  }
  return true;
}

std::optional<BatchWorld::Look> BatchModel::look() const {
  if (!batch_) return std::nullopt;
  return Look{batch_->count(), batch_->used().size(), batch_->count() == 0, batch_->raw()};
}

void BatchModel::makeBatch(std::uint64_t size) {
  batch_.reset();
  batch_ = ModelBatch(size);
}

void BatchModel::printEntry(const Item& item, std::uint64_t) { say(entryPrinted(item)); }

void BatchModel::packHeader(const Header& header, std::uint64_t) {
  say(printed(header) + "; ");
  show(headerBytes(header));
  checkHeaderMagic(header.magic);
  say("ends at 48");
}

void BatchModel::packMetaData(std::uint32_t magic, std::uint32_t count) {
  show(metaDataBytes(magic, count));
  checkBatchMagic(magic);
  say("ends at 8");
}

void BatchModel::pushPlaceholder(const Item&) {
  Header zero;
  zero.segmentEmpty = 0;
  zero.magic = 0;
  batch_->push({zero, {}, true});
}

std::pair<Item, std::size_t> BatchModel::entry(std::uint64_t index) {
  if (index >= batch_->count()) {
    fail(9, "Cannot get entry because specified index " + std::to_string(index) +
                " is outside the range of available entries " + std::to_string(batch_->count()));
  }
  std::size_t offset = kMetaDataSize;
  for (std::uint64_t i = 0; i < index; ++i) takeItem(batch_->raw(), offset);
  const std::size_t place = offset + kHeaderSize;
  return {takeItem(batch_->raw(), offset), place};
}

void BatchModel::read(std::uint64_t size, std::optional<std::uint32_t> magic,
                      std::optional<std::uint32_t> count) {
  ModelBatch::assertSize(size);
  checkBatchMagic(magic.value_or(kBatchMagic));
  queue_.clear();
  std::size_t offset = kMetaDataSize;
  for (std::uint32_t more = count.value_or(batch_->count()); more > 0; --more) {
    queue_.push_back(takeItem(batch_->raw(), offset));
  }
}

void BatchModel::print(std::uint64_t) {
  std::string text = "ShmBatch: entries=" + std::to_string(batch_->count()) +
                     ", bufferSize=" + std::to_string(size()) +
                     ", used=" + std::to_string(batch_->used().size());
  std::size_t offset = kMetaDataSize;
  for (std::uint32_t i = 0; i < batch_->count(); ++i) {
    text += ", [" + std::to_string(i) + "]: " + entryPrinted(takeItem(batch_->raw(), offset));
  }
  say(text);
}

}  // namespace korvex::test
