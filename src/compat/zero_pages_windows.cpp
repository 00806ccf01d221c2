// SPDX-License-Identifier: Apache-2.0
#include <windows.h>

#include <array>
#include <cstring>

#include "compat/zero_pages.h"

namespace compat {
namespace {

constexpr size_t kBatch = 512;  // addresses asked for in one call

}  // namespace

// The system lists the pages of a sparse block that were written to, so that clearing it need
// not touch the others. Giving the pages back and asking for new ones would clear them too, but
// the second call may fail. Large pages need a privilege that few users have.
void* allocateZeroPages(size_t bytes, PageUse use) {
  if (bytes == 0) return nullptr;
  const DWORD watch = use == PageUse::Sparse ? MEM_WRITE_WATCH : 0;
  return VirtualAlloc(nullptr, bytes, MEM_RESERVE | MEM_COMMIT | watch, PAGE_READWRITE);
}

void freeZeroPages(void* block, size_t /*bytes*/) {
  if (block != nullptr) VirtualFree(block, 0, MEM_RELEASE);
}

void clearZeroPages(void* block, size_t bytes) {
  if (block == nullptr) return;
  std::array<void*, kBatch> pages;
  char* from = static_cast<char*>(block);
  char* const end = from + bytes;
  while (from < end) {
    ULONG_PTR count = pages.size();
    DWORD pageBytes = 0;
    const auto left = static_cast<SIZE_T>(end - from);
    if (GetWriteWatch(0, from, left, pages.data(), &count, &pageBytes) != 0) {
      std::memset(block, 0, bytes);  // the system does not know which pages were written
      return;
    }
    if (count == 0) break;
    // In the order of their addresses.
    for (size_t i = 0; i < count; ++i) std::memset(pages[i], 0, pageBytes);
    from = static_cast<char*>(pages[count - 1]) + pageBytes;
  }
  ResetWriteWatch(block, bytes);
}

}  // namespace compat
