// An engine as they mostly are: it takes the end of its input for the end of a whole stream.
//
//     korvex_recording_engine FOLDER
//
// Stores its input as FOLDER/STREAM, under another name until then.

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

int main(int argc, char** argv) {
  const char* const stream = ::getenv("KORVEX_STREAM");
  if (argc != 2 || stream == nullptr) return 2;
  const std::string name = std::string(argv[1]) + "/" + stream;
  const std::string partial = name + ".partial";
  FILE* const file = ::fopen(partial.c_str(), "w");
  if (file == nullptr) return 3;
  char bytes[65536];
  ssize_t size = 0;
  while ((size = ::read(STDIN_FILENO, bytes, sizeof bytes)) > 0) {
    const auto expected = static_cast<size_t>(size);
    if (::fwrite(bytes, 1, expected, file) != expected || ::fflush(file) != 0) return 4;
  }
  if (size < 0 || ::fclose(file) != 0) return 5;
  return ::rename(partial.c_str(), name.c_str()) == 0 ? 0 : 6;
}
