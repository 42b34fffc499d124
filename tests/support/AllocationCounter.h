#ifndef TESTS_SUPPORT_ALLOCATION_COUNTER_H
#define TESTS_SUPPORT_ALLOCATION_COUNTER_H

#include <cstddef>

/// Counts what the calling thread takes from operator new while the counter lives.
///
/// A program that is built with AllocationCounter.cpp replaces all global operators new and delete.
/// The dynamic linker prefers the program's definitions, so allocations made inside shared
/// libraries count too. Direct calls of malloc are not seen. Fresh memory is filled with 0xa5, so
/// that no code finds zeros there by luck.
///
/// Under the address and thread sanitizers the replaced operators still come first; blocks are the
/// sanitizer's malloc blocks, so overruns and leaks are found, but new[] freed by delete is not.
/// The sanitizers' options make impossible sizes return null, so that they throw std::bad_alloc as
/// usual.
class AllocationCounter {
 public:
  AllocationCounter() noexcept;

  /// Blocks taken since construction, whether freed again or not.
  std::size_t taken() const noexcept;

  /// Blocks taken minus blocks freed since construction. 0 if nothing leaked.
  std::ptrdiff_t kept() const noexcept;

 private:
  std::size_t takenBefore_;
  std::size_t freedBefore_;
};

/// Makes allocations of the calling thread fail while it lives: the one with this number (1 is the
/// next), and with `Lasting` all later ones too.
class AllocationFailure {
 public:
  enum class Kind { Single, Lasting };

  AllocationFailure(std::size_t number, Kind kind) noexcept;
  ~AllocationFailure();
  AllocationFailure(const AllocationFailure&) = delete;
  AllocationFailure& operator=(const AllocationFailure&) = delete;

  /// Whether any has failed.
  bool happened() const noexcept;
};

#endif
