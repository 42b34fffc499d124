#ifndef TESTS_SUPPORT_LOGGED_TEXT_H
#define TESTS_SUPPORT_LOGGED_TEXT_H

#include <memory>
#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>
#include <sstream>
#include <string>

namespace korvex::test {

/// Takes what this process logs as long as it exists: texts alone, each on a line.
class LoggedText {
 public:
  LoggedText() {
    auto logger = std::make_shared<spdlog::logger>(
        "test", std::make_shared<spdlog::sinks::ostream_sink_mt>(text_));
    logger->set_pattern("%v");
    spdlog::set_default_logger(std::move(logger));
  }
  ~LoggedText() { spdlog::set_default_logger(before_); }
  LoggedText(const LoggedText&) = delete;
  LoggedText& operator=(const LoggedText&) = delete;

  std::string text() const { return text_.str(); }

 private:
  const std::shared_ptr<spdlog::logger> before_ = spdlog::default_logger();
  std::ostringstream text_;
};

}  // namespace korvex::test

#endif
