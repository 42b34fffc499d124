#ifndef TESTS_PROPERTY_BATCH_LIBRARY_H
#define TESTS_PROPERTY_BATCH_LIBRARY_H

#include <list>
#include <memory>
#include <queue>

#include "korvex/ShmBatch.h"
#include "property/BatchLanguage.h"
#include "property/LibraryTools.h"

namespace korvex::test {

/// The library's batch.
class BatchLibrary : public BatchWorld {
 private:
  std::optional<Look> look() const override;
  std::vector<Item> queue() const override;
  void setGrouping(bool isOn) override { locale_.set(isOn); }
  void makeBatch(std::uint64_t size) override;
  void printEntry(const Item& item, std::uint64_t style) override;
  void packHeader(const Header& header, std::uint64_t style) override;
  void packMetaData(std::uint32_t magic, std::uint32_t count) override;
  void push(const Item& item) override;
  void pushPlaceholder(const Item& data) override;
  void clear() override { batch_->clear(); }
  bool canStore(std::uint32_t length) override;
  std::pair<Item, std::size_t> entry(std::uint64_t index) override;
  void read(std::uint64_t size, std::optional<std::uint32_t> magic,
            std::optional<std::uint32_t> count) override;
  void print(std::uint64_t style) override;

  GlobalLocale locale_;
  std::size_t size_ = 0;
  std::unique_ptr<ShmBatch> batch_;
  std::list<Bytes> copies_;  ///< what the queue's entries point into
  std::queue<ShmBatch::Entry> queue_;
};

}  // namespace korvex::test

#endif
