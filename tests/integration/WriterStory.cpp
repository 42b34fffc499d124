#include "integration/WriterStory.h"

#include <chrono>

#include "qmx/error.h"
#include "support/Late.h"

namespace {

constexpr unsigned kTimeout = 1;  // seconds

const std::string kLate = ": late";

const unsigned char kData[] = {'a', 'b', 'c'};

std::string errorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const Ov_ErrnoException& error) {
    return "status " + std::to_string(error.getStatus()) + ": " + error.getMessage();
  } catch (const std::exception& error) {
    return error.what();
  }
  return "";
}

}  // namespace

void WriterStory::call(const char* name, Waits waits, const std::function<void()>& action) {
  const auto bound =
      static_cast<unsigned>(waits) * std::chrono::seconds(kTimeout) + korvex::test::kSlack;
  const auto start = std::chrono::steady_clock::now();
  const std::string error = errorOf(action);
  if (std::chrono::steady_clock::now() - start > bound) late_ += std::string("; ") + name + kLate;
  if (first_ == "works" && !error.empty()) first_ = std::string(name) + ": " + error;
}

std::string WriterStory::construct() {
  call("construct", Waits::Once, [this] {
    writer_ = std::make_unique<korvex::ShmWriter>("test", queue_, kTimeout, kTimeout, false);
  });
  return told();
}

std::string WriterStory::goOn() {
  call("open", Waits::Twice, [this] { writer_->open(); });
  call("writeSegment", Waits::Once, [this] { writer_->writeSegment(kData, sizeof kData); });
  call("endSegment", Waits::Once, [this] { writer_->endSegment(); });
  call("flush", Waits::Once, [this] { writer_->flush_shm_buffer(kTimeout); });
  call("stop", Waits::Twice, [this] { writer_->stop(true); });
  call("close", Waits::Twice, [this] { writer_->close(); });
  call("destroy", Waits::Twice, [this] { writer_.reset(); });
  return told();
}

std::string WriterStory::whole() {
  construct();
  return writer_ != nullptr ? goOn() : told();
}

bool WriterStory::hasLateCall(const std::string& story) {
  return story.find(kLate) != std::string::npos;
}
