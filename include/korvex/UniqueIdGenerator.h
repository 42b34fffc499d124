#ifndef KORVEX_UNIQUE_ID_GENERATOR_H
#define KORVEX_UNIQUE_ID_GENERATOR_H

#include <cstdint>
#include <pthread.h>
#include <string>

#include "korvex/Export.h"

namespace korvex {

/// Hands out identifiers that are unique within one process: a prefix, "_" and a running number.
///
/// All components of a process share the generator that getInstance() returns, even across shared
/// libraries, and all prefixes share its one sequence. Identifiers say nothing about the process or
/// the time: two processes get the same ones. Once loaded, the library stays in the process:
/// dlclose() does not restart the sequence.
///
/// Every operation may be called from any thread at any time, until the process starts to destroy
/// its static objects.
class KORVEX_EXPORT UniqueIdGenerator {
 public:
  /// The process's generator, created on the first call. Never null; do not delete it.
  ///
  /// A forked child may use it, even if other threads of its parent were using it at that moment;
  /// the child continues the parent's count. Other generators give no such guarantee.
  static UniqueIdGenerator* getInstance();

  /// The prefix unchanged, "_" and the next number in plain decimal digits, starting at 0. After
  /// 4294967295 comes 0 again, without a warning. Throws if memory runs out; the next call then
  /// returns either the same number or the one after it, never one that was returned before.
  std::string generateId(const std::string& prefix);

  /// A separate sequence, starting at 0; its identifiers are unique only among themselves.
  UniqueIdGenerator();

  ~UniqueIdGenerator();
  UniqueIdGenerator(const UniqueIdGenerator&) = delete;
  UniqueIdGenerator& operator=(const UniqueIdGenerator&) = delete;

 private:
  class KORVEX_NO_EXPORT ForkGuard;

  // The order of the members is part of the binary interface.
  pthread_mutex_t mutex_;
  std::uint32_t counter_;
};

}  // namespace korvex

#endif
