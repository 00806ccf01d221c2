// SPDX-License-Identifier: Apache-2.0
// The choice of the next token.
#pragma once

#include <cstddef>
#include <random>

namespace qwen35rt {

// The index of the largest of `n` logits, the lowest among equals; 0 for n < 2.
int argmax(const float* logits, size_t n);

// Greedy for temperature <= 0 or topK == 1, without touching `rng`; otherwise
// draws from the softmax of logits / temperature, cut to topK (when 1 to n) and
// by topP (when strictly between 0 and 1), and takes exactly two outputs of
// `rng`. The topP cut sums unnormalised weights, the first of which is 1, and
// therefore keeps exactly one token. Equal values rank by id, NaN behind
// everything; a NaN that survives the cuts makes every weight's sum NaN, and the
// last candidate left is taken. 0 for n = 0.
int sampleNext(const float* logits, size_t n, float temperature, int topK, float topP,
               std::mt19937& rng);

}  // namespace qwen35rt
