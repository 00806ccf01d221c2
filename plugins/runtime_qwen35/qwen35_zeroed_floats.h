// SPDX-License-Identifier: Apache-2.0
/// \file
/// Floats that are zero from the start without touching their memory. The key/value
/// caches hold 8192 positions (512 MB in all), and most of that is never used. The
/// recurrent states are used whole from the first token on and zeroed at every reset:
/// that takes 0.2 ms in huge pages and 4 ms in ordinary ones, and the page faults of
/// the first token afterwards take a fifth of the time.
#pragma once

#include <cstddef>
#include <limits>
#include <new>
#include <utility>

#include "compat/zero_pages.h"

namespace qwen35 {

/// A fixed number of floats in zero pages. Not a std::vector: without an optimiser, or
/// with a sanitizer, a vector visits each of its elements when it is made and when it
/// goes, and a model's caches have 134 million.
template <compat::PageUse kUse>
class ZeroPageFloats {
 public:
  ZeroPageFloats() = default;
  /// `count` zeros. Throws std::bad_alloc.
  explicit ZeroPageFloats(size_t count) : size_(count) {
    if (count > std::numeric_limits<size_t>::max() / sizeof(float)) {
      throw std::bad_array_new_length();
    }
    data_ = static_cast<float*>(compat::allocateZeroPages(bytes(), kUse));
    if (data_ == nullptr && count > 0) throw std::bad_alloc();
  }
  ~ZeroPageFloats() { compat::freeZeroPages(data_, bytes()); }
  /// Takes the floats of `other`, which is empty afterwards.
  ZeroPageFloats(ZeroPageFloats&& other) noexcept { swap(other); }
  /// Takes the floats of `other`, which is empty afterwards, and frees its own.
  ZeroPageFloats& operator=(ZeroPageFloats&& other) noexcept {
    ZeroPageFloats(std::move(other)).swap(*this);
    return *this;
  }

  float* data() { return data_; }                               ///< the first, or null
  const float* data() const { return data_; }                   ///< the first, or null
  size_t size() const { return size_; }                         ///< floats
  bool empty() const { return size_ == 0; }                     ///< no floats
  float* begin() { return data_; }                              ///< for loops
  float* end() { return data_ + size_; }                        ///< for loops
  const float* begin() const { return data_; }                  ///< for loops
  const float* end() const { return data_ + size_; }            ///< for loops
  float& operator[](size_t i) { return data_[i]; }              ///< `i` must be below size()
  const float& operator[](size_t i) const { return data_[i]; }  ///< `i` must be below size()

  /// Zeroes all, at a cost that follows the memory that was used.
  void zero() { compat::clearZeroPages(data_, bytes()); }

 private:
  size_t bytes() const { return size_ * sizeof(float); }
  void swap(ZeroPageFloats& other) noexcept {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
  }

  float* data_ = nullptr;
  size_t size_ = 0;
};

/// Floats that cost memory only once they are written.
using ZeroedFloats = ZeroPageFloats<compat::PageUse::Sparse>;
/// Floats that are all written soon, in huge pages where the system has them.
using DenseZeroedFloats = ZeroPageFloats<compat::PageUse::Dense>;

}  // namespace qwen35
