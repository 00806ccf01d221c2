// SPDX-License-Identifier: Apache-2.0
// How likely a model took its tokens to be.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace zem {

struct TokenLogProbability {
  uint32_t id = 0;
  double logProbability = 0.0;  // natural logarithm; negative infinity for a probability of 0
};

struct LogProbabilities {
  double chosen = 0.0;                         // of the id asked for
  std::vector<TokenLogProbability> likeliest;  // likeliest first, equal ones by id
};

// Logarithms of the softmax of `logits`, as the model gave them: before penalties, bias and
// temperature, over all ids. The sum runs from id 0 upward in double; the result is the same on
// every machine. `likeliest` has `count` ids, or all when there are fewer. An id without a
// logit has the probability 0. Infinite logits share all probability; NaN counts as
// negative infinity, and when no logit is above that, every probability is 0.
LogProbabilities logProbabilities(std::span<const float> logits, uint32_t chosen, size_t count);

}  // namespace zem
