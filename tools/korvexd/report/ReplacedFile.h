#ifndef KORVEXD_REPLACED_FILE_H
#define KORVEXD_REPLACED_FILE_H

#include <string>

namespace korvexd {

/// A file that is replaced as a whole, so that readers see the old text or the new one. For one
/// thread.
class ReplacedFile {
 public:
  /// `content` says in errors what is written. Touches no file yet.
  ReplacedFile(std::string path, const std::string& content);

  const std::string& path() const noexcept { return path_; }

  /// Writes the text, readable by all, when it differs from the last one. Throws SystemError, or
  /// std::runtime_error when the path leads to anything but a file.
  void update(std::string text);

 private:
  const std::string path_;
  const std::string doing_;
  std::string written_;
};

}  // namespace korvexd

#endif
