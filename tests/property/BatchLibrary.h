#ifndef TESTS_PROPERTY_BATCH_LIBRARY_H
#define TESTS_PROPERTY_BATCH_LIBRARY_H

#include <list>
#include <memory>
#include <queue>
#include <string>

#include "korvex/ShmBatch.h"
#include "property/BatchLanguage.h"
#include "property/GlobalLocale.h"

namespace property {

/// The library's batch.
class BatchLibrary : public World {
 public:
  Seen perform(const Operation& operation) override;

 private:
  void act(const Operation& operation);
  void actOnBatch(const Operation& operation);
  void read(const Operation& operation);
  void showEntry(const korvex::ShmBatch::Entry& entry);
  void showHeader(const Operation& operation);
  void showMetaData(const Operation& operation);
  void addState();
  template <typename Thing>
  void print(const Thing& thing, std::uint64_t style);

  GlobalLocale locale_;
  std::size_t size_ = 0;
  std::unique_ptr<korvex::ShmBatch> batch_;
  std::list<Bytes> copies_;  ///< what the queue's entries point into
  std::queue<korvex::ShmBatch::Entry> queue_;
  Seen seen_;
};

}  // namespace property

#endif
