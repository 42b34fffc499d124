#ifndef QMX_FORMAT_H
#define QMX_FORMAT_H

namespace qmx {

/// Whether the format has a "%n" in any of its spellings. Such a conversion stores through a
/// pointer that a composed line ("100%name") does not have, and checked builds of the C library end
/// the process at it.
bool storesThroughArgument(const char* format) noexcept;

}  // namespace qmx

#endif
