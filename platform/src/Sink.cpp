#include "Sink.h"

#include <cstdio>

namespace qmx {

void write(const Line& line) { std::fprintf(stderr, "%s\n", line.text); }

}  // namespace qmx
