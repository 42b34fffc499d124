#ifndef BENCH_COMPARE_TRANSPORT_H
#define BENCH_COMPARE_TRANSPORT_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

/// Ways to carry records from one process to another, behind one small interface.
///
/// Every way carries the same thing: records of a 48-byte header and `recordSize` data bytes. The
/// producer starts from header fields and a pointer to data; the consumer reads every header.
namespace bench {

struct Bytes {
  const unsigned char* data;
  std::size_t size;
};

/// What one message holds.
enum class Framing {
  Record,  ///< one record
  Batch,   ///< as many records as fit, packed as the library packs them
  Opaque   ///< the same bytes again and again, read by nobody: what the transport alone carries
};

struct Settings {
  std::string name;         ///< unique; what the transport makes is called after it
  std::size_t recordSize;   ///< data bytes of a record
  std::uint64_t records;    ///< how many to carry
  std::size_t messageSize;  ///< the largest message, for batches
  std::size_t depth;        ///< messages that may be under way where the transport has such a limit
  Framing framing;
};

/// Bytes that `records` records take, headers included.
inline std::uint64_t bytesOf(const Settings& settings) {
  constexpr std::uint64_t kHeaderSize = 48;
  return settings.records * (kHeaderSize + settings.recordSize);
}

/// The most bytes that one message takes.
inline std::size_t largestMessage(const Settings& settings) {
  return settings.framing == Framing::Record ? bytesOf(settings) / settings.records
                                             : settings.messageSize;
}

/// Opaque messages that carry as many bytes as the records would.
inline std::uint64_t opaqueMessages(const Settings& settings) {
  return (bytesOf(settings) + settings.messageSize - 1) / settings.messageSize;
}

/// One end of a transport that copies messages: the way in.
class Sender {
 public:
  virtual ~Sender() = default;

  /// Sends head and body as one message; the body may be empty.
  virtual void send(Bytes head, Bytes body) = 0;
};

/// The way out.
class Receiver {
 public:
  virtual ~Receiver() = default;

  /// The next message. Valid until the next call.
  virtual Bytes receive() = 0;
};

/// Makes records and gets them on their way.
class Producer {
 public:
  virtual ~Producer() = default;

  /// Carries all records of the settings.
  virtual void run() = 0;
};

/// One measured way. Constructed before the processes part, so that it can make what both need;
/// destroyed by the first process when both are done.
class Transport {
 public:
  virtual ~Transport() = default;

  /// Called in the producer's process.
  virtual std::unique_ptr<Producer> openProducer() = 0;

  /// Called in the consumer's process.
  virtual std::unique_ptr<Receiver> openReceiver() = 0;

  /// What a reader of the figures should know; mostly nothing.
  virtual std::string note() const { return {}; }

  /// False for what is done by one process alone.
  virtual bool hasConsumer() const { return true; }
};

/// The producer for a transport that copies messages, according to the framing.
std::unique_ptr<Producer> makeProducer(const Settings& settings, std::unique_ptr<Sender> sender);

/// For transports that take a message in one piece only.
class JoinBuffer {
 public:
  explicit JoinBuffer(std::size_t capacity) : bytes_(new unsigned char[capacity]) {}

  /// Head and body as one piece, valid until the next call. Copies only when there is a body.
  Bytes join(Bytes head, Bytes body);

 private:
  std::unique_ptr<unsigned char[]> bytes_;
};

/// The data of a record: not all the same byte, and the same in every run.
class RecordData {
 public:
  explicit RecordData(std::size_t size);
  const unsigned char* get() const { return bytes_.get(); }

 private:
  std::unique_ptr<unsigned char[]> bytes_;
};

}  // namespace bench

#endif
