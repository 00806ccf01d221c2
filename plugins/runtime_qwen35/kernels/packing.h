// SPDX-License-Identifier: Apache-2.0
// The vectors of a batch as the kernels read them.
#pragma once

#include <cstddef>

namespace qwen35 {

// Vectors are packed in groups of `groupTokens` tokens, one group after the other; the last group
// may be smaller. A group goes column by column, the tokens of a column side by side. So group g
// of vectors of `cols` floats starts at packed + g * groupTokens * cols.
//
// Puts columns [begin, end) of `tokens` vectors, which lie `stride` floats apart at x, into their
// places in `packed` (tokens * cols floats).
void packTokens(const float* x, size_t stride, size_t tokens, size_t cols, size_t groupTokens,
                size_t begin, size_t end, float* packed);

}  // namespace qwen35
