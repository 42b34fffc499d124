#ifndef BENCH_COMPARE_TRANSPORTS_H
#define BENCH_COMPARE_TRANSPORTS_H

#include <memory>
#include <string>
#include <vector>

#include "Transport.h"

namespace bench {

using TransportFactory = std::unique_ptr<Transport> (*)(const Settings& settings);

std::unique_ptr<Transport> makeKorvex(const Settings& settings);
std::unique_ptr<Transport> makePolledQueue(const Settings& settings);
std::unique_ptr<Transport> makeFetchedQueue(const Settings& settings);
std::unique_ptr<Transport> makeManualQueue(const Settings& settings);
std::unique_ptr<Transport> makePosixQueue(const Settings& settings);
std::unique_ptr<Transport> makePipe(const Settings& settings);
std::unique_ptr<Transport> makeUnixSocket(const Settings& settings);
std::unique_ptr<Transport> makeZeroMq(const Settings& settings);
std::unique_ptr<Transport> makeNng(const Settings& settings);
std::unique_ptr<Transport> makeIceoryx(const Settings& settings);
std::unique_ptr<Transport> makePlainCopy(const Settings& settings);

/// A transport as the command line names it.
struct NamedTransport {
  std::string name;
  TransportFactory make;  ///< null when its package was absent at build time
};

/// All transports, also those that this build lacks.
const std::vector<NamedTransport>& transports();

}  // namespace bench

#endif
