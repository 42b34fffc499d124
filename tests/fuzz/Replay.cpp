// Runs one fuzz target over the files of a folder, once each, without a fuzzer.
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

#include "fuzz/Input.h"

namespace {

std::vector<std::uint8_t> bytesOf(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(file), {}};
  if (!file) throw std::runtime_error("cannot read " + path.string());
  return bytes;
}

int replay(const std::filesystem::path& folder) {
  int inputs = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    const std::vector<std::uint8_t> bytes = bytesOf(entry.path());
    std::cerr << entry.path().filename().string() << '\n';  // the last one named is the culprit
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    ++inputs;
  }
  std::cout << inputs << " inputs\n";
  return inputs == 0 ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 2) {
    std::cerr << "usage: replay FOLDER\n";
    return 2;
  }
  return replay(argv[1]);
} catch (const std::exception& error) {
  std::cerr << "replay: " << error.what() << '\n';
  return 1;
}
