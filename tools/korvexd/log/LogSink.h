#ifndef KORVEXD_LOG_SINK_H
#define KORVEXD_LOG_SINK_H

#include <spdlog/sinks/base_sink.h>

#include <chrono>
#include <mutex>
#include <string>

#include "common/Printable.h"
#include "korvexd/report/LogWriter.h"

namespace korvexd {

/// Gives a logger's lines to a LogWriter, each on one line: names of queues may hold anything.
class LogSink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  LogSink(int descriptor, std::chrono::milliseconds patience) : writer_(descriptor, patience) {}

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    spdlog::memory_buf_t line;
    spdlog::details::log_msg harmless = message;
    const std::string text =
        korvex::common::printable({message.payload.data(), message.payload.size()});
    harmless.payload = text;
    formatter_->format(harmless, line);
    writer_.add(std::string(line.data(), line.size()));
  }

  void flush_() override {}

 private:
  LogWriter writer_;
};

}  // namespace korvexd

#endif
