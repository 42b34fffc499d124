// producer QUEUE: streams standard input to the daemon that serves the queue, one segment per line.
#include <algorithm>
#include <iostream>
#include <korvex/StreamGuard.h>
#include <string>

int main(int, char* arguments[]) try {
  std::ios::sync_with_stdio(false);       // otherwise a read error looks like the end
  std::cin.exceptions(std::ios::badbit);  // throws when reading fails
  const std::size_t most = korvex::ShmWriter::getMaxSegmentSize();  // of a single record

  korvex::ShmWriter stream("example", arguments[1], 10, 10, false);  // waits 10 s for room at most
  stream.open();
  korvex::StreamGuard guard(stream);  // an error leaves an incomplete stream
  for (std::string line; std::getline(std::cin, line);) {
    const auto* data = reinterpret_cast<const unsigned char*>(line.data());
    for (std::size_t at = 0; at < line.size(); at += most) {
      stream.writeSegment(data + at, std::min(most, line.size() - at));
    }
    stream.endSegment();
  }
  guard.close();
} catch (const std::exception& error) {
  std::cerr << "producer: " << error.what() << '\n';
  return 1;
}
