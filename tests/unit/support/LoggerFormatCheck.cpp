// Compiled by the tests, never run: the compiler must see a caller's mistake, and no other.
#include "korvex/Logger.h"

void write(korvex::server::Logger& logger) {
  logger.log(korvex::server::LOGLEVEL_INFO, "f", 1, "%d of %s", 2, "three");
  logger.logTrace("f", "%d of %s", 2, "three");
#if defined(WRONG_LOG)
  logger.log(korvex::server::LOGLEVEL_INFO, "f", 1, "%d", "two");
#elif defined(WRONG_LOG_TRACE)
  logger.logTrace("f", "%d", "two");
#endif
}
