// What a lane looks at after a kill: the store and the claims.
#include <fstream>
#include <nlohmann/json.hpp>

#include "QueueLane.h"

namespace korvex::test {
namespace {

namespace fs = std::filesystem;

const fs::path kPartial = ".partial";  // how the names of streams end that are not whole

std::string nameOf(const fs::path& path) { return path.filename().string(); }

}  // namespace

/// Without those that are not finished yet, or never will be.
std::vector<fs::path> QueueLane::storedStreams() const {
  std::vector<fs::path> streams;
  for (const auto& entry : fs::directory_iterator(folder_ / "store")) {
    if (entry.path().extension() != kPartial) streams.push_back(entry.path());
  }
  return streams;
}

/// Every stream with its final name must be whole. Looked at once, then removed.
void QueueLane::lookAtStore() {
  for (const fs::path& stream : storedStreams()) {
    lookAtStream(stream);
    fs::remove_all(stream);
  }
}

/// To be called without a daemon: it may be writing one of them for a survivor.
void QueueLane::removePartialStreams() {
  for (const auto& entry : fs::directory_iterator(folder_ / "store")) {
    if (entry.path().extension() == kPartial) fs::remove_all(entry.path());
  }
}

void QueueLane::lookAtStream(const fs::path& folder) {
  const Bytes bytes = bytesOf(folder / "data");
  const auto manifest =
      nlohmann::json::parse(std::ifstream(folder / "manifest.json"), nullptr, false);
  if (manifest.is_discarded() || manifest.value("state", "") != "complete" ||
      manifest.value("bytes", std::uint64_t{0}) != bytes.size()) {
    return complain(nameOf(folder) + " has its final name, but its manifest says otherwise");
  }
  lookAtStored(nameOf(folder), bytes);
}

void QueueLane::lookAtClaims() {
  for (const std::uint64_t number : claimed_) {
    if (stored_.count(number) == 0) {
      complain("stream " + std::to_string(number) + " has a receipt but is not stored");
    }
    count("receipts");
  }
  claimed_.clear();
}

}  // namespace korvex::test
