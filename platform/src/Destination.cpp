#include "Destination.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/sinks/syslog_sink.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "Layout.h"
#include "qmx/error.h"

namespace qmx {
namespace {

spdlog::level::level_enum spdlogLevel(Level level) {
  switch (level) {
    case Level::Trace:
      return spdlog::level::trace;
    case Level::Warning:
      return spdlog::level::warn;
    case Level::Error:
      return spdlog::level::err;
    case Level::Info:
    case Level::Auth:
      break;
  }
  return spdlog::level::info;
}

void hand(spdlog::sinks::sink& sink, Level level, const std::string& text) {
  sink.log(spdlog::details::log_msg("", spdlogLevel(level), text));
}

/// Writes formatted lines to a spdlog sink.
class Stream : public Destination {
 public:
  explicit Stream(std::unique_ptr<spdlog::sinks::sink> sink) : sink_(std::move(sink)) {
    sink_->set_pattern("%v");
  }

  void write(const Line& line) override { hand(*sink_, line.level, layOut(line)); }

 private:
  std::unique_ptr<spdlog::sinks::sink> sink_;
};

class SystemLog : public Destination {
 public:
  explicit SystemLog(const std::string& identity) : identity_(identity) {}

  /// Opens the log with the first line, not earlier: a process has one syslog connection, and the
  /// previous destination closes it when it is destroyed, after this one was constructed.
  void write(const Line& line) override {
    if (!sink_) {
      sink_ = std::make_unique<spdlog::sinks::syslog_sink_st>(identity_, LOG_PID, LOG_USER, false);
    }
    hand(*sink_, line.level, layOutBriefly(line));
  }

 private:
  const std::string identity_;
  std::unique_ptr<spdlog::sinks::syslog_sink_st> sink_;
};

class Callback : public Destination {
 public:
  explicit Callback(std::function<void(const Line&)> receiver) : receiver_(std::move(receiver)) {}

  void write(const Line& line) override { receiver_(line); }

 private:
  const std::function<void(const Line&)> receiver_;
};

/// Tries the file before spdlog opens it: spdlog would create missing folders, retry with delays,
/// and report a failure without its errno.
void requireWritable(const std::string& path) {
  const int descriptor = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (descriptor < 0) {
    const int error = errno;
    throw Ov_ErrnoException(static_cast<ov_status_t>(error),
                            "Could not open log file '" + path +
                                "' for appending: " + std::generic_category().message(error),
                            "");
  }
  ::close(descriptor);
}

}  // namespace

std::unique_ptr<Destination> standardError() {
  return std::make_unique<Stream>(std::make_unique<spdlog::sinks::stderr_sink_st>());
}

std::unique_ptr<Destination> file(const std::string& path) {
  requireWritable(path);
  spdlog::file_event_handlers handlers;
  // Unbuffered, so each line is one write, however long: several processes may append to the same
  // file, and a forked child inherits no half-written buffer.
  handlers.after_open = [](const std::string&, std::FILE* opened) {
    std::setvbuf(opened, nullptr, _IONBF, 0);
  };
  return std::make_unique<Stream>(
      std::make_unique<spdlog::sinks::basic_file_sink_st>(path, false, handlers));
}

std::unique_ptr<Destination> systemLog(const std::string& identity) {
  return std::make_unique<SystemLog>(identity);
}

std::unique_ptr<Destination> callback(std::function<void(const Line&)> receiver) {
  return std::make_unique<Callback>(std::move(receiver));
}

}  // namespace qmx
