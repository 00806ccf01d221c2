// SPDX-License-Identifier: Apache-2.0
// A source of its own: where a compiler sees the bodies of these operators beside
// their uses, it takes free() for a mistake.
#include "mutation/largest_request.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>

#include "support/sanitizers.h"

namespace {

std::atomic<size_t> largest{0};

}  // namespace

size_t zemtest::largestRequest() { return largest; }

#if ZEM_TEST_ADDRESS_SANITIZER
// GCC's sanitizer is a library and sees what a program shows.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
  return "max_allocation_size_mb=2048";
}
#else
void* operator new(size_t bytes) {
  size_t before = largest;
  while (bytes > before && !largest.compare_exchange_weak(before, bytes)) {
  }
  void* block =
      bytes <= zemtest::kLargestAllocation ? std::malloc(std::max<size_t>(bytes, 1)) : nullptr;
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
void* operator new[](size_t bytes) { return operator new(bytes); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, size_t /*bytes*/) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete[](void* block, size_t /*bytes*/) noexcept { std::free(block); }
#endif
