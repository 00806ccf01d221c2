// SPDX-License-Identifier: Apache-2.0
// The softmax of attention scores, up to four heads side by side.
#pragma once

#include <cstddef>

#include "kernels/kernel_table.h"
#include "kiv/math/exact_math_inl.h"

namespace qwen35 {
namespace {

// kHeads scores a slot: the heads' sums advance side by side.
template <size_t kHeads>
void softmaxOf(float* scores, size_t slots, float* max, float* sum) {
  float largest[kHeads];
  float total[kHeads];
  for (size_t h = 0; h < kHeads; ++h) {
    largest[h] = -1e30F;
    total[h] = 0;
  }
  for (size_t s = 0; s < slots; ++s) {
    for (size_t h = 0; h < kHeads; ++h) {
      const float score = scores[s * kHeads + h];
      largest[h] = score > largest[h] ? score : largest[h];
    }
  }
  // In runs that stay in the cache between the exponentials and their sum.
  constexpr size_t kRun = 256;
  for (size_t first = 0; first < slots; first += kRun) {
    const size_t count = slots - first < kRun ? slots - first : kRun;
    float* run = scores + first * kHeads;
    for (size_t s = 0; s < count; ++s) {
      for (size_t h = 0; h < kHeads; ++h) {
        run[s * kHeads + h] = kiv::math::inl::expF32(run[s * kHeads + h] - largest[h]);
      }
    }
    for (size_t s = 0; s < count; ++s) {
      for (size_t h = 0; h < kHeads; ++h) total[h] += run[s * kHeads + h];
    }
  }
  for (size_t h = 0; h < kHeads; ++h) {
    max[h] = largest[h];
    sum[h] = total[h];
    total[h] = 1.0F / total[h];
  }
  for (size_t s = 0; s < slots; ++s) {
    for (size_t h = 0; h < kHeads; ++h) scores[s * kHeads + h] *= total[h];
  }
}

template <class V>
void softmax(float* scores, size_t slots, size_t heads, float* max, float* sum) {
  static_assert(kSoftmaxHeads == 4);
  switch (heads) {
    case 1:
      return softmaxOf<1>(scores, slots, max, sum);
    case 2:
      return softmaxOf<2>(scores, slots, max, sum);
    case 3:
      return softmaxOf<3>(scores, slots, max, sum);
    default:
      return softmaxOf<4>(scores, slots, max, sum);
  }
}

}  // namespace
}  // namespace qwen35
