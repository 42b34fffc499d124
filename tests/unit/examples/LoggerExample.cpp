#include <korvex/Logger.h>

using korvex::server::Logger;

int main() {
  Logger logger("Reader");
  logger.log(korvex::server::LOGLEVEL_INFO, "open", 12, "fd=%d", 7);
  logger.log(korvex::server::LOGLEVEL_WARNING, "read", -1, "disk is %d%%%% full", 93);
  logger.logTrace("read", "%d bytes", 4096);  // tracing is off at first: nothing is written

  Logger("").log(korvex::server::LOGLEVEL_ERROR, "main", 1, "giving up on %s", "/data");
}
