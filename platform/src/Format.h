#ifndef QMX_FORMAT_H
#define QMX_FORMAT_H

namespace qmx {

/// Whether the format has a "%n" in any spelling. It stores through a pointer argument, which a
/// composed line ("100%name") does not have, and fortified builds abort the process on it.
bool storesThroughArgument(const char* format) noexcept;

}  // namespace qmx

#endif
