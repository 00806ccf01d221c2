// SPDX-License-Identifier: Apache-2.0
// Loops over a whole vocabulary that choose a token. All but the search for the extent are left to
// the compiler's vectors.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "kernels/kernel_table.h"
#include "kernels/simd/lanes_inl.h"
#include "kiv/math/exact_math_inl.h"

namespace qwen35 {
namespace {

inline constexpr float kInfinity = __builtin_inff();

// Vectors that compilers compare and select lane by lane.
template <size_t kBytes>
struct Register {
  typedef float Floats __attribute__((vector_size(kBytes)));  // NOLINT(modernize-use-using)
  typedef int32_t Ints __attribute__((vector_size(kBytes)));  // NOLINT(modernize-use-using)
};

struct Bounds {
  float largest = -kInfinity;
  float smallest = kInfinity;
  bool hasNan = false;
};

ZEM_INLINE void include(Bounds& bounds, float value) {
  bounds.largest = value > bounds.largest ? value : bounds.largest;
  bounds.smallest = value < bounds.smallest ? value : bounds.smallest;
  bounds.hasNan |= value != value;
}

// Compilers keep the order of a minimum's operands, because of NaN, and so make vectors only of
// lanes that are written out. Four vectors at a time, because each waits for its own last minimum.
template <class V>
ZEM_INLINE Bounds boundsOf(const float* x, size_t n, float scale) {
  using Floats = typename Register<4 * V::kLanes>::Floats;
  using Ints = typename Register<4 * V::kLanes>::Ints;
  constexpr size_t kVectors = 4;
  Floats largest[kVectors];
  Floats smallest[kVectors];
  Ints nans[kVectors];
  for (size_t v = 0; v < kVectors; ++v) {
    largest[v] = Floats{} - kInfinity;
    smallest[v] = Floats{} + kInfinity;
    nans[v] = Ints{};
  }
  size_t i = 0;
  for (; i + kVectors * V::kLanes <= n; i += kVectors * V::kLanes) {
    for (size_t v = 0; v < kVectors; ++v) {
      Floats values;
      std::memcpy(&values, x + i + v * V::kLanes, sizeof(values));
      values *= scale;
      largest[v] = values > largest[v] ? values : largest[v];
      smallest[v] = values < smallest[v] ? values : smallest[v];
      nans[v] |= values != values;  // NOLINT(misc-redundant-expression): true of NaN
    }
  }
  for (size_t v = 1; v < kVectors; ++v) {
    largest[0] = largest[v] > largest[0] ? largest[v] : largest[0];
    smallest[0] = smallest[v] < smallest[0] ? smallest[v] : smallest[0];
    nans[0] |= nans[v];
  }
  Bounds bounds;
  for (size_t lane = 0; lane < V::kLanes; ++lane) {
    const float high = largest[0][lane];
    const float low = smallest[0][lane];
    bounds.largest = high > bounds.largest ? high : bounds.largest;
    bounds.smallest = low < bounds.smallest ? low : bounds.smallest;
    bounds.hasNan |= nans[0][lane] != 0;
  }
  for (; i < n; ++i) include(bounds, x[i] * scale);
  return bounds;
}

// Block by block, so that only the block with the largest number is searched for it.
template <class V>
Extent extent(const float* x, size_t n, float scale) {
  constexpr size_t kBlock = 1024;
  Extent all = {-kInfinity, kInfinity, 0, false};
  size_t block = n;
  for (size_t at = 0; at < n; at += kBlock) {
    const size_t count = n - at < kBlock ? n - at : kBlock;
    const Bounds bounds = boundsOf<V>(x + at, count, scale);
    if (bounds.largest > all.largest) {
      all.largest = bounds.largest;
      block = at;
    }
    all.smallest = bounds.smallest < all.smallest ? bounds.smallest : all.smallest;
    all.hasNan |= bounds.hasNan;
  }
  if (block == n) return all;
  all.firstLargest = block;
  while (!(x[all.firstLargest] * scale == all.largest)) ++all.firstLargest;
  return all;
}

template <class V>
void buckets(const float* x, size_t n, float scale, float top, float resolution, uint32_t last,
             uint32_t* bucketOf) {
  const auto end = static_cast<float>(last);
  for (size_t i = 0; i < n; ++i) {
    const float distance = (top - x[i] * scale) * resolution;
    bucketOf[i] = static_cast<uint32_t>(static_cast<int32_t>(distance < end ? distance : end));
  }
}

template <class V>
void weights(const float* x, size_t n, float scale, float max, double* weightOf) {
  const auto top = static_cast<double>(max);
  for (size_t i = 0; i < n; ++i) {
    weightOf[i] = kiv::math::inl::expF64OfNegative(static_cast<double>(x[i] * scale) - top);
  }
}

}  // namespace
}  // namespace qwen35
