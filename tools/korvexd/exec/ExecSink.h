#ifndef KORVEXD_EXEC_SINK_H
#define KORVEXD_EXEC_SINK_H

#include <chrono>
#include <functional>
#include <korvex/receiver/Sink.h>
#include <memory>
#include <optional>
#include <string>

#include "korvexd/exec/Engine.h"

namespace korvexd {

namespace receiver = korvex::receiver;

class ExecStore;

/// Gives a stream to an engine, a process that reads it as its standard input.
///
/// The stream is stored when the engine has read all of it, seen its end, and exited with 0. In
/// every other case the engine is killed and gone before its input ends, because to an engine end
/// of input means that the stream is complete.
class ExecSink : public receiver::Sink {
 public:
  struct Settings {
    std::string queue;
    std::string stream;   ///< its name
    std::string program;  ///< for people
    std::chrono::seconds timeout;
    std::function<bool()> isEnding;  ///< asked several times a second while it waits
  };

  /// `store` outlives the sink.
  ExecSink(ExecStore& store, std::unique_ptr<Engine> engine, Settings settings);
  ~ExecSink() override;

  /// Waits until the engine's program runs. Throws SystemError when it cannot.
  void awaitStart();

  void write(const unsigned char* data, std::size_t size) override;
  void check() override;
  void complete(const receiver::StreamSummary& summary,
                const receiver::StillFinishing& stillFinishing) override;
  void abandon(const receiver::StreamSummary& summary, const std::string& reason) override;
  std::string place() const override;

 private:
  using Clock = std::chrono::steady_clock;

  struct Defect {
    EngineFailure failure;
    std::string text;
  };

  std::size_t offer(const unsigned char* data, std::size_t size);
  void awaitRoom();
  void throwIfItEnded();
  void throwIfOutOfPatience();
  [[noreturn]] void throwClosedInput();
  [[noreturn]] void throwNotStarted() const;
  [[noreturn]] void throwEnd();
  [[noreturn]] void fail(EngineFailure failure, const std::string& text);
  void noteEnding(bool isEnding);
  bool isOutOfPatience() const;
  std::string withLastError(const std::string& text) const;
  std::optional<Defect> defectOfEnd() const;
  void letGo() noexcept;

  ExecStore& store_;
  std::unique_ptr<Engine> engine_;  ///< none when it is gone, or handed over to the store
  const Settings settings_;
  bool mayFinish_ = false;  ///< all of its input is there, and the daemon has other things to do
  std::optional<Clock::time_point> endingSince_;
};

}  // namespace korvexd

#endif
