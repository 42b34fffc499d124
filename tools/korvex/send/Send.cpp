#include "send/Send.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <korvex/receiver/BusErrorGuard.h>
#include <korvex/receiver/Receipt.h>
#include <korvex/receiver/StreamDigest.h>
#include <memory>
#include <optional>
#include <ostream>
#include <unistd.h>
#include <utility>

#include "Failure.h"
#include "InputReader.h"
#include "common/CommandLine.h"
#include "common/Printable.h"
#include "common/QueueName.h"
#include "send/DaemonStream.h"
#include "send/FromCommand.h"
#include "send/ProgressSignal.h"
#include "send/SendReport.h"
#include "send/SourceCommand.h"

namespace korvex::tool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint64_t kMaxSegmentSize = std::uint64_t{1} << 40;

struct FreeMemory {
  void operator()(unsigned char* memory) const { std::free(memory); }
};
using Buffer = std::unique_ptr<unsigned char, FreeMemory>;

/// Page-aligned: the system copies fastest then.
Buffer allocatePages(std::size_t size) {
  const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  const std::size_t rounded = (size + page - 1) / page * page;
  Buffer buffer(static_cast<unsigned char*>(std::aligned_alloc(page, rounded)));
  if (!buffer) throw std::bad_alloc();
  return buffer;
}

/// One run of the command: the way from the files through the buffer to the daemon.
class SendRun {
 public:
  SendRun(const SendOptions& options, const StopSignal& stop, Progress& progress)
      : options_(options), stop_(stop), progress_(progress), start_(Clock::now()) {}

  /// Never throws; the report says how it went.
  SendReport run();

 private:
  void stream();
  Input& openInput();
  void sendAll(Input& input);
  void sendPart(Input& input, std::size_t pieceSize);
  void endSegment();
  void verify();
  std::optional<std::string> awaitReceipt();
  void fail(common::ExitCode exitCode, ov_status_t status, const std::string& message);

  const SendOptions& options_;
  const StopSignal& stop_;
  Progress& progress_;
  Clock::time_point start_;
  ProgressSignal told_{start_};
  std::unique_ptr<Input> input_;
  SourceCommand* command_ = nullptr;  ///< the input, when it is one
  std::unique_ptr<DaemonStream> daemon_;
  receiver::StreamDigest digest_;
  Buffer buffer_;
  SendReport report_;
};

SendReport SendRun::run() {
  try {
    stream();
  } catch (const Interrupted& interrupted) {
    if (command_ != nullptr) command_->interrupt();
    if (daemon_) daemon_->stop(DaemonStream::StopWait::Short);
    fail(common::ExitCode::Failed, EINTR,
         "interrupted by signal " + std::to_string(interrupted.signal));
    report_.exitCode = common::codeAfterSignal(interrupted.signal);
    report_.signal = interrupted.signal;
  } catch (const Failure& failure) {
    fail(common::ExitCode::Failed, failure.status(), failure.what());
  } catch (const std::exception& error) {
    fail(common::ExitCode::Failed, EIO, error.what());
  }
  if (command_ != nullptr) report_.command = command_->settle();
  const receiver::Receipt sent = digest_.expected();
  report_.bytes = sent.bytes;
  report_.xxh128 = sent.xxh128;
  report_.seconds = std::chrono::duration<double>(Clock::now() - start_).count();
  return report_;
}

void SendRun::stream() {
  Input& input = openInput();
  daemon_ = std::make_unique<DaemonStream>(
      DaemonStream::Settings{options_.queue, options_.name, std::chrono::seconds(options_.timeout),
                             !options_.noReceipt, options_.keepAlive},
      stop_);
  if (command_ != nullptr) command_->start();
  try {
    daemon_->open();
    sendAll(input);
    input.finish();
    daemon_->close();
  } catch (const std::exception&) {
    if (command_ != nullptr) command_->interrupt();
    // Not a close record: the daemon must see that the stream was cut short.
    daemon_->stop(DaemonStream::StopWait::Ordinary);
    throw;
  }
  verify();
}

Input& SendRun::openInput() {
  if (options_.fromCommand) {
    auto command = std::make_unique<SourceCommand>(
        SourceCommand::Settings{options_.command, std::chrono::seconds(options_.commandTimeout)},
        stop_);
    command_ = command.get();
    input_ = std::move(command);
  } else {
    input_ = std::make_unique<InputReader>(options_.files, stop_);
  }
  return *input_;
}

void SendRun::sendAll(Input& input) {
  const auto pieceSize = static_cast<std::size_t>(
      std::min<std::uint64_t>(daemon_->largestPiece(), options_.segmentSize));
  buffer_ = allocatePages(pieceSize);
  progress_.start(input.totalBytes(), start_);
  told_.noteTotal(input.totalBytes());
  told_.note("sending");
  input.whenIdle([this] {
    daemon_->watch();
    progress_.show(digest_.bytes(), Clock::now());
  });
  while (input.openNext()) sendPart(input, pieceSize);
}

/// A segment is sent in pieces small enough to stay in the processor's cache from the read through
/// the digest to the copy into the batch.
void SendRun::sendPart(Input& input, std::size_t pieceSize) {
  std::uint64_t inSegment = 0;
  for (bool isMore = true; isMore;) {
    const auto wanted = static_cast<std::size_t>(
        std::min<std::uint64_t>(pieceSize, options_.segmentSize - inSegment));
    const std::size_t got = input.fill(buffer_.get(), wanted);
    isMore = got == wanted;
    if (got == 0) break;
    digest_.add(buffer_.get(), got);
    daemon_->write(buffer_.get(), got);
    told_.noteBytes(digest_.bytes());
    progress_.show(digest_.bytes(), Clock::now());
    inSegment += got;
    if (inSegment < options_.segmentSize) continue;
    endSegment();
    inSegment = 0;
  }
  if (inSegment > 0) endSegment();
}

void SendRun::endSegment() {
  daemon_->endSegment();
  ++report_.segments;
}

void SendRun::verify() {
  if (options_.noReceipt) {
    report_.message = "sent (not verified)";
    return;
  }
  const auto reply = awaitReceipt();
  if (!reply) {
    return fail(common::ExitCode::NoReceipt, ETIMEDOUT,
                "sent, but no receipt came from the daemon within " +
                    std::to_string(options_.receiptTimeout) + " s");
  }
  const std::optional<receiver::Receipt> stored = receiver::Receipt::parse(*reply);
  if (!stored) {
    return fail(common::ExitCode::Failed, EPROTO,
                "the daemon's reply is not a receipt: found \"" + common::printable(*reply) +
                    "\", expected \"stored bytes=N xxh128=HEX\"");
  }
  const receiver::Receipt sent = digest_.expected();
  if (!(*stored == sent)) {
    return fail(
        common::ExitCode::Failed, EBADMSG,
        "the daemon stored something else: sent " + sent.text() + ", stored " + stored->text());
  }
  report_.isVerified = true;
  report_.message = "stored and verified";
}

std::optional<std::string> SendRun::awaitReceipt() {
  const std::chrono::seconds limit(options_.receiptTimeout);
  return daemon_->awaitReceipt(limit, [this, sent = Clock::now()] {
    const char* const what =
        daemon_->isEngineFinishing() ? "the engine is finishing" : "waiting for the receipt";
    told_.noteWait(what, sent);
    progress_.showWait(what, digest_.bytes(), sent, Clock::now());
  });
}

void SendRun::fail(common::ExitCode exitCode, ov_status_t status, const std::string& message) {
  report_.exitCode = static_cast<int>(exitCode);
  report_.status = status;
  report_.message = message;
}

/// Everything for people goes to `errors`; only the JSON object goes to `out`.
void tell(const SendReport& report, const SendOptions& options, std::ostream& out,
          std::ostream& errors) {
  const auto success = static_cast<int>(common::ExitCode::Success);
  if (report.exitCode != success) errors << "korvex: " << report.message << std::endl;
  if (report.exitCode == success && !options.quiet && !options.json) {
    errors << report.summary() << std::endl;
  }
  if (options.json) out << report.json() << '\n';
}

}  // namespace

CLI::App* declareSend(CLI::App& tool, SendOptions& options) {
  CLI::App* const send = tool.add_subcommand(
      "send", "Stream files, one after the other, or standard input to the daemon");
  send->add_option("--queue", options.queue, "The daemon's queue")
      ->required()
      ->check(common::checkQueueName)
      ->type_name("NAME");
  send->add_option("--name", options.name, "A name for the stream in error texts")
      ->type_name("STREAM");
  CLI::Option* const timeout = send->add_option(
      "--timeout", options.timeout,
      "How long the daemon may accept nothing before the stream fails, in seconds");
  common::takeSeconds(*timeout->capture_default_str(), 1, kLongestTimeout);
  send->add_option("--segment-size", options.segmentSize,
                   "Data bytes of a segment; K, M, G and T are powers of 1024")
      ->transform(common::byteCount)
      ->check(CLI::Range(std::uint64_t{1}, kMaxSegmentSize))
      ->type_name("BYTES")
      ->capture_default_str();
  CLI::Option* const receiptTimeout =
      send->add_option("--receipt-timeout", options.receiptTimeout,
                       "How long to wait for the daemon's receipt, in seconds");
  common::takeSeconds(*receiptTimeout->capture_default_str(), 1, kLongestTimeout);
  send->add_flag("--no-receipt", options.noReceipt, "Do not wait for a receipt: verifies nothing")
      ->excludes(receiptTimeout);
  send->add_flag("--quiet", options.quiet, "Print errors only");
  send->add_flag("--json", options.json, "Write the result to standard output as a JSON object");
  declareFromCommand(*send, options);
  send->add_option("FILE", options.files, "Files to send; by default, or for -, standard input");
  return send;
}

Ending runSend(const SendOptions& options, const StopSignal& stop, Progress progress,
               std::ostream& out, std::ostream& errors) {
  receiver::installBusErrorGuard();  // a queue may be truncated while it is used
  SendReport report = SendRun(options, stop, progress).run();
  progress.clear();
  tell(report, options, out, errors);
  return {report.exitCode, report.signal};
}

}  // namespace korvex::tool
