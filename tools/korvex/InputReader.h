#ifndef KORVEX_TOOL_INPUT_READER_H
#define KORVEX_TOOL_INPUT_READER_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Input.h"
#include "StopSignal.h"

namespace korvex::tool {

/// The named files, read to their ends one after the other. "-" is standard input.
///
/// A file that cannot be read throws a Failure that names it, with the system's error number and
/// text. A signal throws Interrupted, even while waiting for a pipe.
class InputReader : public Input {
 public:
  /// Proves as far as possible that every file can be read: what is missing, forbidden, a folder, a
  /// socket or a device that cannot be opened throws. Pipes are not opened for that, since their
  /// writers would notice. No names mean standard input. `stop` outlives the reader.
  InputReader(const std::vector<std::string>& names, const StopSignal& stop);
  ~InputReader() override;
  InputReader(const InputReader&) = delete;
  InputReader& operator=(const InputReader&) = delete;

  /// The bytes to come, as the files are now; unknown if one of them is not a regular file.
  std::optional<std::uint64_t> totalBytes() const override { return totalBytes_; }

  bool openNext() override;

 private:
  void addSize(const std::string& name);
  void openFile(const std::string& name);
  void closeFile() noexcept;
  std::size_t readSome(unsigned char* buffer, std::size_t size) override;
  void waitForInput();

  std::vector<std::string> names_;
  const StopSignal& stop_;
  std::optional<std::uint64_t> totalBytes_ = 0;
  std::size_t next_ = 0;
  int file_ = -1;
  bool waits_ = false;  ///< whether reading may block
};

}  // namespace korvex::tool

#endif
