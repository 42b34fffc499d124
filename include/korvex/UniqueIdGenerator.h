#ifndef KORVEX_UNIQUE_ID_GENERATOR_H
#define KORVEX_UNIQUE_ID_GENERATOR_H

#include <pthread.h>

#include <cstdint>
#include <string>

#include "korvex/Export.h"

namespace korvex {

/// Hands out identifiers that are unique within one process: a prefix, "_" and a running number.
///
/// All components of a process draw from the one generator that getInstance() gives, even when they
/// live in different shared libraries, and all prefixes share its one sequence. Identifiers say
/// nothing about the process or the time: two processes draw the same ones. Once loaded, the
/// library stays in the process: closing it does not start the sequence again.
///
/// Every operation may be called from any thread at any time until the process ends. Nothing guards
/// callers that are still at work while the process's static objects are being destroyed.
class KORVEX_EXPORT UniqueIdGenerator {
 public:
  /// The process's generator, made on the first call. Never null; do not delete it.
  ///
  /// A forked child may draw from it, even when other threads of its parent were drawing at that
  /// moment; the child counts on from where the parent was. Other generators have no such care.
  static UniqueIdGenerator* getInstance();

  /// The prefix as it is, "_" and the next number in plain decimal digits, starting with 0. After
  /// 4294967295 comes 0 again, without a warning. When memory runs out it throws; the next call
  /// gives either the same number or the one after it, never one that was given before.
  std::string generateId(const std::string& prefix);

  /// A sequence apart from the process's, from 0 on; what it gives is unique among its own only.
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
