#ifndef KORVEX_TOOL_INSPECT_PRINTER_H
#define KORVEX_TOOL_INSPECT_PRINTER_H

#include <cstddef>
#include <iosfwd>
#include <korvex/ShmBatch.h>
#include <memory>
#include <string>

#include "Failure.h"
#include "inspect/CaptureFile.h"
#include "inspect/InspectSummary.h"

namespace korvex::tool {

/// Where a record stands in its file.
struct RecordPlace {
  std::size_t index;   ///< in the batch, from 0
  std::size_t offset;  ///< of its header in the file
};

/// What is wrong with a batch. The bytes from there on are whatever the file holds.
struct BatchDamage {
  std::size_t offset;
  std::string text;
  const unsigned char* untrustedRest;
  std::size_t restSize;
};

/// Writes what is found in captured batches, file after file.
class InspectPrinter {
 public:
  virtual ~InspectPrinter() = default;

  /// A file's records and damage follow, unless it cannot be read.
  virtual void begin(const CaptureFile& file, std::size_t size) = 0;
  virtual void record(const CaptureFile& file, const RecordPlace& place,
                      const ShmBatch::Entry& entry) = 0;
  virtual void damage(const CaptureFile& file, const BatchDamage& damage) = 0;
  virtual void unreadable(const CaptureFile& file, const Failure& failure) = 0;
  virtual void end(const InspectSummary& summary, int exitCode) = 0;
};

/// Whether the records' data is shown.
enum class DataShown { No, Yes };

/// Lines for people.
std::unique_ptr<InspectPrinter> makeTextPrinter(std::ostream& out, DataShown data);

/// A JSON object on each line; its member "kind" says what it is.
std::unique_ptr<InspectPrinter> makeJsonPrinter(std::ostream& out, DataShown data);

}  // namespace korvex::tool

#endif
