#include "korvex/receiver/IdleWatch.h"

#include "idle/IdleWatcher.h"

namespace korvex::receiver {

IdleWatch::IdleWatch() : watcher_(std::make_unique<IdleWatcher>()) {}

IdleWatch::~IdleWatch() = default;

}  // namespace korvex::receiver
