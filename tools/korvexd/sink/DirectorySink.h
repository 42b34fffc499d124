#ifndef KORVEXD_DIRECTORY_SINK_H
#define KORVEXD_DIRECTORY_SINK_H

#include <cstdint>
#include <korvex/receiver/Sink.h>
#include <memory>
#include <string>

#include "common/StoredNames.h"
#include "korvexd/os/File.h"
#include "korvexd/sink/DigestedBlocks.h"

namespace korvexd {

namespace receiver = korvex::receiver;

/// Stores a stream as a folder with the files "data" and "manifest.json".
///
/// The folder's name ends in ".partial" until the data, the manifest and the folder are on the
/// disk; only then does it get its final name. So a folder without that ending is complete,
/// whatever happened to the machine. An incomplete one keeps the ending, and its manifest says why.
class DirectorySink : public receiver::Sink {
 public:
  /// Each time this many bytes have come, the system is asked to begin writing them to the disk, so
  /// that little is left for the close, where the producer waits for its receipt.
  static constexpr std::uint64_t kWritebackSize = std::uint64_t{64} << 20;

  /// Takes over the empty folder NAME.partial in `parent`, and leaves it empty when it throws.
  /// `path` leads to the parent.
  DirectorySink(std::shared_ptr<const File> parent, std::string name, std::string path,
                ExtraDigest digest);

  void write(const unsigned char* data, std::size_t size) override;
  void complete(const receiver::StreamSummary& summary,
                const receiver::StillFinishing& stillFinishing) override;
  void abandon(const receiver::StreamSummary& summary, const std::string& reason) override;
  std::string place() const override { return path_ + "/" + (isFinal_ ? name_ : partialName()); }

 private:
  struct Gathered {
    const unsigned char* data;  ///< good until more is gathered
    std::size_t size;
  };

  void gather(const unsigned char* data, std::size_t size);
  Gathered digestGathered();
  void writeGathered();
  void writeData(const unsigned char* data, std::size_t size);
  void checkPlaces(const File& manifest) const;
  void publish();
  std::string partialName() const { return name_ + korvex::common::kPartialSuffix; }

  std::shared_ptr<const File> parent_;
  std::string name_;
  std::string path_;
  bool isFinal_ = false;
  std::uint64_t written_ = 0;
  std::uint64_t onTheWay_ = 0;  ///< of them, to the disk
  const ExtraDigest digest_;
  DigestedBlocks blocks_;
  std::size_t gathered_ = 0;  ///< bytes of the current block
  File folder_;
  File data_;  ///< made last: nothing is left in the folder when something cannot be made
};

}  // namespace korvexd

#endif
