#include "support/AllocationCounter.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace {

constexpr int kFreshByte = 0xa5;

thread_local std::size_t takenBlocks = 0;
thread_local std::size_t freedBlocks = 0;

thread_local std::size_t allocationsBeforeFailure = 0;  // 0: none will fail
thread_local AllocationFailure::Kind failureKind{};
thread_local bool hasFailed = false;

bool mustFail() noexcept {
  if (hasFailed && failureKind == AllocationFailure::Kind::Lasting) return true;
  if (allocationsBeforeFailure == 0 || --allocationsBeforeFailure > 0) return false;
  return hasFailed = true;
}

void* take(std::size_t size, std::size_t alignment) noexcept {
  if (mustFail()) return nullptr;
  // aligned_alloc wants whole multiples; a size near the end of the address space must not wrap.
  const std::size_t rounded = (size + alignment - 1) / alignment * alignment;
  if (rounded < size) return nullptr;
  void* const block = std::aligned_alloc(alignment, rounded == 0 ? alignment : rounded);
  if (block == nullptr) return nullptr;
  std::memset(block, kFreshByte, size);
  ++takenBlocks;
  return block;
}

void* takeOrThrow(std::size_t size, std::size_t alignment) {
  if (void* const block = take(size, alignment)) return block;
  throw std::bad_alloc();
}

void give(void* block) noexcept {
  if (block == nullptr) return;
  ++freedBlocks;
  std::free(block);
}

constexpr std::size_t kUsual = __STDCPP_DEFAULT_NEW_ALIGNMENT__;

std::size_t of(std::align_val_t alignment) { return static_cast<std::size_t>(alignment); }

}  // namespace

AllocationCounter::AllocationCounter() noexcept
    : takenBefore_(takenBlocks), freedBefore_(freedBlocks) {}

std::size_t AllocationCounter::taken() const noexcept { return takenBlocks - takenBefore_; }

std::ptrdiff_t AllocationCounter::kept() const noexcept {
  return static_cast<std::ptrdiff_t>(taken()) -
         static_cast<std::ptrdiff_t>(freedBlocks - freedBefore_);
}

AllocationFailure::AllocationFailure(std::size_t number, Kind kind) noexcept {
  allocationsBeforeFailure = number;
  failureKind = kind;
}

AllocationFailure::~AllocationFailure() {
  allocationsBeforeFailure = 0;
  hasFailed = false;
}

bool AllocationFailure::happened() const noexcept { return hasFailed; }

// Asked by the sanitizers' runtimes when they start.
extern "C" {
const char* __asan_default_options();
const char* __tsan_default_options();
const char* __asan_default_options() { return "allocator_may_return_null=1"; }
const char* __tsan_default_options() { return "allocator_may_return_null=1"; }
}

using Alignment = std::align_val_t;
using Nothrow = const std::nothrow_t&;

// All of them: a sanitizer's runtime defines each separately, not one in terms of another.
void* operator new(std::size_t size) { return takeOrThrow(size, kUsual); }
void* operator new[](std::size_t size) { return takeOrThrow(size, kUsual); }
void* operator new(std::size_t size, Nothrow) noexcept { return take(size, kUsual); }
void* operator new[](std::size_t size, Nothrow) noexcept { return take(size, kUsual); }
void* operator new(std::size_t size, Alignment to) { return takeOrThrow(size, of(to)); }
void* operator new[](std::size_t size, Alignment to) { return takeOrThrow(size, of(to)); }
void* operator new(std::size_t size, Alignment to, Nothrow) noexcept { return take(size, of(to)); }
void* operator new[](std::size_t size, Alignment to, Nothrow) noexcept {
  return take(size, of(to));
}

void operator delete(void* block) noexcept { give(block); }
void operator delete[](void* block) noexcept { give(block); }
void operator delete(void* block, std::size_t) noexcept { give(block); }
void operator delete[](void* block, std::size_t) noexcept { give(block); }
void operator delete(void* block, Nothrow) noexcept { give(block); }
void operator delete[](void* block, Nothrow) noexcept { give(block); }
void operator delete(void* block, Alignment) noexcept { give(block); }
void operator delete[](void* block, Alignment) noexcept { give(block); }
void operator delete(void* block, std::size_t, Alignment) noexcept { give(block); }
void operator delete[](void* block, std::size_t, Alignment) noexcept { give(block); }
void operator delete(void* block, Alignment, Nothrow) noexcept { give(block); }
void operator delete[](void* block, Alignment, Nothrow) noexcept { give(block); }
