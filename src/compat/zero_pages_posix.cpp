// SPDX-License-Identifier: Apache-2.0
#include <sys/mman.h>

#include <cstdint>
#include <cstring>
#include <limits>

#include "compat/zero_pages.h"

namespace compat {
namespace {

// The page sizes of x86-64: ordinary pages, and those of the next level of the page table.
constexpr size_t kPage = 4096;
constexpr size_t kHugePage = size_t{2} << 20;
// Up to so many bytes, writing zeros costs less than dropping the pages and taking new ones.
constexpr size_t kFewBytes = size_t{256} << 10;

void* map(size_t bytes) {
  void* block = mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  return block == MAP_FAILED ? nullptr : block;
}

// `bytes` from an address that a huge page can have. The system gives huge pages if it hands
// them out on request, else ordinary ones.
void* mapHuge(size_t bytes) {
  if (bytes > std::numeric_limits<size_t>::max() - kHugePage) return nullptr;
  auto* whole = static_cast<char*>(map(bytes + kHugePage));
  if (whole == nullptr) return nullptr;
  const size_t before = (kHugePage - reinterpret_cast<uintptr_t>(whole) % kHugePage) % kHugePage;
  char* block = whole + before;
  const size_t end = (bytes + kPage - 1) / kPage * kPage;
  if (before > 0) munmap(whole, before);
  munmap(block + end, kHugePage - before);
  madvise(block, bytes, MADV_HUGEPAGE);
  return block;
}

}  // namespace

void* allocateZeroPages(size_t bytes, PageUse use) {
  if (bytes == 0) return nullptr;
  return use == PageUse::Dense && bytes >= kHugePage ? mapHuge(bytes) : map(bytes);
}

void freeZeroPages(void* block, size_t bytes) {
  if (block != nullptr) munmap(block, bytes);
}

void clearZeroPages(void* block, size_t bytes) {
  if (block == nullptr) return;
  // Dropping private anonymous pages makes the next touch find zeros again.
  if (bytes <= kFewBytes || madvise(block, bytes, MADV_DONTNEED) != 0) {
    std::memset(block, 0, bytes);
  }
}

}  // namespace compat
