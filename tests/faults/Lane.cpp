#include "Lane.h"

#include <fstream>
#include <iterator>
#include <optional>
#include <signal.h>
#include <stdexcept>
#include <thread>
#include <unistd.h>

#include "Pattern.h"

namespace korvex::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

constexpr milliseconds kStartPatience{10000};
constexpr milliseconds kEndPatience{10000};
constexpr std::size_t kBadEnough = 10;
constexpr milliseconds kPeriod{1};
const fs::path kSharedMemory = "/dev/shm";

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

}  // namespace

void Tally::add(const Tally& other) {
  kills += other.kills;
  for (const auto& [outcome, times] : other.outcomes) outcomes[outcome] += times;
  bad.insert(bad.end(), other.bad.begin(), other.bad.end());
}

Lane::Lane(const Settings& settings)
    : settings_(settings), folder_(fs::temp_directory_path() / settings.name) {}

Lane::~Lane() {
  daemon_.reset();
  std::error_code ignored;
  for (const fs::path& left : leftInSharedMemory()) fs::remove(left, ignored);
  fs::remove_all(folder_, ignored);
}

/// Without this step, nothing that follows means anything.
void Lane::attempt(const std::function<void()>& step) {
  try {
    step();
  } catch (const std::exception& error) {
    complain(error.what());
    isBroken_ = true;
  }
}

bool Lane::isOver() const { return isBroken_ || tally_.bad.size() >= kBadEnough; }

void Lane::begin() {
  fs::create_directories(folder_ / "store");
  prepare();
  startDaemon();
  awaitServing();
}

std::uint64_t Lane::between(std::uint64_t least, std::uint64_t most) {
  return std::uniform_int_distribution<std::uint64_t>(least, most)(dice_);
}

void Lane::complain(std::uint64_t index, const std::string& what) {
  tally_.bad.push_back("kill " + std::to_string(index) + ": " + what);
}

void Lane::startDaemon() {
  beforeDaemonStarts();
  std::vector<std::string> command = daemonCommand();
  command.insert(command.end(), {"--queue", settings_.name, "--replace", "--max-messages", "4",
                                 "--max-message-size", "64K"});
  daemon_ = std::make_unique<Child>(command, STDERR_FILENO, (folder_ / "daemon.log").string());
  daemonIds_.push_back(daemon_->id());
}

void Lane::awaitServing() {
  const auto end = Clock::now() + kStartPatience;
  while (!isServing()) {
    if (daemon_->hasEnded() || Clock::now() >= end) {
      throw std::runtime_error("the daemon does not serve: " + daemon_->said());
    }
    std::this_thread::sleep_for(kPeriod);
  }
}

bool Lane::isServing() const {
  return daemon_->said().find("serving " + settings_.name) != std::string::npos;
}

void Lane::run(std::uint64_t index) {
  index_ = index;
  dice_.seed(settings_.seed * 1000003 + index);
  attempt([this] {
    if (!daemon_) begin();
    strike();
  });
}

Tally Lane::finish() {
  if (daemon_ && !isBroken_) attempt([this] { end(); });
  return tally_;
}

void Lane::end() {
  beforeDaemonEnds();
  daemon_->signal(SIGTERM);
  const std::optional<int> code = daemon_->wait(kEndPatience);
  if (!code) throw std::runtime_error("the daemon does not end: " + daemon_->said());
  if (*code != 0) complain("the daemon ended with " + std::to_string(*code));
  lookAtEnd();
  lookAtSharedMemory();
}

void Lane::lookAtStored(const std::string& name, const Bytes& bytes) {
  const std::string defect = defectOf(bytes);
  if (!defect.empty()) return complain(name + " is marked complete, but " + defect);
  if (!stored_.insert(Pattern(bytes.data()).number()).second) {
    return complain(name + " holds a stream that was stored before");
  }
  count("streams stored, whole and equal");
}

Lane::Bytes Lane::bytesOf(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
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
