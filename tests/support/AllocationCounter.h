#ifndef TESTS_UNIT_ALLOCATION_COUNTER_H
#define TESTS_UNIT_ALLOCATION_COUNTER_H

#include <cstddef>

/// Counts what the calling thread takes from operator new while the counter lives.
///
/// A program that is built with AllocationCounter.cpp replaces all global operators new and delete.
/// The dynamic linker prefers the program's definitions, so allocations made inside shared
/// libraries count too. What calls malloc directly is not seen. Fresh memory is filled with 0xa5,
/// so that nobody finds zeros there by luck.
///
/// Under the address and thread sanitizers the replaced operators still come first; blocks are the
/// sanitizer's malloc blocks, so overruns and leaks are found, but new[] freed by delete is not.
/// The sanitizers are told to return null for impossible sizes, so that these throw std::bad_alloc
/// as they do elsewhere.
class AllocationCounter {
 public:
  AllocationCounter() noexcept;

  /// Blocks taken since construction, whether freed again or not.
  std::size_t taken() const noexcept;

  /// Blocks taken less blocks freed since construction. 0 when nothing was leaked.
  std::ptrdiff_t kept() const noexcept;

 private:
  std::size_t takenBefore_;
  std::size_t freedBefore_;
};

/// Makes allocations of the calling thread fail while it lives: the one with this number (1 is the
/// next), and with `Lasting` all after it too.
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
