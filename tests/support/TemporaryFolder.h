#ifndef TESTS_SUPPORT_TEMPORARY_FOLDER_H
#define TESTS_SUPPORT_TEMPORARY_FOLDER_H

#include <string>
#include <vector>

namespace korvex::test {

/// A fresh folder, removed with everything in it at the end.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  /// Makes a folder in it and gives its path.
  std::string makeFolder(const std::string& name) const;

 private:
  std::string path_;
};

/// The names in a folder, sorted.
std::vector<std::string> namesIn(const std::string& folder);

/// All bytes of a file. Throws when it cannot be read.
std::string contentsOf(const std::string& file);

}  // namespace korvex::test

#endif
