#ifndef KORVEX_COMMON_STANDARD_DESCRIPTORS_H
#define KORVEX_COMMON_STANDARD_DESCRIPTORS_H

#include <fcntl.h>
#include <unistd.h>

namespace korvex::common {

/// Call it in main() before anything opens a file. A closed standard descriptor would be reused for
/// the next file opened, a queue for example, and log messages would be written into it. Its
/// replacement drops those messages; reading it as input fails, and so does writing requested
/// output.
inline void occupyStandardDescriptors() {
  constexpr int kAccess[] = {O_WRONLY, O_RDONLY, O_RDWR};
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
    if (::fcntl(descriptor, F_GETFD) != -1) continue;
    static_cast<void>(::open("/dev/null", kAccess[descriptor]));
  }
}

}  // namespace korvex::common

#endif
