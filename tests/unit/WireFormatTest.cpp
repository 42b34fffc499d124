#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <regex>
#include <string>

#include "korvex/ShmWriter.h"
#include "support/Bytes.h"
#include "support/DaemonQueues.h"

namespace {

/// The bytes of the page's worked example: from each line "offset  hex hex ...    remark".
Bytes bytesOfPage(const std::string& path) {
  std::ifstream page(path);
  const std::regex line("^ +([0-9]+)  ((?:[0-9a-f]{2} )*[0-9a-f]{2})(?:   .*)?$");
  Bytes bytes;
  for (std::string text; std::getline(page, text);) {
    std::smatch match;
    if (!std::regex_match(text, match, line)) continue;
    EXPECT_EQ(std::stoul(match[1]), bytes.size()) << text;
    const std::string hex = match[2];
    for (std::size_t i = 0; i < hex.size(); i += 3) {
      bytes.push_back(static_cast<unsigned char>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    }
  }
  return bytes;
}

}  // namespace

TEST(WireFormat, PageShowsTheBytesThatTheWriterSends) {
  korvex_test::DaemonQueues queues;
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
