// SPDX-License-Identifier: Apache-2.0
#include "kernels/packing.h"

namespace qwen35 {

void packTokens(const float* x, size_t stride, size_t tokens, size_t cols, size_t groupTokens,
                size_t begin, size_t end, float* packed) {
  for (size_t first = 0; first < tokens; first += groupTokens) {
    const size_t count = tokens - first < groupTokens ? tokens - first : groupTokens;
    float* group = packed + first * cols;
    for (size_t t = 0; t < count; ++t) {
      const float* token = x + (first + t) * stride;
      for (size_t c = begin; c < end; ++c) group[c * count + t] = token[c];
    }
  }
}

}  // namespace qwen35
