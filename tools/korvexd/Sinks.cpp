#include "korvexd/Sinks.h"

#include <utility>

#include "korvexd/exec/CommandWords.h"
#include "korvexd/sink/DiscardSink.h"

namespace korvexd {

Sinks::Sinks(std::function<bool()> isEnding) : isEnding_(std::move(isEnding)) {}

receiver::SinkFactory Sinks::factoryFor(const QueueSettings& queue) {
  if (!queue.engine.empty()) return engineFactory({queue.engine, queue.engineTimeout});
  if (queue.output) return folderFactory(*queue.output, queue.digest);
  return [](const std::string&, std::time_t) { return std::make_unique<DiscardSink>(); };
}

receiver::SinkFactory Sinks::folderFactory(const std::string& path, ExtraDigest digest) {
  std::shared_ptr<DirectoryStore> store = folders_[path].lock();
  if (store == nullptr) folders_[path] = store = std::make_shared<DirectoryStore>(path);
  return [store, digest](const std::string& queue, std::time_t opened) {
    return store->open(queue, opened, digest);
  };
}

/// Reports a missing program now rather than with each stream.
receiver::SinkFactory Sinks::engineFactory(const ExecStore::Command& command) {
  findProgram(command.words.front());
  if (!engines_) engines_.emplace(isEnding_);
  return [this, command](const std::string& queue, std::time_t opened) {
    return engines_->open(command, queue, opened);
  };
}

EngineFailureCounts Sinks::engineFailuresOf(const std::string& queue) const {
  return engines_ ? engines_->failuresOf(queue) : EngineFailureCounts{};
}

void Sinks::tidyUp() noexcept {
  if (engines_) engines_->tidyUp();
}

}  // namespace korvexd
