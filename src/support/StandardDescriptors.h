#ifndef KORVEX_SUPPORT_STANDARD_DESCRIPTORS_H
#define KORVEX_SUPPORT_STANDARD_DESCRIPTORS_H

#include <fcntl.h>
#include <unistd.h>

namespace korvex {

/// For the first line of a program. A closed standard descriptor would be given to the next file
/// that is opened, a queue for example, and messages for people would be written into that. What
/// takes its place can neither be read nor, for input, written.
inline void occupyStandardDescriptors() {
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
    if (::fcntl(descriptor, F_GETFD) != -1) continue;
    static_cast<void>(::open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDWR));
  }
}

}  // namespace korvex

#endif
