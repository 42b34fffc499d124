// iceoryx: the producer writes straight into shared memory and the consumer reads there, without a
// copy at either end beyond the one that puts the record in. Its broker process is started here.
#include <cstring>
#include <grp.h>
#include <iceoryx_hoofs/log/logmanager.hpp>
#include <iceoryx_posh/mepoo/chunk_header.hpp>
#include <iceoryx_posh/popo/untyped_publisher.hpp>
#include <iceoryx_posh/popo/untyped_subscriber.hpp>
#include <iceoryx_posh/runtime/posh_runtime.hpp>
#include <korvex/ShmBatch.h>
#include <spawn.h>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "Transports.h"
#include "queue/Pause.h"

namespace bench {
namespace {

constexpr std::uint32_t kTypeSegmentData = 1;
constexpr std::size_t kHeaderSize = 48;
constexpr std::size_t kMetaDataSize = 8;
constexpr std::chrono::milliseconds kLongestSleep{4};
constexpr std::chrono::seconds kTimeout{60};

/// The broker, from ready to ended.
class Broker {
 public:
  Broker() {
    int output[2];
    if (::pipe(output) != 0) throw std::runtime_error("pipe");
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, output[1], STDERR_FILENO);
    ::posix_spawn_file_actions_addclose(&actions, output[0]);
    char program[] = "iox-roudi";
    char option[] = "--monitoring-mode";
    char off[] = "off";
    char* arguments[] = {program, option, off, nullptr};
    const int error = ::posix_spawnp(&process_, program, &actions, nullptr, arguments, environ);
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(output[1]);
    output_ = output[0];
    if (error != 0) throw std::runtime_error("cannot start iox-roudi");
    waitUntilReady();
  }
  ~Broker() {
    ::kill(process_, SIGTERM);
    ::waitpid(process_, nullptr, 0);
    ::close(output_);
    removeSharedMemory();
  }
  Broker(const Broker&) = delete;
  Broker& operator=(const Broker&) = delete;

 private:
  void waitUntilReady() {
    std::string said;
    char part[256];
    while (said.find("ready for clients") == std::string::npos) {
      const ssize_t got = ::read(output_, part, sizeof part);
      if (got <= 0) {
        ::waitpid(process_, nullptr, 0);
        throw std::runtime_error("iox-roudi ended before it was ready: " + said);
      }
      said.append(part, static_cast<std::size_t>(got));
    }
  }

  /// It leaves both of its objects behind, and only one broker runs on a machine.
  static void removeSharedMemory() {
    ::shm_unlink("/iceoryx_mgmt");
    const group* const own = ::getgrgid(::getegid());
    if (own != nullptr) ::shm_unlink((std::string("/") + own->gr_name).c_str());
  }

  pid_t process_ = 0;
  int output_ = -1;
};

iox::capro::ServiceDescription service() { return {"korvex", "benchmark", "records"}; }

void join(const Settings& settings, const char* role) {
  // Its chatter would go to standard output, between the results.
  iox::log::LogManager::GetLogManager().SetDefaultLogLevel(iox::log::LogLevel::kOff);
  const std::string name = settings.name + role;
  iox::runtime::PoshRuntime::initRuntime(
      iox::RuntimeName_t(iox::cxx::TruncateToCapacity, name.c_str()));
}

class IceoryxProducer : public Producer {
 public:
  explicit IceoryxProducer(const Settings& settings)
      : settings_(settings), data_(settings.recordSize), publisher_(service(), options()) {
    const auto end = std::chrono::steady_clock::now() + kTimeout;
    while (!publisher_.hasSubscribers()) {
      if (std::chrono::steady_clock::now() > end) throw std::runtime_error("no subscriber came");
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  void run() override {
    if (settings_.framing == Framing::Record) {
      runRecords();
    } else {
      runBatches();
    }
  }

 private:
  static iox::popo::PublisherOptions options() {
    iox::popo::PublisherOptions result;
    result.subscriberTooSlowPolicy = iox::popo::ConsumerTooSlowPolicy::WAIT_FOR_CONSUMER;
    return result;
  }

  unsigned char* loan(std::size_t size) {
    auto loaned = publisher_.loan(static_cast<std::uint32_t>(size));
    if (loaned.has_error()) throw std::runtime_error("iceoryx has no chunk of this size free");
    return static_cast<unsigned char*>(loaned.value());
  }

  korvex::qmx_shm_message_t firstHeader() const {
    korvex::qmx_shm_message_t header;
    header.type = kTypeSegmentData;
    header.len = static_cast<std::uint32_t>(settings_.recordSize);
    header.segmentEmpty = 0;
    return header;
  }

  void put(unsigned char* place, const korvex::qmx_shm_message_t& header) {
    std::memcpy(header.serializeToBuffer(place), data_.get(), settings_.recordSize);
  }

  void runRecords() {
    korvex::qmx_shm_message_t header = firstHeader();
    for (std::uint64_t i = 0; i < settings_.records; ++i) {
      ++header.sequence;
      unsigned char* const chunk = loan(kHeaderSize + settings_.recordSize);
      put(chunk, header);
      publisher_.publish(chunk);
    }
  }

  void runBatches() {
    korvex::qmx_shm_message_t header = firstHeader();
    const std::size_t step = kHeaderSize + settings_.recordSize;
    const std::uint64_t perBatch = (settings_.messageSize - kMetaDataSize) / step;
    for (std::uint64_t left = settings_.records; left > 0;) {
      const std::uint64_t count = std::min(left, perBatch);
      unsigned char* const chunk = loan(kMetaDataSize + count * step);
      korvex::ShmBatch::MetaData metaData;
      metaData.numEntries = static_cast<std::uint32_t>(count);
      unsigned char* place = metaData.serializeToBuffer(chunk);
      for (std::uint64_t i = 0; i < count; ++i, place += step) {
        ++header.sequence;
        put(place, header);
      }
      publisher_.publish(chunk);
      left -= count;
    }
  }

  Settings settings_;
  RecordData data_;
  iox::popo::UntypedPublisher publisher_;
};

class IceoryxReceiver : public Receiver {
 public:
  explicit IceoryxReceiver(const Settings& settings) : subscriber_(service(), options(settings)) {}
  ~IceoryxReceiver() override { release(); }

  Bytes receive() override {
    release();
    const auto end = std::chrono::steady_clock::now() + kTimeout;
    korvex::Pause pause(kLongestSleep);
    for (;;) {
      auto taken = subscriber_.take();
      if (!taken.has_error()) {
        chunk_ = taken.value();
        const auto* const header = iox::mepoo::ChunkHeader::fromUserPayload(chunk_);
        return {static_cast<const unsigned char*>(chunk_), header->userPayloadSize()};
      }
      if (std::chrono::steady_clock::now() >= end) throw std::runtime_error("nothing came");
      pause.wait(end);
    }
  }

 private:
  static iox::popo::SubscriberOptions options(const Settings& settings) {
    iox::popo::SubscriberOptions result;
    result.queueFullPolicy = iox::popo::QueueFullPolicy::BLOCK_PRODUCER;
    result.queueCapacity = capacity(settings);
    return result;
  }

  /// Single records keep the default number of chunks under way, as long as the broker has so many
  /// of that size.
  static std::uint64_t capacity(const Settings& settings) {
    constexpr std::size_t kPlentifulSize = 16 * 1024;
    constexpr std::uint64_t kDefaultCapacity = 256;
    const bool isPlentiful =
        settings.framing == Framing::Record && largestMessage(settings) <= kPlentifulSize;
    return isPlentiful ? kDefaultCapacity : settings.depth;
  }

  void release() {
    if (chunk_ != nullptr) subscriber_.release(chunk_);
    chunk_ = nullptr;
  }

  iox::popo::UntypedSubscriber subscriber_;
  const void* chunk_ = nullptr;
};

class IceoryxTransport : public Transport {
 public:
  explicit IceoryxTransport(const Settings& settings) : settings_(settings) {}

  std::unique_ptr<Producer> openProducer() override {
    join(settings_, "-producer");
    return std::make_unique<IceoryxProducer>(settings_);
  }

  std::unique_ptr<Receiver> openReceiver() override {
    join(settings_, "-consumer");
    return std::make_unique<IceoryxReceiver>(settings_);
  }

 private:
  Settings settings_;
  Broker broker_;
};

}  // namespace

std::unique_ptr<Transport> makeIceoryx(const Settings& settings) {
  return std::make_unique<IceoryxTransport>(settings);
}

}  // namespace bench
