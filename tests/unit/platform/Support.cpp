#include "unit/platform/Support.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <unistd.h>

TemporaryFolder::TemporaryFolder() {
  std::string name = (std::filesystem::temp_directory_path() / "qmx-test-XXXXXX").string();
  if (::mkdtemp(&name[0]) == nullptr) throw std::runtime_error("cannot make " + name);
  folder_ = name;
}

TemporaryFolder::~TemporaryFolder() { std::filesystem::remove_all(folder_); }

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::vector<std::string> linesOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) lines.push_back(line);
  return lines;
}

StandardErrorInto::StandardErrorInto(const std::string& path) : original_(::dup(STDERR_FILENO)) {
  const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (original_ < 0 || file < 0) throw std::runtime_error("cannot lead standard error to " + path);
  ::dup2(file, STDERR_FILENO);
  ::close(file);
}

StandardErrorInto::~StandardErrorInto() {
  ::dup2(original_, STDERR_FILENO);
  ::close(original_);
}

std::string withoutTime(const std::string& line) { return line.substr(line.find(' ') + 1); }

std::string textOf(const std::string& line) {
  const std::size_t code = line.find(" code=");
  return line.substr(line.find(' ', code + 1) + 1);
}
