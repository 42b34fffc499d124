// reader: takes the batch on standard input apart, prints its records. Trusts the bytes.
#include <iostream>
#include <iterator>
#include <korvex/ShmBatch.h>

int main() try {
  std::ios::sync_with_stdio(false);  // otherwise a read error looks like the end
  const std::string bytes(std::istreambuf_iterator<char>(std::cin), {});
  std::queue<korvex::ShmBatch::Entry> entries;
  korvex::ShmBatch::getEntriesFromBuffer(
      entries, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
  for (; !entries.empty(); entries.pop()) std::cout << entries.front() << '\n';
} catch (const std::exception& error) {
  std::cerr << "reader: " << error.what() << '\n';
  return 1;
}
