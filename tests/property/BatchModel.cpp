#include "property/BatchModel.h"

namespace property {

void fail(std::uint32_t status, const std::string& message) {
  throw Failure{textOfError(status, message, "")};
}

Item itemOf(const Operation& operation) {
  const Record record = recordOf(operation);
  return {record, dataOf(record.len, operation["data"]), operation["data"] == 0};
}

BatchModel::BatchModel(std::uint64_t size) {
  assertSize(size);
  raw_.assign(size, '\0');
  putMetaData();
}

void BatchModel::assertSize(std::uint64_t size) {
  if (size >= 8) return;
  fail(9, "Buffer size " + std::to_string(size) +
              " is invalid because it is smaller than the minimum required buffer size of 8");
}

bool BatchModel::canStore(std::uint32_t length) const {
  return std::uint64_t{length} + 48 <= room();
}

void BatchModel::push(const Item& item) {
  const std::uint32_t length = item.record.len;
  if (!canStore(length)) {
    fail(4, "Could not add new batch entry because there is no room for it in the buffer");
  }
  put(used_, bytesOf(item.record));
  if (length != 0 && item.isNull) {
    fail(9, "Invalid header; the specified length of data is " + std::to_string(length) +
                " but the data pointer is NULL");
  }
  if (length != 0) put(used_ + 48, item.data);
  used_ += 48 + length;
  ++count_;
  putMetaData();
}

void BatchModel::clear() {
  used_ = 8;
  count_ = 0;
  putMetaData();
}

void BatchModel::putMetaData() { put(0, big32(kSoundBatch) + big32(count_)); }

}  // namespace property
