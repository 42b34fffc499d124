#include "Transports.h"

namespace bench {

// A peer whose package was absent is still named, so that a report can say that it is missing.
const std::vector<NamedTransport>& transports() {
  static const std::vector<NamedTransport> all = {
      {"korvex", makeKorvex},
      {"queue", makePolledQueue},
      {"queue-fetched", makeFetchedQueue},
      {"queue-manual", makeManualQueue},
      {"posix-queue", makePosixQueue},
      {"pipe", makePipe},
      {"unix-socket", makeUnixSocket},
#ifdef BENCH_HAS_ZEROMQ
      {"zeromq", makeZeroMq},
#else
      {"zeromq", nullptr},
#endif
#ifdef BENCH_HAS_NNG
      {"nng", makeNng},
#else
      {"nng", nullptr},
#endif
#ifdef BENCH_HAS_ICEORYX
      {"iceoryx", makeIceoryx},
#else
      {"iceoryx", nullptr},
#endif
      {"copy", makePlainCopy},
  };
  return all;
}

}  // namespace bench
