// receipt QUEUE: streams standard input and prints the daemon's receipt once everything is stored.
#include <chrono>
#include <iostream>
#include <korvex/Status.h>
#include <korvex/StreamGuard.h>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr unsigned kTimeout = 10;     // seconds to wait for room at most
constexpr int kMoreThanReplies = 40;  // 16 in the queue, 4 in the daemon, and batches on their way

/// An old reply that was never fetched would be taken for this stream's.
void forgetOldReplies(const std::string& queue) {
  korvex::ShmWriter writer("example", queue, kTimeout, kTimeout, false);
  for (int i = 0; i < kMoreThanReplies; ++i) {
    try {
      writer.flush_shm_buffer(kTimeout);
    } catch (const Ov_ErrnoException& error) {
      if (error.getStatus() == korvex::kStatusTimedOut) throw;
    }
  }
}

std::size_t sendInput(korvex::ShmWriter& stream) {
  std::vector<char> piece(korvex::ShmWriter::getMaxSegmentSize());
  std::size_t total = 0;
  while (std::cin) {
    std::cin.read(piece.data(), static_cast<std::streamsize>(piece.size()));
    const auto size = static_cast<std::size_t>(std::cin.gcount());
    stream.writeSegment(reinterpret_cast<const unsigned char*>(piece.data()), size);
    total += size;
  }
  stream.endSegment();
  return total;
}

/// A writer picks up a reply with each batch that it sends, an empty one too.
void pickUpReply(korvex::ShmWriter& stream) try {
  stream.flush_shm_buffer(1);
} catch (const Ov_ErrnoException& error) {
  if (error.getStatus() != korvex::kStatusTimedOut) throw;  // the daemon could not store the stream
}

/// The pauses grow, so that the batches do not fill the queue while the daemon is busy.
std::string awaitReceipt(korvex::ShmWriter& stream) {
  for (std::chrono::milliseconds pause(10); pause < std::chrono::minutes(2); pause *= 2) {
    if (stream.getResponse().message[0] != '\0') return stream.getResponse().message;
    std::this_thread::sleep_for(pause);
    pickUpReply(stream);
  }
  throw std::runtime_error("no receipt came");
}

}  // namespace

int main(int, char* arguments[]) try {
  std::ios::sync_with_stdio(false);       // otherwise a read error looks like the end
  std::cin.exceptions(std::ios::badbit);  // throws when reading fails

  forgetOldReplies(arguments[1]);
  korvex::ShmWriter stream("example", arguments[1], kTimeout, kTimeout, false);
  stream.open();
  korvex::StreamGuard guard(stream);
  const std::size_t total = sendInput(stream);
  guard.close();
  const std::string receipt = awaitReceipt(stream);
  std::cout << receipt << '\n';
  if (receipt.find("stored bytes=" + std::to_string(total) + " ") != 0) {
    throw std::runtime_error("the daemon stored something else");
  }
} catch (const std::exception& error) {
  std::cerr << "receipt: " << error.what() << '\n';
  return 1;
}
