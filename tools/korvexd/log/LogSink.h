#ifndef KORVEXD_LOG_SINK_H
#define KORVEXD_LOG_SINK_H

#include <chrono>
#include <mutex>
#include <spdlog/sinks/base_sink.h>
#include <string>

#include "korvexd/log/LogEntry.h"
#include "korvexd/log/LogFormat.h"
#include "korvexd/log/LogWriter.h"

namespace korvexd {

/// Gives a logger's lines to a LogWriter, each on one line: names of queues may hold anything.
class LogSink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  LogSink(int descriptor, std::chrono::milliseconds patience, LogFormat format)
      : format_(format), writer_(descriptor, patience, format) {}

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    const LogEntry* const entry = entryBeingWritten();
    writer_.add(format_.line(entry != nullptr ? *entry : noteOf(message), message.time));
  }

  void flush_() override { writer_.flush(); }

 private:
  static LogEntry noteOf(const spdlog::details::log_msg& message) {
    return {Event::Note, message.level, "",
            std::string(message.payload.data(), message.payload.size())};
  }

  const LogFormat format_;
  LogWriter writer_;
};

}  // namespace korvexd

#endif
