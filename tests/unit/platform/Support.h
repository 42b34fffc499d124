#ifndef TESTS_UNIT_PLATFORM_SUPPORT_H
#define TESTS_UNIT_PLATFORM_SUPPORT_H

#include <string>
#include <vector>

/// A folder of its own for one test, removed with everything in it.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  std::string path(const std::string& name) const { return folder_ + "/" + name; }

 private:
  std::string folder_;
};

std::string contentOf(const std::string& path);

/// The file's lines without their ends. A last line without an end counts as a line.
std::vector<std::string> linesOf(const std::string& path);

/// Leads standard error into a file while it lives.
class StandardErrorInto {
 public:
  explicit StandardErrorInto(const std::string& path);
  ~StandardErrorInto();
  StandardErrorInto(const StandardErrorInto&) = delete;
  StandardErrorInto& operator=(const StandardErrorInto&) = delete;

 private:
  int original_;
};

/// What follows the line's time: level, process id, code and text.
std::string withoutTime(const std::string& line);

/// What follows the line's code.
std::string textOf(const std::string& line);

#endif
