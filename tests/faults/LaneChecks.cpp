// What a lane looks at after a kill: the store, the claims and shared memory.
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>

#include "Lane.h"
#include "Pattern.h"

namespace korvex::test {
namespace {

namespace fs = std::filesystem;

const fs::path kSharedMemory = "/dev/shm";
const fs::path kPartial = ".partial";  // how the names of streams end that are not whole

std::string nameOf(const fs::path& path) { return path.filename().string(); }

bool startsWith(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

/// How the names of queues begin that a daemon has not finished.
std::string halfMadeStart(pid_t daemon) { return ".korvexd-" + std::to_string(daemon) + "-"; }

/// What is wrong with stored bytes; nothing when they are a whole stream.
std::string defectOf(const std::vector<unsigned char>& bytes) {
  if (bytes.size() < Pattern::kHeadSize) return "its head is cut";
  const Pattern pattern(bytes.data());
  if (pattern.size() != bytes.size()) {
    return "it holds " + std::to_string(bytes.size()) + " bytes, expected " +
           std::to_string(pattern.size());
  }
  std::vector<unsigned char> expected(bytes.size());
  pattern.fill(expected.data(), expected.size(), 0);
  return bytes == expected ? "" : "its bytes differ";
}

std::vector<unsigned char> bytesOf(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

/// Without those that are not finished yet, or never will be.
std::vector<fs::path> Lane::storedStreams() const {
  std::vector<fs::path> streams;
  for (const auto& entry : fs::directory_iterator(folder_ / "store")) {
    if (entry.path().extension() != kPartial) streams.push_back(entry.path());
  }
  return streams;
}

/// Every stream with its final name must be whole. Looked at once, then removed.
void Lane::lookAtStore() {
  for (const fs::path& stream : storedStreams()) {
    lookAtStream(stream);
    fs::remove_all(stream);
  }
}

/// To be called without a daemon: it may be writing one of them for a survivor.
void Lane::removePartialStreams() {
  for (const auto& entry : fs::directory_iterator(folder_ / "store")) {
    if (entry.path().extension() == kPartial) fs::remove_all(entry.path());
  }
}

void Lane::lookAtStream(const fs::path& folder) {
  const std::vector<unsigned char> bytes = bytesOf(folder / "data");
  const auto manifest =
      nlohmann::json::parse(std::ifstream(folder / "manifest.json"), nullptr, false);
  if (manifest.is_discarded() || manifest.value("state", "") != "complete" ||
      manifest.value("bytes", std::uint64_t{0}) != bytes.size()) {
    return complain(nameOf(folder) + " has its final name, but its manifest says otherwise");
  }
  const std::string defect = defectOf(bytes);
  if (!defect.empty()) return complain(nameOf(folder) + " is marked complete, but " + defect);
  if (!stored_.insert(Pattern(bytes.data()).number()).second) {
    return complain(nameOf(folder) + " holds a stream that was stored before");
  }
  count("streams stored, whole and equal");
}

void Lane::lookAtClaims() {
  for (const std::uint64_t number : claimed_) {
    if (stored_.count(number) == 0) {
      complain("stream " + std::to_string(number) + " has a receipt but is not stored");
    }
    count("receipts");
  }
  claimed_.clear();
}

bool Lane::hasHalfMadeQueue() const {
  for (const auto& entry : fs::directory_iterator(kSharedMemory)) {
    if (startsWith(nameOf(entry.path()), halfMadeStart(daemon_->id()))) return true;
  }
  return false;
}

void Lane::lookAtSharedMemory() {
  for (const fs::path& left : leftInSharedMemory()) {
    complain(nameOf(left) + " was left in " + kSharedMemory.string());
  }
}

std::vector<fs::path> Lane::leftInSharedMemory() const {
  std::vector<fs::path> left;
  for (const auto& entry : fs::directory_iterator(kSharedMemory)) {
    const std::string name = nameOf(entry.path());
    bool isOurs = startsWith(name, settings_.name);
    for (const pid_t daemon : daemonIds_) {
      isOurs = isOurs || startsWith(name, halfMadeStart(daemon));
    }
    if (isOurs) left.push_back(entry.path());
  }
  return left;
}

}  // namespace korvex::test
