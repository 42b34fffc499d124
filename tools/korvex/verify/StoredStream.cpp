#include "verify/StoredStream.h"

#include <algorithm>
#include <filesystem>
#include <string_view>
#include <sys/stat.h>
#include <system_error>

#include "Failure.h"
#include "common/Printable.h"
#include "common/StoredNames.h"

namespace korvex::tool {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kPartialSuffix = common::kPartialSuffix;
constexpr std::string_view kDigits = "0123456789";
constexpr std::string_view kTimeForm = "-00000000T000000Z-";  // 0 is any digit

bool isDigit(char character) { return kDigits.find(character) != std::string_view::npos; }

bool hasTimeForm(std::string_view text) {
  for (std::size_t i = 0; i < kTimeForm.size(); ++i) {
    if (kTimeForm[i] == '0' ? !isDigit(text[i]) : text[i] != kTimeForm[i]) return false;
  }
  return true;
}

/// Whether a daemon could have given a stream this name.
bool isStreamName(std::string_view name) {
  const std::size_t number = name.find_last_not_of(kDigits) + 1;
  if (number == 0 || number == name.size() || number <= kTimeForm.size()) return false;
  return hasTimeForm(name.substr(number - kTimeForm.size(), kTimeForm.size()));
}

bool isPartialName(std::string_view name) {
  return name.size() > kPartialSuffix.size() &&
         name.substr(name.size() - kPartialSuffix.size()) == kPartialSuffix;
}

std::string_view finalName(std::string_view name) {
  return isPartialName(name) ? name.substr(0, name.size() - kPartialSuffix.size()) : name;
}

/// Links are not followed, so a link is neither a folder nor a file.
struct stat statusOf(const std::string& path) {
  struct stat status = {};
  if (::lstat(path.c_str(), &status) != 0) status = {};
  return status;
}

bool isFolder(const std::string& path) { return S_ISDIR(statusOf(path).st_mode); }

bool exists(const std::string& path) { return statusOf(path).st_mode != 0; }

StoredStream streamAt(const std::string& path, StreamState state) {
  StoredStream stream;
  stream.path = path;
  stream.state = state;
  const struct stat data = statusOf(path + "/" + common::kDataName);
  if (S_ISREG(data.st_mode)) stream.dataSize = static_cast<std::uint64_t>(data.st_size);
  return stream;
}

/// A name promises a stream even when something else has taken its place.
StoredStream entryAt(const std::string& path, const std::string& name) {
  if (isStreamName(name)) return streamAt(path, StreamState::Unchecked);
  if (!isFolder(path)) return streamAt(path, StreamState::Foreign);
  if (isPartialName(name)) return streamAt(path, StreamState::Partial);
  const bool isStream = exists(path + "/" + common::kManifestName);
  return streamAt(path, isStream ? StreamState::Unchecked : StreamState::Foreign);
}

std::vector<std::string> sortedNamesIn(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator at(folder, error), end; !error && at != end; at.increment(error)) {
    names.push_back(at->path().filename().string());
  }
  if (error) {
    throw Failure(static_cast<ov_status_t>(error.value()),
                  "cannot read folder '" + common::printable(folder) + "': " + error.message());
  }
  std::sort(names.begin(), names.end());
  return names;
}

/// Its name, even if the path ends in a slash or a dot.
std::string ownName(const std::string& folder) {
  std::error_code error;
  return fs::canonical(folder, error).filename().string();
}

bool isOneStream(const std::string& name, const std::vector<std::string>& entries) {
  const auto holds = [&](const char* file) {
    return std::binary_search(entries.begin(), entries.end(), file);
  };
  if (std::any_of(entries.begin(), entries.end(), isStreamName)) return false;
  return isStreamName(finalName(name)) || holds(common::kManifestName) ||
         (isPartialName(name) && holds(common::kDataName));
}

}  // namespace

const char* nameOf(StreamState state) noexcept {
  switch (state) {
    case StreamState::Complete:
      return "complete";
    case StreamState::Damaged:
      return "damaged";
    case StreamState::Partial:
      return "partial";
    case StreamState::Foreign:
      return "foreign";
    case StreamState::Unchecked:
      break;
  }
  return "unchecked";
}

std::vector<StoredStream> streamsIn(const std::string& folder) {
  const std::vector<std::string> names = sortedNamesIn(folder);
  const std::string name = ownName(folder);
  if (isOneStream(name, names)) {
    const bool isPartial = isPartialName(name);
    StoredStream stream =
        streamAt(folder, isPartial ? StreamState::Partial : StreamState::Unchecked);
    stream.isGiven = true;
    return {stream};
  }
  const std::string prefix = folder.back() == '/' ? folder : folder + "/";
  std::vector<StoredStream> streams;
  streams.reserve(names.size());
  for (const std::string& entry : names) streams.push_back(entryAt(prefix + entry, entry));
  return streams;
}

}  // namespace korvex::tool
