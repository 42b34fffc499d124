// An engine as they mostly are: it takes the end of its input for the end of a whole stream.
//
//     korvex_recording_engine FOLDER
//
// Stores its input as FOLDER/STREAM, under another name until then. Three numbers in FOLDER/pace
// make it slow: the microseconds after each read, before it stores, and after it has stored.

#include <stdio.h>
#include <stdlib.h>
#include <string>
#include <unistd.h>

namespace {

struct Pace {
  unsigned afterRead = 0;
  unsigned beforeStore = 0;
  unsigned afterStore = 0;
};

Pace paceIn(const std::string& folder) {
  Pace pace;
  FILE* const file = ::fopen((folder + "/pace").c_str(), "r");
  if (file == nullptr) return pace;
  const int found =
      ::fscanf(file, "%u %u %u", &pace.afterRead, &pace.beforeStore, &pace.afterStore);
  ::fclose(file);
  return found == 3 ? pace : Pace();
}

}  // namespace

int main(int argc, char** argv) {
  const char* const stream = ::getenv("KORVEX_STREAM");
  if (argc != 2 || stream == nullptr) return 2;
  const std::string folder = argv[1];
  const Pace pace = paceIn(folder);
  const std::string name = folder + "/" + stream;
  const std::string partial = name + ".partial";
  FILE* const file = ::fopen(partial.c_str(), "w");
  if (file == nullptr) return 3;
  char bytes[65536];
  ssize_t size = 0;
  while ((size = ::read(STDIN_FILENO, bytes, sizeof bytes)) > 0) {
    const auto expected = static_cast<size_t>(size);
    if (::fwrite(bytes, 1, expected, file) != expected || ::fflush(file) != 0) return 4;
    ::usleep(pace.afterRead);
  }
  if (size < 0 || ::fclose(file) != 0) return 5;
  ::usleep(pace.beforeStore);
  if (::rename(partial.c_str(), name.c_str()) != 0) return 6;
  ::usleep(pace.afterStore);
  return 0;
}
