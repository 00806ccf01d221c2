// SPDX-License-Identifier: Apache-2.0
// Logits as probabilities.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "engine/log_probabilities.h"

namespace zem {

// Logarithms of the softmax of `logits`, as the model gave them: before penalties, bias and
// temperature, over all ids. The sum runs from id 0 upward in double; the result is the same on
// every machine. `likeliest` has `count` ids, or all when there are fewer. An id without a
// logit has the probability 0. Infinite logits share all probability; NaN counts as
// negative infinity, and when no logit is above that, every probability is 0.
LogProbabilities logProbabilities(std::span<const float> logits, uint32_t chosen, size_t count);

}  // namespace zem
