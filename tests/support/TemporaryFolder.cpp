#include "support/TemporaryFolder.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <stdlib.h>

namespace korvex::test {

namespace fs = std::filesystem;

TemporaryFolder::TemporaryFolder() {
  path_ = (fs::temp_directory_path() / "korvex-test-XXXXXX").string();
  if (::mkdtemp(&path_[0]) == nullptr) throw std::runtime_error("no temporary folder: " + path_);
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::string TemporaryFolder::makeFolder(const std::string& name) const {
  fs::create_directory(*this / name);
  return *this / name;
}

std::vector<std::string> namesIn(const std::string& folder) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string contentsOf(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  if (!stream) throw std::runtime_error("cannot read " + file);
  std::ostringstream contents;
  if (stream.peek() != std::ifstream::traits_type::eof()) contents << stream.rdbuf();
  return contents.str();
}

}  // namespace korvex::test
