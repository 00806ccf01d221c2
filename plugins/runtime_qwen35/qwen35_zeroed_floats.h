// A vector of floats that is zero from the start without touching its memory:
// the key/value caches hold 8192 positions (512 MB in all) and are mostly never
// used.
#pragma once

#include <cstddef>
#include <limits>
#include <new>
#include <vector>

#include "compat/zero_pages.h"

namespace qwen35 {

// Allocates zero pages and leaves value-initialised elements alone, because
// they are zero already. That holds only for fresh memory: give such a vector
// its size at construction, and never shrink and grow it.
template <typename T>
struct ZeroPagesAllocator {
  using value_type = T;

  ZeroPagesAllocator() = default;
  template <typename U>
  ZeroPagesAllocator(const ZeroPagesAllocator<U>& /*other*/) noexcept {}

  T* allocate(size_t n) {
    if (n > std::numeric_limits<size_t>::max() / sizeof(T)) throw std::bad_array_new_length();
    void* block = compat::allocateZeroPages(n * sizeof(T));
    if (block == nullptr) throw std::bad_alloc();
    return static_cast<T*>(block);
  }
  void deallocate(T* block, size_t n) noexcept { compat::freeZeroPages(block, n * sizeof(T)); }

  template <typename U>
  void construct(U* /*element*/) noexcept {}
  template <typename U, typename... Args>
  void construct(U* element, Args&&... args) {
    ::new (static_cast<void*>(element)) U(static_cast<Args&&>(args)...);
  }

  bool operator==(const ZeroPagesAllocator& /*other*/) const { return true; }
};

using ZeroedFloats = std::vector<float, ZeroPagesAllocator<float>>;

// Zeroes `v` at a cost that follows the memory it has used.
inline void clearFloats(ZeroedFloats& v) {
  compat::clearZeroPages(v.data(), v.size() * sizeof(float));
}

}  // namespace qwen35
