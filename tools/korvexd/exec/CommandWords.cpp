#include "korvexd/exec/CommandWords.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <korvex/receiver/SystemError.h>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace korvexd {

namespace receiver = korvex::receiver;
namespace {

constexpr const char* kBlanks = " \t\n";
constexpr const char* kEscapableInQuotes = "\"\\$`";
constexpr const char* kUsualPath = "/usr/local/bin:/usr/bin:/bin";

/// Reads words off a command, from left to right.
class WordReader {
 public:
  explicit WordReader(const std::string& command) : command_(command) {}

  bool skipBlanks() {
    at_ = std::min(command_.find_first_not_of(kBlanks, at_), command_.size());
    return at_ < command_.size();
  }

  std::string next() {
    std::string word;
    while (at_ < command_.size() && !isOneOf(command_[at_], kBlanks)) takePart(word);
    return word;
  }

 private:
  static bool isOneOf(char character, const char* characters) {
    return std::string(characters).find(character) != std::string::npos;
  }

  void takePart(std::string& word) {
    const char character = command_[at_++];
    if (character == '\'') return takeLiteral(word);
    if (character == '"') return takeQuoted(word);
    if (character == '\\') return takeEscaped(word);
    word += character;
  }

  void takeLiteral(std::string& word) {
    const std::size_t start = at_;
    const std::size_t end = command_.find('\'', start);
    if (end == std::string::npos) throwOpen('\'', start - 1);
    word += command_.substr(start, end - start);
    at_ = end + 1;
  }

  void takeQuoted(std::string& word) {
    const std::size_t start = at_ - 1;
    for (;;) {
      if (at_ == command_.size()) throwOpen('"', start);
      const char character = command_[at_++];
      if (character == '"') return;
      if (character == '\\' && at_ < command_.size()) {
        takeEscapedInQuotes(word);
      } else {
        word += character;
      }
    }
  }

  /// Before any other character the backslash stands for itself there.
  void takeEscapedInQuotes(std::string& word) {
    const char character = command_[at_++];
    if (character == '\n') return;
    if (!isOneOf(character, kEscapableInQuotes)) word += '\\';
    word += character;
  }

  void takeEscaped(std::string& word) {
    if (at_ == command_.size()) {
      throw std::invalid_argument("ends in a backslash, expected a character after it");
    }
    const char character = command_[at_++];
    if (character != '\n') word += character;  // drops a line continuation
  }

  [[noreturn]] static void throwOpen(char quote, std::size_t place) {
    throw std::invalid_argument("the quote " + std::string(1, quote) + " at character " +
                                std::to_string(place + 1) + " is never closed");
  }

  const std::string& command_;
  std::size_t at_ = 0;
};

/// 0, or the error that keeps a file from being run.
int obstacleTo(const std::string& path) {
  struct stat found = {};
  if (::stat(path.c_str(), &found) != 0) return errno;
  if (!S_ISREG(found.st_mode)) return EACCES;
  return ::faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) == 0 ? 0 : errno;
}

std::vector<std::string> foldersOfPath() {
  const char* const path = std::getenv("PATH");
  std::istringstream folders(path == nullptr ? kUsualPath : path);
  std::vector<std::string> found;
  // An empty entry means the working folder, as in any shell.
  for (std::string folder; std::getline(folders, folder, ':');) {
    found.push_back(folder.empty() ? "." : folder);
  }
  return found;
}

/// One that exists but may not be run is the better explanation.
std::string findInPath(const std::string& name) {
  int obstacle = ENOENT;
  for (const std::string& folder : foldersOfPath()) {
    std::string path = folder;
    path.append("/").append(name);
    const int found = obstacleTo(path);
    if (found == 0) return path;
    if (found == EACCES) obstacle = found;
  }
  throw receiver::SystemError("looking for the engine '" + name + "' in PATH", obstacle);
}

}  // namespace

std::vector<std::string> splitCommand(const std::string& command) {
  std::vector<std::string> words;
  WordReader reader(command);
  while (reader.skipBlanks()) words.push_back(reader.next());
  if (words.empty()) throw std::invalid_argument("found no word, expected a command");
  if (words.front().empty()) throw std::invalid_argument("the first word is empty");
  return words;
}

std::string findProgram(const std::string& name) {
  if (name.find('/') == std::string::npos) return findInPath(name);
  const int obstacle = obstacleTo(name);
  if (obstacle != 0) throw receiver::SystemError("checking the engine '" + name + "'", obstacle);
  return name;
}

}  // namespace korvexd
