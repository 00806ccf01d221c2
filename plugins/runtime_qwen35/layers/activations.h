// SPDX-License-Identifier: Apache-2.0
// The values that a run of tokens has between two stages of a layer.
#pragma once

#include <cstddef>
#include <vector>

namespace qwen35 {

using Floats = std::vector<float>;

// What a product gives a run: one row of `width` floats a token.
struct Activations {
  size_t width;
  Floats values;

  float* token(size_t t) { return values.data() + t * width; }
  const float* token(size_t t) const { return values.data() + t * width; }
};

}  // namespace qwen35
