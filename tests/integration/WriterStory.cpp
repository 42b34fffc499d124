#include "integration/WriterStory.h"

#include <chrono>

#include "qmx/error.h"

namespace {

constexpr unsigned kTimeout = 1;  // seconds

/// Far beyond the timeout, so that a loaded machine fails no test.
constexpr std::chrono::seconds kLate{5};

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

void WriterStory::call(const char* name, const std::function<void()>& action) {
  const auto start = std::chrono::steady_clock::now();
  std::string error = errorOf(action);
  if (std::chrono::steady_clock::now() - start > kLate) error = "late";
  if (first_ == "works" && !error.empty()) first_ = std::string(name) + ": " + error;
}

std::string WriterStory::construct() {
  call("construct", [this] {
    writer_ = std::make_unique<korvex::ShmWriter>("test", queue_, kTimeout, kTimeout, false);
  });
  return first_;
}

std::string WriterStory::goOn() {
  call("open", [this] { writer_->open(); });
  call("writeSegment", [this] { writer_->writeSegment(kData, sizeof kData); });
  call("endSegment", [this] { writer_->endSegment(); });
  call("flush", [this] { writer_->flush_shm_buffer(kTimeout); });
  call("stop", [this] { writer_->stop(true); });
  call("close", [this] { writer_->close(); });
  call("destroy", [this] { writer_.reset(); });
  return first_;
}

std::string WriterStory::whole() {
  construct();
  return writer_ != nullptr ? goOn() : first_;
}
