#include "Source.h"

#include <algorithm>
#include <unistd.h>
#include <vector>

#include "Pattern.h"
#include "support/SharedCounter.h"

namespace korvex::test {
namespace {

bool writeAll(const unsigned char* bytes, std::size_t size) {
  while (size > 0) {
    const ssize_t written = ::write(STDOUT_FILENO, bytes, size);
    if (written < 0) return false;
    bytes += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

}  // namespace

int runSource(const Source& source) {
  SharedCounter progress(source.progress);
  const Pattern pattern(source.number, source.size);
  std::vector<unsigned char> piece(Source::kPieceSize);
  for (std::uint64_t at = 0; at < source.size; at += piece.size()) {
    const std::uint64_t size = std::min<std::uint64_t>(piece.size(), source.size - at);
    pattern.fill(piece.data(), size, at);
    if (!writeAll(piece.data(), size)) return 1;
    progress.raise();
  }
  // Some close their output and go on, others end with it.
  if (source.lingering % 2 == 0) ::close(STDOUT_FILENO);
  ::usleep(source.lingering);
  progress.raise();
  return 0;
}

}  // namespace korvex::test
