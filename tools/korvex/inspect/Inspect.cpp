#include "inspect/Inspect.h"

#include <CLI/CLI.hpp>
#include <korvex/ShmBatch.h>
#include <korvex/receiver/BatchCheck.h>
#include <ostream>

#include "Failure.h"
#include "inspect/CaptureFile.h"
#include "inspect/InspectPrinter.h"
#include "inspect/InspectSummary.h"

namespace korvex::tool {
namespace {

using receiver::BatchCheck;
using Bytes = std::vector<unsigned char>;

std::unique_ptr<InspectPrinter> makePrinter(const InspectOptions& options, std::ostream& out) {
  const DataShown data = options.data ? DataShown::Yes : DataShown::No;
  return options.json ? makeJsonPrinter(out, data) : makeTextPrinter(out, data);
}

/// One run of the command.
class InspectRun {
 public:
  InspectRun(const InspectOptions& options, const StopSignal& stop, std::ostream& out,
             std::ostream& errors)
      : options_(options),
        stop_(stop),
        out_(out),
        errors_(errors),
        printer_(makePrinter(options, out)) {}

  Ending run();

 private:
  void inspectAll();
  void inspect(const CaptureFile& file);
  void printRecords(const CaptureFile& file, const Bytes& bytes, std::size_t checkedSize);
  void fail() { ending_.exitCode = static_cast<int>(common::ExitCode::Failed); }

  const InspectOptions& options_;
  const StopSignal& stop_;
  std::ostream& out_;
  std::ostream& errors_;
  std::unique_ptr<InspectPrinter> printer_;
  InspectSummary summary_;
  Ending ending_ = {static_cast<int>(common::ExitCode::Success), 0};
};

Ending InspectRun::run() {
  try {
    inspectAll();
  } catch (const Interrupted& interrupted) {
    errors_ << "korvex: interrupted by signal " << interrupted.signal << std::endl;
    ending_ = endedBySignal(interrupted.signal);
  }
  // An output that failed keeps the error number of its first failure for the message about it.
  if (out_) printer_->end(summary_, ending_.exitCode);
  return ending_;
}

void InspectRun::inspectAll() {
  for (const CaptureFile& file : inBatchOrder(options_.files)) {
    if (!out_) return;
    summary_.addFile(file);
    try {
      inspect(file);
    } catch (const Failure& failure) {
      errors_ << "korvex: " << failure.what() << std::endl;
      printer_->unreadable(file, failure);
      fail();
    }
  }
}

void InspectRun::inspect(const CaptureFile& file) {
  const Bytes bytes = readUntrusted(file, stop_);
  const BatchCheck check(bytes.data(), bytes.size());
  summary_.addBatch(!check.ok());
  printer_->begin(file, bytes.size());
  printRecords(file, bytes, check.offset());
  if (check.ok()) return;
  fail();
  printer_->damage(file, {check.offset(), check.text(), bytes.data() + check.offset(),
                          bytes.size() - check.offset()});
}

/// The check has passed every record up to `checkedSize`, so each lies inside the bytes and its
/// magic is right. In a batch with a damaged metadata block it has passed none.
void InspectRun::printRecords(const CaptureFile& file, const Bytes& bytes,
                              std::size_t checkedSize) {
  RecordPlace place = {0, ShmBatch::MetaData::getSerializedSize()};
  while (place.offset < checkedSize && out_) {
    stop_.throwIfReceived();
    qmx_shm_message_t header;
    const unsigned char* const data = header.deserializeFromBuffer(bytes.data() + place.offset);
    summary_.addRecord(header);
    printer_->record(file, place, ShmBatch::Entry(header, header.len != 0 ? data : nullptr));
    place.offset += qmx_shm_message_t::getSerializedSize() + header.len;
    ++place.index;
  }
}

}  // namespace

CLI::App* declareInspect(CLI::App& tool, InspectOptions& options) {
  CLI::App* const inspect =
      tool.add_subcommand("inspect", "Print the records of batches that a daemon captured");
  inspect->add_flag("--data", options.data, "Show the records' data in hex");
  inspect->add_flag("--json", options.json, "Write a JSON object on each line, the summary last");
  inspect->add_option("FILE", options.files, "QUEUE-NUMBER.batch files; - is standard input")
      ->required();
  return inspect;
}

Ending runInspect(const InspectOptions& options, const StopSignal& stop, std::ostream& out,
                  std::ostream& errors) {
  return InspectRun(options, stop, out, errors).run();
}

}  // namespace korvex::tool
