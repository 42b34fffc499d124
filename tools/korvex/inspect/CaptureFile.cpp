#include "inspect/CaptureFile.h"

#include <algorithm>
#include <cerrno>
#include <korvex/ShmBatch.h>
#include <korvex/receiver/BatchCheck.h>
#include <korvex/receiver/Limits.h>
#include <map>
#include <string_view>
#include <utility>

#include "Failure.h"
#include "InputReader.h"
#include "common/Printable.h"
#include "common/StoredNames.h"

namespace korvex::tool {
namespace {

using common::kCaptureSuffix;
using common::kFewestCaptureDigits;
using common::kMostCaptureDigits;
using receiver::BatchCheck;
using receiver::Limits;
using Bytes = std::vector<unsigned char>;

constexpr std::string_view kDigits = "0123456789";
constexpr std::size_t kFirstPiece = std::size_t{256} << 10;
constexpr std::string_view kStandardInput = "-";

bool endsWith(std::string_view text, std::string_view end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

/// The first of the digits that end the text.
std::size_t digitsAtEnd(std::string_view text) {
  const std::size_t last = text.find_last_not_of(kDigits);
  return last == std::string_view::npos ? 0 : last + 1;
}

/// Reads up to `size` more bytes. False when the file ends before.
bool append(InputReader& input, Bytes& bytes, std::size_t size) {
  const std::size_t before = bytes.size();
  bytes.resize(before + size);
  const std::size_t got = input.fill(bytes.data() + before, size);
  bytes.resize(before + got);
  return got == size;
}

bool beginsAsBatch(const Bytes& untrusted) {
  using Defect = BatchCheck::Defect;
  const Defect defect = BatchCheck(untrusted.data(), untrusted.size()).defect();
  return defect != Defect::MetaDataCut && defect != Defect::MetaDataMagic;
}

/// Reads the rest in growing pieces, so that a pipe's batch is copied a few times at most.
void appendRest(InputReader& input, Bytes& bytes) {
  bytes.reserve(std::min<std::uint64_t>(input.totalBytes().value_or(0), Limits::kLargestMessage) +
                1);
  // One byte more than allowed shows that there is more.
  std::size_t room = 0;
  do {
    room = Limits::kLargestMessage + 1 - bytes.size();
  } while (room > 0 && append(input, bytes, std::min(room, std::max(bytes.size(), kFirstPiece))));
}

}  // namespace

std::string CaptureFile::title() const {
  return path == kStandardInput ? "standard input" : common::printable(path);
}

CaptureFile captureFileOf(const std::string& path) {
  CaptureFile file{path, path, {}};
  if (!endsWith(path, kCaptureSuffix)) return file;
  const std::string_view stem =
      std::string_view(path).substr(0, path.size() - kCaptureSuffix.size());
  const std::size_t digits = digitsAtEnd(stem);
  const std::size_t count = stem.size() - digits;
  if (count < kFewestCaptureDigits || count > kMostCaptureDigits) return file;
  if (digits < 2 || stem[digits - 1] != '-' || stem[digits - 2] == '/') return file;
  file.number = std::stoull(std::string(stem.substr(digits)));
  file.capture = stem.substr(0, digits - 1);
  return file;
}

std::vector<CaptureFile> inBatchOrder(const std::vector<std::string>& paths) {
  using Place = std::pair<std::size_t, std::uint64_t>;
  std::vector<std::pair<Place, CaptureFile>> files;
  std::map<std::string, std::size_t> captures;
  for (const std::string& path : paths) {
    const CaptureFile file = captureFileOf(path);
    const std::size_t here = files.size();
    const std::size_t first =
        file.number ? captures.emplace(file.capture, here).first->second : here;
    files.push_back({{first, file.number.value_or(0)}, file});
  }
  std::stable_sort(files.begin(), files.end(),
                   [](const auto& left, const auto& right) { return left.first < right.first; });
  std::vector<CaptureFile> sorted;
  sorted.reserve(files.size());
  for (auto& file : files) sorted.push_back(std::move(file.second));
  return sorted;
}

Bytes readUntrusted(const CaptureFile& file, const StopSignal& stop) {
  InputReader input({file.path}, stop);
  input.openNext();
  Bytes bytes;
  append(input, bytes, ShmBatch::MetaData::getSerializedSize());
  if (bytes.empty()) {
    throw Failure(EBADMSG, "'" + file.title() + "' is empty, expected a batch of 8 bytes or more");
  }
  if (beginsAsBatch(bytes)) appendRest(input, bytes);
  if (bytes.size() <= Limits::kLargestMessage) return bytes;
  throw Failure(EFBIG, "'" + file.title() + "' is larger than any batch: expected at most " +
                           std::to_string(Limits::kLargestMessage) + " bytes");
}

}  // namespace korvex::tool
