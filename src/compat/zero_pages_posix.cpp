#include <sys/mman.h>

#include <cstring>

#include "compat/zero_pages.h"

namespace compat {

void* allocateZeroPages(size_t bytes) {
  if (bytes == 0) return nullptr;
  void* block = mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  return block == MAP_FAILED ? nullptr : block;
}

void freeZeroPages(void* block, size_t bytes) {
  if (block != nullptr) munmap(block, bytes);
}

void clearZeroPages(void* block, size_t bytes) {
  if (block == nullptr) return;
  // Dropping private anonymous pages makes the next touch find zeros again.
  if (madvise(block, bytes, MADV_DONTNEED) != 0) std::memset(block, 0, bytes);
}

}  // namespace compat
