#include "Measurement.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <korvex/ShmBatch.h>
#include <new>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kWaitStepMicroseconds = 200;

/// Where the processes tell each other and the first one how far they are.
struct Board {
  std::atomic<bool> receiverReady{false};
  std::atomic<bool> received{false};
  std::atomic<std::int64_t> start{0};
  std::atomic<std::int64_t> end{0};
  std::uint64_t records = 0;
  std::uint64_t bytes = 0;
  std::uint64_t messages = 0;
  Usage producer = {};
  Usage consumer = {};
  char error[512] = {};
};

/// A board in memory that the processes share.
class SharedBoard {
 public:
  SharedBoard() {
    void* const memory =
        ::mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::runtime_error("mmap");
    board_ = new (memory) Board;
  }
  ~SharedBoard() { ::munmap(board_, sizeof(Board)); }
  SharedBoard(const SharedBoard&) = delete;
  SharedBoard& operator=(const SharedBoard&) = delete;

  Board& operator*() const { return *board_; }

 private:
  Board* board_;
};

std::int64_t now() { return Clock::now().time_since_epoch().count(); }

Usage usage() {
  rusage own = {};
  ::getrusage(RUSAGE_SELF, &own);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
  };
  return {seconds(own.ru_utime) + seconds(own.ru_stime), static_cast<std::uint64_t>(own.ru_maxrss)};
}

void await(const std::atomic<bool>& flag) {
  while (!flag) ::usleep(kWaitStepMicroseconds);
}

/// Reads what arrives, header by header.
class Consumer {
 public:
  Consumer(const Settings& settings, Receiver& receiver)
      : settings_(settings), receiver_(receiver) {}

  void run(Board& board) {
    while (!isComplete()) {
      const Bytes message = receiver_.receive();
      ++messages_;
      read(message);
    }
    board.records = records_;
    board.bytes = bytes_;
    board.messages = messages_;
  }

 private:
  bool isComplete() const {
    return settings_.framing == Framing::Opaque ? messages_ == opaqueMessages(settings_)
                                                : records_ == settings_.records;
  }

  void read(Bytes message) {
    if (settings_.framing == Framing::Opaque) {
      bytes_ += message.size;
      return;
    }
    korvex::ShmBatch::MetaData metaData;
    metaData.numEntries = 1;
    const unsigned char* position = message.data;
    if (settings_.framing == Framing::Batch) {
      position = metaData.deserializeFromBuffer(message.data);
    }
    korvex::qmx_shm_message_t header;
    for (std::uint32_t i = 0; i < metaData.numEntries; ++i) {
      position = header.deserializeFromBuffer(position) + header.len;
      take(header);
    }
    bytes_ += static_cast<std::uint64_t>(position - message.data);
  }

  /// Counts data records; open and close records pass by.
  void take(const korvex::qmx_shm_message_t& header) {
    constexpr std::uint32_t kTypeSegmentData = 1;
    if (header.type != kTypeSegmentData) return;
    if (header.sequence <= lastSequence_) throw std::runtime_error("records came out of order");
    lastSequence_ = header.sequence;
    if (header.len != settings_.recordSize) throw std::runtime_error("a record was damaged");
    ++records_;
  }

  const Settings& settings_;
  Receiver& receiver_;
  std::uint64_t records_ = 0;
  std::uint64_t bytes_ = 0;
  std::uint64_t messages_ = 0;
  std::uint64_t lastSequence_ = 0;
};

void consume(const Settings& settings, Transport& transport, Board& board) {
  const auto receiver = transport.openReceiver();
  board.receiverReady = true;
  Consumer(settings, *receiver).run(board);
  board.end = now();
  board.consumer = usage();
  board.received = true;
}

void produce(Transport& transport, bool hasConsumer, Board& board) {
  if (hasConsumer) await(board.receiverReady);
  const auto producer = transport.openProducer();
  board.start = now();
  producer->run();
  if (!hasConsumer) board.end = now();
  board.producer = usage();
  // Some transports drop what is still under way when their sender goes.
  if (hasConsumer) await(board.received);
}

/// Runs `body` in a new process, which dies with this one.
template <typename Body>
pid_t startProcess(Board& board, Body body) {
  const pid_t process = ::fork();
  if (process < 0) throw std::runtime_error("fork");
  if (process != 0) return process;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  int code = 0;
  try {
    body();
  } catch (const std::exception& error) {
    std::snprintf(board.error, sizeof board.error, "%s", error.what());
    code = 1;
  }
  ::_exit(code);
}

/// Waits for all; when one fails the others are ended, for they would wait in vain.
bool awaitProcesses(pid_t producer, pid_t consumer) {
  bool ok = true;
  for (int left = consumer > 0 ? 2 : 1; left > 0; --left) {
    int status = 0;
    pid_t ended = 0;
    // Only these two: a transport may have a helper process of its own.
    while (ended == 0) {
      for (const pid_t process : {producer, consumer}) {
        if (process > 0 && ended == 0) ended = ::waitpid(process, &status, WNOHANG);
      }
      if (ended == 0) ::usleep(kWaitStepMicroseconds);
    }
    pid_t& gone = ended == producer ? producer : consumer;
    gone = 0;
    if (status == 0) continue;
    ok = false;
    if (producer > 0) ::kill(producer, SIGKILL);
    if (consumer > 0) ::kill(consumer, SIGKILL);
  }
  return ok;
}

}  // namespace

Result measure(const Settings& settings, Transport& transport) {
  const SharedBoard shared;
  Board& board = *shared;
  const bool hasConsumer = transport.hasConsumer();
  const pid_t consumer =
      hasConsumer ? startProcess(board, [&] { consume(settings, transport, board); }) : 0;
  const pid_t producer = startProcess(board, [&] { produce(transport, hasConsumer, board); });
  if (!awaitProcesses(producer, consumer)) {
    throw std::runtime_error(board.error[0] != '\0' ? board.error : "a process died");
  }
  Result result = {};
  result.seconds = static_cast<double>(board.end - board.start) * 1e-9;
  result.records = hasConsumer ? board.records : settings.records;
  result.bytes = hasConsumer ? board.bytes : bytesOf(settings);
  result.messages = board.messages;
  result.producer = board.producer;
  result.consumer = board.consumer;
  return result;
}

}  // namespace bench
