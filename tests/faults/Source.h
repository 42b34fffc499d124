#ifndef KORVEX_TESTS_FAULTS_SOURCE_H
#define KORVEX_TESTS_FAULTS_SOURCE_H

#include <cstdint>
#include <string>

namespace korvex::test {

/// What a command of the harness writes to its standard output, in pieces. It counts them in a
/// file, and once more when it is about to exit with 0.
struct Source {
  static constexpr std::uint64_t kPieceSize = 16384;

  std::string progress;  ///< the file that it counts in
  std::uint64_t number;  ///< of its stream
  std::uint64_t size;
  unsigned lingering;  ///< microseconds from the last piece to the end

  static std::uint64_t piecesOf(std::uint64_t size) { return (size + kPieceSize - 1) / kPieceSize; }
};

/// Is the command; returns its exit code.
int runSource(const Source& source);

}  // namespace korvex::test

#endif
