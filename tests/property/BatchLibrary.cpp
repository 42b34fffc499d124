#include "property/BatchLibrary.h"

#include <algorithm>
#include <iomanip>
#include <sstream>

namespace korvex::test {
namespace {

Header headerIn(const qmx_shm_message_t& header) { return headerAt(headerBytes(header).data()); }

Item itemIn(const ShmBatch::Entry& entry) {
  if (entry.data == nullptr) return {headerIn(entry.header), {}, true};
  return {headerIn(entry.header), Bytes(entry.data, entry.data + entry.header.len), false};
}

template <typename Thing>
std::string textOf(const Thing& thing, std::uint64_t style) {
  std::ostringstream stream;
  if (style == 1) stream << std::hex << std::showbase << std::showpos;
  if (style == 2) stream << std::left << std::setw(20) << std::setfill('*');
  stream << thing;
  return stream.str();
}

template <std::size_t size, typename Thing>
Bytes packed(const Thing& thing) {
  Bytes bytes(size);
  thing.serializeToBuffer(bytes.data());
  return bytes;
}

/// Reads sound bytes back, and says how far the reader got.
template <typename Thing>
std::string unpack(Thing& thing, const Bytes& sound) {
  const unsigned char* const end = thing.deserializeFromBuffer(sound.data());
  return "ends at " + std::to_string(end - sound.data());
}

}  // namespace

std::optional<BatchWorld::Look> BatchLibrary::look() const {
  if (!batch_) return std::nullopt;
  return Look{batch_->getNumEntries(), batch_->getRawSize(), batch_->empty(),
              Bytes(batch_->getRaw(), batch_->getRaw() + size_)};
}

std::vector<Item> BatchLibrary::queue() const {
  std::vector<Item> items;
  for (auto entries = queue_; !entries.empty(); entries.pop()) {
    items.push_back(itemIn(entries.front()));
  }
  return items;
}

void BatchLibrary::makeBatch(std::uint64_t size) {
  batch_.reset();
  size_ = size;
  batch_ = std::make_unique<ShmBatch>(size);
}

void BatchLibrary::printEntry(const Item& item, std::uint64_t style) {
  say(textOf(ShmBatch::Entry(libraryHeader(item.header), pointerTo(item)), style));
}

void BatchLibrary::packHeader(const Header& header, std::uint64_t style) {
  say(textOf(libraryHeader(header), style) + "; ");
  show(packed<kHeaderSize>(libraryHeader(header)));
  qmx_shm_message_t parsed;
  const std::string end = unpack(parsed, headerBytes(header));
  if (headerBytes(parsed) != headerBytes(header)) say("read differently; ");
  say(end);
}

void BatchLibrary::packMetaData(std::uint32_t magic, std::uint32_t count) {
  ShmBatch::MetaData written;
  written.magic = magic;
  written.numEntries = count;
  show(packed<kMetaDataSize>(written));
  ShmBatch::MetaData parsed;
  const std::string end = unpack(parsed, metaDataBytes(magic, count));
  if (parsed.numEntries != count) say("read differently; ");
  say(end);
}

void BatchLibrary::push(const Item& item) {
  batch_->pushBack(ShmBatch::Entry(libraryHeader(item.header), pointerTo(item)));
}

void BatchLibrary::pushPlaceholder(const Item& data) {
  batch_->pushBack(ShmBatch::Entry(pointerTo(data)));
}

bool BatchLibrary::canStore(std::uint32_t length) {
  qmx_shm_message_t header;
  header.len = length;
  return batch_->canStore(ShmBatch::Entry(header, nullptr));
}

std::pair<Item, std::size_t> BatchLibrary::entry(std::uint64_t index) {
  const ShmBatch::Entry entry = batch_->getEntry(index);
  if (entry.data == nullptr) return {itemIn(entry), 0};
  return {itemIn(entry), static_cast<std::size_t>(entry.data - batch_->getRaw())};
}

void BatchLibrary::read(std::uint64_t size, std::optional<std::uint32_t> magic,
                        std::optional<std::uint32_t> count) {
  const auto* const raw = batch_->getRaw();
  copies_.emplace_back(raw, raw + size_);
  const Bytes metaData = metaDataBytes(magic.value_or(bigEndianAt<std::uint32_t>(raw)),
                                       count.value_or(bigEndianAt<std::uint32_t>(raw + 4)));
  std::copy(metaData.begin(), metaData.end(), copies_.back().begin());
  ShmBatch::getEntriesFromBuffer(queue_, copies_.back().data(), size);
}

void BatchLibrary::print(std::uint64_t style) { say(textOf(*batch_, style)); }

}  // namespace korvex::test
