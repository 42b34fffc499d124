#ifndef KORVEXD_DIRECTORY_SINK_H
#define KORVEXD_DIRECTORY_SINK_H

#include <cstdint>
#include <string>
#include <vector>

#include "korvexd/File.h"
#include "korvexd/Sha256.h"
#include "korvexd/Sink.h"

namespace korvexd {

/// Stores a stream as a folder with the files "data" and "manifest.json".
///
/// The folder's name ends in ".partial" until the data, the manifest and the folder are on the
/// disk; only then it gets its final name. So a folder without that ending is complete, whatever
/// happened to the machine. An incomplete one keeps the ending, and says in its manifest why.
class DirectorySink : public Sink {
 public:
  static constexpr const char* kPartialSuffix = ".partial";

  /// After so many bytes the system is asked to begin writing them to the disk, so that little is
  /// left for the close, where the producer waits for its receipt.
  static constexpr std::uint64_t kWritebackSize = std::uint64_t{64} << 20;

  /// Takes over the empty folder NAME.partial in `parent`, which outlives the sink. `path` is what
  /// people call the parent.
  DirectorySink(const File& parent, std::string name, const std::string& path);

  void write(const unsigned char* data, std::size_t size) override;
  void complete(const StreamSummary& summary, const StillFinishing& stillFinishing) override;
  void abandon(const StreamSummary& summary, const std::string& reason) override;
  std::string place() const override { return path_ + (isFinal_ ? "" : kPartialSuffix); }

 private:
  void writeGathered();
  void writeData(const unsigned char* data, std::size_t size);
  void publish();

  const File& parent_;
  std::string name_;
  std::string path_;
  bool isFinal_ = false;
  File folder_;
  File data_;
  Sha256 sha256_;
  std::uint64_t written_ = 0;
  std::uint64_t onTheWay_ = 0;           ///< of them, to the disk
  std::vector<unsigned char> gathered_;  ///< small records, until they are worth a write
};

}  // namespace korvexd

#endif
