#include "korvexd/report/Capture.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <korvex/receiver/SystemError.h>
#include <stdexcept>
#include <string_view>

#include "common/QueueName.h"
#include "common/StoredNames.h"

namespace korvexd {
namespace {

namespace fs = std::filesystem;

using korvex::common::kCaptureSuffix;
using korvex::common::kFewestCaptureDigits;
using korvex::common::kMostCaptureDigits;

constexpr mode_t kFileMode = 0600;
constexpr const char* kStoring = "capturing a batch";

/// The number in a file's name PREFIX-NUMBER.batch; 0 for any other name.
std::uint64_t numberIn(const std::string& name, const std::string& prefix) {
  const std::size_t ends = prefix.size() + kCaptureSuffix.size();
  if (name.size() < ends + kFewestCaptureDigits || name.size() > ends + kMostCaptureDigits) {
    return 0;
  }
  if (name.compare(0, prefix.size(), prefix) != 0) return 0;
  const std::string digits = name.substr(prefix.size(), name.size() - ends);
  if (name.compare(name.size() - kCaptureSuffix.size(), std::string::npos, kCaptureSuffix) != 0) {
    return 0;
  }
  if (digits.find_first_not_of("0123456789") != std::string::npos) return 0;
  return std::stoull(digits);
}

std::uint64_t highestNumber(const std::string& folder, const std::string& prefix) {
  std::uint64_t highest = 0;
  std::error_code error;
  for (fs::directory_iterator at(folder, error), end; !error && at != end; at.increment(error)) {
    highest = std::max(highest, numberIn(at->path().filename().string(), prefix));
  }
  if (error) throw receiver::SystemError("reading capture folder " + folder, error.value());
  return highest;
}

std::string padded(std::uint64_t number) {
  const std::string digits = std::to_string(number);
  return std::string(kFewestCaptureDigits - std::min(kFewestCaptureDigits, digits.size()), '0') +
         digits;
}

File openCapture(const std::string& path) {
  return File::openFolder(path, "opening capture folder " + path);
}

}  // namespace

Capture::Capture(const std::string& folder, const std::string& queue)
    : path_(folder),
      folder_(openCapture(folder)),
      prefix_(korvex::common::fileNameOf(queue) + "-"),
      lastNumber_(highestNumber(folder, prefix_)) {}

void Capture::store(std::uint64_t number, const unsigned char* untrusted, std::size_t size) {
  findFolder();
  const std::string name = prefix_ + padded(number) + std::string(kCaptureSuffix);
  File file =
      File::openAt(folder_.descriptor(), name, O_WRONLY | O_CREAT | O_EXCL, kFileMode, kStoring);
  file.writeAll(untrusted, size, kStoring);
}

void Capture::findFolder() {
  if (folder_.isNamed(AT_FDCWD, path_, File::Links::Follow)) return;
  if (!folder_.isRemoved()) {
    throw std::runtime_error("capture folder was moved, replaced or unmounted: " + path_);
  }
  folder_ = openCapture(path_);
}

}  // namespace korvexd
