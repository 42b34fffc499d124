#include "ChainStore.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "support/Process.h"

namespace korvex::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

const fs::path kPartial = ".partial";
constexpr auto kResticPatience = 5min;

std::vector<unsigned char> bytesOf(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// Stores files, and can be made slow.
class RecordingStore : public ChainStore {
 public:
  explicit RecordingStore(fs::path folder) : folder_(std::move(folder)) {}

  std::string command() const override { return KORVEX_RECORDING_ENGINE " " + folder_.string(); }
  Spans spans() const override { return {30ms, 1ms, 2ms}; }
  bool isCheap() const override { return true; }

  void slowDown(const Pace& pace) override {
    std::ofstream(folder_ / "pace.new")
        << pace.afterRead << ' ' << pace.beforeStore << ' ' << pace.afterStore << '\n';
    fs::rename(folder_ / "pace.new", folder_ / "pace");
  }

  bool hasRead(std::uint64_t size) const override {
    for (const auto& entry : fs::directory_iterator(folder_)) {
      std::error_code gone;
      if (isStream(entry.path()) && fs::file_size(entry.path(), gone) == size) return true;
    }
    return false;
  }

  void show(const Show& show) override {
    for (const auto& entry : fs::directory_iterator(folder_)) {
      const fs::path& path = entry.path();
      if (!isStream(path)) continue;
      if (path.extension() != kPartial) show(path.filename().string(), bytesOf(path));
      fs::remove(path);
    }
  }

 private:
  static bool isStream(const fs::path& path) { return path.stem() != "pace"; }

  const fs::path folder_;
};

class ResticStore : public ChainStore {
 public:
  explicit ResticStore(fs::path folder) : folder_(std::move(folder)) {
    run("restic init --quiet --no-cache");
  }

  std::string command() const override {
    return "restic backup --quiet --no-cache --stdin --stdin-filename data";
  }
  std::vector<std::string> variables() const override {
    return {"RESTIC_PASSWORD=secret", "RESTIC_REPOSITORY=" + (folder_ / "repository").string()};
  }
  Spans spans() const override { return {800ms, 500ms, 600ms}; }
  bool isCheap() const override { return false; }

  /// Those that were killed have left their locks.
  void show(const Show& show) override {
    run("restic unlock --quiet --no-cache --remove-all");
    run("restic check --quiet --no-cache");
    std::istringstream snapshots(run("restic list snapshots --no-cache"));
    const fs::path file = folder_ / "restored";
    for (std::string id; snapshots >> id;) {
      run("restic dump --no-cache " + id + " data >" + file.string());
      show("snapshot " + id, bytesOf(file));
    }
  }

 private:
  std::string run(const std::string& script) const {
    std::vector<std::string> words = {"/usr/bin/env"};
    for (const std::string& variable : variables()) words.push_back(variable);
    words.insert(words.end(), {"sh", "-c", script});
    Process process(words);
    if (process.wait(kResticPatience) != 0) {
      throw std::runtime_error(script + ": " + process.errors());
    }
    return process.output();
  }

  const fs::path folder_;
};

}  // namespace

std::unique_ptr<ChainStore> makeChainStore(const std::string& kind, const std::string& folder) {
  if (kind == "restic") return std::make_unique<ResticStore>(folder);
  return std::make_unique<RecordingStore>(folder);
}

}  // namespace korvex::test
