#include "korvex/UniqueIdGenerator.h"

// A component that is loaded at run time and draws identifiers for itself.
extern "C" __attribute__((visibility("default"))) korvex::UniqueIdGenerator* generatorOfModule() {
  return korvex::UniqueIdGenerator::getInstance();
}
