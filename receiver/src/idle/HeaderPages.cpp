#include "idle/HeaderPages.h"

#include <cstddef>
#include <sys/mman.h>
#include <unistd.h>

namespace korvex::receiver {
namespace {

constexpr std::size_t kPagesPerChunk = 512;  // one page of page tables on x86-64

std::size_t pageSize() noexcept { return static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)); }

}  // namespace

HeaderPages::~HeaderPages() {
  for (void* chunk : chunks_) ::munmap(chunk, kPagesPerChunk * pageSize());
}

void* HeaderPages::take() {
  if (free_.empty()) addChunk();
  if (free_.empty()) return nullptr;
  void* const page = free_.back();
  free_.pop_back();
  return page;
}

void HeaderPages::give(void* page) noexcept {
  if (page == nullptr) return;
  unmap(page);
  free_.push_back(page);
}

/// Reserves addresses only. There is room in the lists for every page, so giving back cannot fail.
void HeaderPages::addChunk() {
  chunks_.reserve(chunks_.size() + 1);
  free_.reserve((chunks_.size() + 1) * kPagesPerChunk);
  void* const chunk = ::mmap(nullptr, kPagesPerChunk * pageSize(), PROT_NONE,
                             MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (chunk == MAP_FAILED) return;
  chunks_.push_back(chunk);
  for (std::size_t page = kPagesPerChunk; page-- > 0;) {
    free_.push_back(static_cast<char*>(chunk) + page * pageSize());
  }
}

bool HeaderPages::map(void* page, int object) noexcept {
  return page != nullptr &&
         ::mmap(page, pageSize(), PROT_READ, MAP_SHARED | MAP_FIXED, object, 0) != MAP_FAILED;
}

void HeaderPages::unmap(void* page) noexcept {
  static_cast<void>(::mmap(page, pageSize(), PROT_NONE,
                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0));
}

}  // namespace korvex::receiver
