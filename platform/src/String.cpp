#include "qmx/string.h"

#include <cstring>

char* qmxstrcpy(char* destination, const char* source, std::size_t capacity) {
  if (capacity == 0) return destination;
  const std::size_t length = ::strnlen(source, capacity - 1);
  std::memcpy(destination, source, length);
  destination[length] = '\0';
  return destination;
}
