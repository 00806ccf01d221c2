// SPDX-License-Identifier: Apache-2.0
// The plain way through a few blocks of several rows, for the blocks that the vector code leaves
// to it: those with an infinite or NaN scale.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qwen35 {

// A block decoder of kiv/dequant.h.
using WidenBlocks = void (*)(const void* blocks, float* out, uint64_t n);

// sums[r] += the dot product of row r's next `cols` <= 256 columns, at rows[r], with x: from
// column 0 upward, after `widen` has decoded them.
void addWidenedRows(WidenBlocks widen, const uint8_t* const* rows, size_t count, const float* x,
                    size_t cols, float* sums);

}  // namespace qwen35
