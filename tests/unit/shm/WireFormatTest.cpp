#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>

#include "korvex/ShmWriter.h"
#include "support/Bytes.h"
#include "support/DaemonQueues.h"

namespace {

bool isHexByte(const std::string& word) {
  return word.size() == 2 && word.find_first_not_of("0123456789abcdef") == std::string::npos;
}

/// The bytes of the page's worked example: its lines are an offset, bytes, and a remark behind
/// three blanks.
Bytes bytesOfPage(const std::string& path) {
  std::ifstream page(path);
  Bytes bytes;
  for (std::string line; std::getline(page, line);) {
    std::istringstream words(line.substr(0, line.find("   ", line.find_first_not_of(' '))));
    std::size_t offset = 0;
    std::string byte;
    if (!(words >> offset >> byte) || !isHexByte(byte)) continue;
    EXPECT_EQ(offset, bytes.size()) << line;
    do bytes.push_back(static_cast<unsigned char>(std::stoul(byte, nullptr, 16)));
    while (words >> byte);
  }
  return bytes;
}

}  // namespace

TEST(WireFormat, PageShowsTheBytesThatTheWriterSends) {
  korvex::test::DaemonQueues queues;
  korvex::ShmWriter writer("stream", queues.name(), 60, 60, false);
  writer.open();
  queues.takeBatch();
  writer.writeSegment(reinterpret_cast<const unsigned char*>("abc"), 3);
  writer.endSegment();
  writer.flush_shm_buffer(60);
  const Bytes sent = queues.takeBatch();
  EXPECT_EQ(sent.size(), 107u);
  EXPECT_EQ(hexOf(sent), hexOf(bytesOfPage(KORVEX_FORMAT_PAGE)));
}
