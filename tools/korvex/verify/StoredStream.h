#ifndef KORVEX_TOOL_STORED_STREAM_H
#define KORVEX_TOOL_STORED_STREAM_H

#include <cstdint>
#include <string>
#include <vector>

namespace korvex::tool {

enum class StreamState {
  Complete,  ///< the data is what the manifest says
  Damaged,   ///< it is not, or cannot be checked
  Partial,   ///< never got its final name, so it promises nothing
  Foreign,   ///< not a stream
  Unchecked  ///< the run ended before its turn
};

/// "complete", "damaged", ...
const char* nameOf(StreamState state) noexcept;

/// Why a stream is damaged.
struct StreamProblem {
  const char* what;  ///< "folder", "manifest", "data", "size", "sha256" or "xxh128"
  std::string text;
};

/// An entry of a folder that streams are stored in, and what is known of it.
struct StoredStream {
  std::string path;
  bool isGiven = false;  ///< on the command line, so a link to it is followed
  StreamState state = StreamState::Unchecked;
  std::uint64_t dataSize = 0;           ///< before it was read, to share out the work
  std::uint64_t bytes = 0;              ///< of data that were read
  std::string note;                     ///< of a partial stream: what its manifest says
  std::vector<StreamProblem> problems;  ///< of a damaged stream
};

/// What a folder holds, sorted by name: streams to be checked, partial ones, and foreign things.
/// A folder that is one stream itself is the only entry.
///
/// A stream is a folder that is named as a daemon names them (QUEUE-yyyymmddThhmmssZ-NUMBER), or
/// that holds a manifest.json. Throws a Failure when the folder cannot be read.
std::vector<StoredStream> streamsIn(const std::string& folder);

}  // namespace korvex::tool

#endif
