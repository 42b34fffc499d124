#ifndef KORVEX_COMMON_STANDARD_DESCRIPTORS_H
#define KORVEX_COMMON_STANDARD_DESCRIPTORS_H

#include <fcntl.h>
#include <unistd.h>

namespace korvex::common {

/// For the first line of a program. A closed standard descriptor would be given to the next file
/// that is opened, a queue for example, and messages for people would be written into that. What
/// takes its place loses those messages. Reading it as input fails, and so does writing output that
/// somebody asked for.
inline void occupyStandardDescriptors() {
  constexpr int kAccess[] = {O_WRONLY, O_RDONLY, O_RDWR};
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
    if (::fcntl(descriptor, F_GETFD) != -1) continue;
    static_cast<void>(::open("/dev/null", kAccess[descriptor]));
  }
}

}  // namespace korvex::common

#endif
