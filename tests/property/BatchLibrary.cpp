#include "property/BatchLibrary.h"

#include <iomanip>
#include <sstream>

#include <qmx/error.h>

#include "property/LibraryRecord.h"
#include "property/ReadingModel.h"

namespace property {
namespace {

using korvex::ShmBatch;

const unsigned char* bytesAt(const Bytes& bytes) {
  return reinterpret_cast<const unsigned char*>(bytes.data());
}

Record modelRecord(const korvex::qmx_shm_message_t& header) {
  return {header.type,         header.len,      header.sequence,  header.segmentCount,
          header.segmentEmpty, header.segState, header.algParam1, header.algParam2,
          header.algParam3,    header.magic};
}

Bytes dataIn(const ShmBatch::Entry& entry) {
  if (entry.data == nullptr) return {};
  return Bytes(reinterpret_cast<const char*>(entry.data), entry.header.len);
}

}  // namespace

Seen BatchLibrary::perform(const Operation& operation) {
  seen_ = {};
  try {
    act(operation);
  } catch (const Ov_ErrnoException& raised) {
    seen_.text += textOfError(raised.getStatus(), raised.getMessage(), raised.getLocation());
  } catch (const std::exception& raised) {
    seen_.text += std::string("unexpected exception: ") + raised.what();
  }
  addState();
  return seen_;
}

void BatchLibrary::addState() {
  seen_.text += ", queue holds " + std::to_string(queue_.size()) + ": ";
  for (auto entries = queue_; !entries.empty(); entries.pop()) {
    showEntry(entries.front());
    seen_.blocks.push_back(dataIn(entries.front()));
  }
  if (!batch_) return;
  seen_.text += ", batch holds " + std::to_string(batch_->getNumEntries()) + " in " +
                std::to_string(batch_->getRawSize()) + (batch_->empty() ? ", empty" : "");
  seen_.blocks.emplace_back(reinterpret_cast<const char*>(batch_->getRaw()), size_);
}

void BatchLibrary::act(const Operation& operation) {
  const std::string verb = operation.verb->name;
  if (verb == "locale") return locale_.set(operation["grouping"] != 0);
  if (verb == "batch") {
    batch_.reset();
    size_ = operation["size"];
    batch_ = std::make_unique<ShmBatch>(size_);
    return;
  }
  if (verb == "printEntry") {
    const Record record = recordOf(operation);
    const LibraryData data(record.len, operation["data"]);
    return print(ShmBatch::Entry(libraryRecord(record), data.pointer()), operation["style"]);
  }
  if (verb == "header") return showHeader(operation);
  if (verb == "metadata") return showMetaData(operation);
  if (batch_) actOnBatch(operation);
}

void BatchLibrary::actOnBatch(const Operation& operation) {
  const std::string verb = operation.verb->name;
  if (verb == "push") {
    const Record record = recordOf(operation);
    const LibraryData data(record.len, operation["data"]);
    return batch_->pushBack(ShmBatch::Entry(libraryRecord(record), data.pointer()));
  }
  if (verb == "placeholder") {
    return batch_->pushBack(ShmBatch::Entry(LibraryData(0, operation["data"]).pointer()));
  }
  if (verb == "clear") return batch_->clear();
  if (verb == "canStore") {
    korvex::qmx_shm_message_t header;
    header.len = operation.low("len");
    seen_.text += batch_->canStore(ShmBatch::Entry(header, nullptr)) ? "fits" : "does not fit";
    return;
  }
  if (verb == "entry") {
    const ShmBatch::Entry entry = batch_->getEntry(operation["index"]);
    showEntry(entry);
    if (entry.data != nullptr) {
      seen_.text += "at " + std::to_string(entry.data - batch_->getRaw());
    }
    return;
  }
  if (verb == "read") return read(operation);
  if (verb == "print") return print(*batch_, operation["style"]);
  throw std::logic_error("nobody knows " + verb);
}

void BatchLibrary::read(const Operation& operation) {
  Bytes copy(reinterpret_cast<const char*>(batch_->getRaw()), size_);
  if (operation["magic"] < kAsItIs) copy.replace(0, 4, big32(operation.low("magic")));
  if (operation["count"] < kAsItIs) copy.replace(4, 4, big32(operation.low("count")));
  copies_.push_back(copy);
  ShmBatch::getEntriesFromBuffer(queue_, bytesAt(copies_.back()), operation["size"]);
}

void BatchLibrary::showEntry(const ShmBatch::Entry& entry) {
  seen_.text += entryText(modelRecord(entry.header), entry.data != nullptr);
}

void BatchLibrary::showHeader(const Operation& operation) {
  const Record record = recordOf(operation);
  print(libraryRecord(record), operation["style"]);
  seen_.text += "; ";
  unsigned char bytes[48];
  libraryRecord(record).serializeToBuffer(bytes);
  seen_.blocks.emplace_back(reinterpret_cast<const char*>(bytes), sizeof bytes);
  const Bytes sound = bytesOf(record);
  korvex::qmx_shm_message_t parsed;
  const auto* end = parsed.deserializeFromBuffer(bytesAt(sound));
  if (printed(modelRecord(parsed)) != printed(record)) seen_.text += "read differently; ";
  seen_.text += "ends at " + std::to_string(end - bytesAt(sound));
}

void BatchLibrary::showMetaData(const Operation& operation) {
  ShmBatch::MetaData written;
  written.magic = operation.low("magic");
  written.numEntries = operation.low("count");
  unsigned char bytes[8];
  written.serializeToBuffer(bytes);
  seen_.blocks.emplace_back(reinterpret_cast<const char*>(bytes), sizeof bytes);
  const Bytes sound = big32(written.magic) + big32(written.numEntries);
  ShmBatch::MetaData parsed;
  const auto* end = parsed.deserializeFromBuffer(bytesAt(sound));
  if (parsed.numEntries != written.numEntries) seen_.text += "read differently; ";
  seen_.text += "ends at " + std::to_string(end - bytesAt(sound));
}

template <typename Thing>
void BatchLibrary::print(const Thing& thing, std::uint64_t style) {
  std::ostringstream stream;
  if (style == 1) stream << std::hex << std::showbase << std::showpos;
  if (style == 2) stream << std::left << std::setw(20) << std::setfill('*');
  stream << thing;
  seen_.text += stream.str();
}

}  // namespace property
