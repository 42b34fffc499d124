#include "inspect/InspectPrinter.h"

#include <iomanip>
#include <nlohmann/json.hpp>
#include <ostream>
#include <sstream>

#include "JsonLine.h"
#include "common/Printable.h"
#include "inspect/HexDump.h"

namespace korvex::tool {
namespace {

using Json = nlohmann::ordered_json;

constexpr int kOffsetWidth = 10;
constexpr int kTypeWidth = 14;
constexpr const char* kIndent = "            ";

class TextPrinter : public InspectPrinter {
 public:
  TextPrinter(std::ostream& out, DataShown data) : out_(out), data_(data) {}

  void begin(const CaptureFile& file, std::size_t size) override {
    out_ << file.title() << ": " << size << " bytes\n";
  }

  void record(const CaptureFile&, const RecordPlace& place, const ShmBatch::Entry& entry) override {
    out_ << std::setw(kOffsetWidth) << place.offset << "  " << std::left << std::setw(kTypeWidth)
         << recordTypeName(entry.header.type) << std::right << entry << "  " << entry.header
         << '\n';
    dump(entry.data, entry.header.len, place.offset + qmx_shm_message_t::getSerializedSize());
  }

  void damage(const CaptureFile&, const BatchDamage& damage) override {
    out_ << std::setw(kOffsetWidth) << damage.offset << "  damaged: " << damage.text << '\n';
    dump(damage.untrustedRest, damage.restSize, damage.offset);
  }

  void unreadable(const CaptureFile&, const Failure&) override {}

  void end(const InspectSummary& summary, int) override { out_ << summary.text(); }

 private:
  void dump(const unsigned char* bytes, std::size_t size, std::size_t offset) {
    if (data_ == DataShown::Yes) writeHexDump(out_, bytes, size, offset, kIndent);
  }

  std::ostream& out_;
  DataShown data_;
};

class JsonPrinter : public InspectPrinter {
 public:
  JsonPrinter(std::ostream& out, DataShown data) : out_(out), data_(data) {}

  void begin(const CaptureFile&, std::size_t) override {}
  void record(const CaptureFile& file, const RecordPlace& place,
              const ShmBatch::Entry& entry) override;
  void damage(const CaptureFile& file, const BatchDamage& damage) override;
  void unreadable(const CaptureFile& file, const Failure& failure) override;
  void end(const InspectSummary& summary, int exitCode) override;

 private:
  static Json objectOf(const char* kind, const CaptureFile& file);
  void write(const Json& object, const char* dataName, const unsigned char* bytes,
             std::size_t size);

  std::ostream& out_;
  DataShown data_;
};

Json JsonPrinter::objectOf(const char* kind, const CaptureFile& file) {
  return {{"kind", kind},
          {"file", common::unambiguous(file.path)},
          {"batch", file.number ? Json(*file.number) : Json(nullptr)}};
}

/// The data is written separately: it may be too large to hold twice.
void JsonPrinter::write(const Json& object, const char* dataName, const unsigned char* bytes,
                        std::size_t size) {
  std::string line = jsonLine(object);
  if (data_ == DataShown::No) {
    out_ << line << '\n';
    return;
  }
  line.pop_back();
  out_ << line << ",\"" << dataName << "\":\"";
  writeHex(out_, bytes, size);
  out_ << "\"}\n";
}

void JsonPrinter::record(const CaptureFile& file, const RecordPlace& place,
                         const ShmBatch::Entry& entry) {
  const qmx_shm_message_t& header = entry.header;
  std::ostringstream printed;
  printed << entry;
  Json object = objectOf("record", file);
  object.update({{"index", place.index},
                 {"offset", place.offset},
                 {"type", header.type},
                 {"typeName", recordTypeName(header.type)},
                 {"len", header.len},
                 {"sequence", header.sequence},
                 {"segmentCount", header.segmentCount},
                 {"segmentEmpty", header.segmentEmpty},
                 {"segState", header.segState},
                 {"algParam1", header.algParam1},
                 {"algParam2", header.algParam2},
                 {"algParam3", header.algParam3},
                 {"printed", printed.str()}});
  write(object, "data", entry.data, header.len);
}

void JsonPrinter::damage(const CaptureFile& file, const BatchDamage& damage) {
  Json object = objectOf("damage", file);
  object["offset"] = damage.offset;
  object["message"] = damage.text;
  write(object, "rest", damage.untrustedRest, damage.restSize);
}

void JsonPrinter::unreadable(const CaptureFile& file, const Failure& failure) {
  Json object = objectOf("unreadable", file);
  object["status"] = failure.status();
  object["message"] = failure.what();
  out_ << jsonLine(object) << '\n';
}

void JsonPrinter::end(const InspectSummary& summary, int exitCode) {
  Json object = {{"kind", "summary"}};
  summary.addTo(object);
  object["exitCode"] = exitCode;
  out_ << jsonLine(object) << '\n';
}

}  // namespace

std::unique_ptr<InspectPrinter> makeTextPrinter(std::ostream& out, DataShown data) {
  return std::make_unique<TextPrinter>(out, data);
}

std::unique_ptr<InspectPrinter> makeJsonPrinter(std::ostream& out, DataShown data) {
  return std::make_unique<JsonPrinter>(out, data);
}

}  // namespace korvex::tool
