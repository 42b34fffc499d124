// producer QUEUE: streams standard input to the daemon that serves the queue, one segment per line.
#include <korvex/ShmWriter.h>

#include <iostream>
#include <string>

int main(int, char* arguments[]) try {
  korvex::ShmWriter stream("example", arguments[1], 10, 10, false);  // waits 10 s for room at most
  stream.open();
  for (std::string line; std::getline(std::cin, line);) {
    stream.writeSegment(reinterpret_cast<const unsigned char*>(line.data()), line.size());
    stream.endSegment();
  }
  stream.close();
} catch (const std::exception& error) {
  std::cerr << "producer: " << error.what() << '\n';
  return 1;
}
