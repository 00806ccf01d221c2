// A vector of floats that is zero when it is created without touching its
// memory: the key/value caches are sized for 8192 positions (512 MB in all) and
// mostly never used.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <limits>
#include <new>
#include <vector>

namespace qwen35 {

// Hands out calloc's pages, which the system supplies as zeros on first touch,
// and leaves value-initialised elements alone because they are zero already.
// That holds only for memory fresh from allocate(): size such a vector once,
// and never shrink and grow it.
template <typename T>
struct ZeroPagesAllocator {
  using value_type = T;

  ZeroPagesAllocator() = default;
  template <typename U>
  ZeroPagesAllocator(const ZeroPagesAllocator<U>& /*other*/) noexcept {}

  T* allocate(size_t n) {
    if (n > std::numeric_limits<size_t>::max() / sizeof(T)) throw std::bad_array_new_length();
    void* p = std::calloc(n, sizeof(T));
    if (p == nullptr) throw std::bad_alloc();
    return static_cast<T*>(p);
  }
  void deallocate(T* p, size_t /*n*/) noexcept { std::free(p); }

  template <typename U>
  void construct(U* /*p*/) noexcept {}
  template <typename U, typename... Args>
  void construct(U* p, Args&&... args) {
    ::new (static_cast<void*>(p)) U(static_cast<Args&&>(args)...);
  }

  bool operator==(const ZeroPagesAllocator& /*other*/) const { return true; }
};

using ZeroedFloats = std::vector<float, ZeroPagesAllocator<float>>;

}  // namespace qwen35
