// SPDX-License-Identifier: Apache-2.0
// The causal depthwise convolution over four taps, then SiLU.
#pragma once

#include <cstddef>

#include "kernels/simd/gates_inl.h"

namespace qwen35 {
namespace {

template <class V>
void convStep(const float* w, size_t stride, float* window, const float* x, float* out,
              size_t channels) {
  // The sums go first, in a loop of their own: the exponentials' loop then has no strides.
  constexpr size_t kBlock = 128;
  float sums[kBlock];
  for (size_t first = 0; first < channels; first += kBlock) {
    const size_t count = channels - first < kBlock ? channels - first : kBlock;
    for (size_t c = 0; c < count; ++c) {
      const float* taps = w + (first + c) * stride;
      float* s = window + 3 * (first + c);
      const float input = x[first + c];
      float y = 0;
      y += taps[0] * s[0];
      y += taps[1] * s[1];
      y += taps[2] * s[2];
      y += taps[3] * input;
      sums[c] = y;
      s[0] = s[1];
      s[1] = s[2];
      s[2] = input;
    }
    for (size_t c = 0; c < count; ++c) out[first + c] = gated(sums[c], sums[c]);
  }
}

}  // namespace
}  // namespace qwen35
