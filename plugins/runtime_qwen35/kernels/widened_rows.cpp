// SPDX-License-Identifier: Apache-2.0
#include "kernels/widened_rows.h"

namespace qwen35 {

void addWidenedRows(WidenBlocks widen, const uint8_t* const* rows, size_t count, const float* x,
                    size_t cols, float* sums) {
  float row[256];
  for (size_t r = 0; r < count; ++r) {
    widen(rows[r], row, cols);
    for (size_t c = 0; c < cols; ++c) sums[r] += row[c] * x[c];
  }
}

}  // namespace qwen35
