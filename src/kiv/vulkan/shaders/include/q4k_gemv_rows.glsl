// SPDX-License-Identifier: Apache-2.0
// y = W x for Q4_K rows, kRows neighbouring rows a workgroup: all its invocations
// work on the same rows, kLocal / kLanes blocks at a time, and x is read from the
// buffer once for all of them. What q4k_codes.glsl and workgroup_sum.glsl need is set
// before, as is kRows.

#include "grid.glsl"
#include "workgroup_sum.glsl"
#include "q4k_codes.glsl"

const uint kBlockWords = kQ4KWords;
#include "gemv_rows.glsl"

void main() {
  const uint firstRow = workgroupIndex() * kRows;
  const uint lane = gl_LocalInvocationID.x % kLanes;

  float sums[kRows];
  for (uint r = 0u; r < kRows; ++r) sums[r] = 0.0;
  for (uint b = gl_LocalInvocationID.x / kLanes; b < rowBlocks(); b += kLocal / kLanes) {
    const Inputs inputs = inputsOf(64u * b, lane);
    for (uint r = 0u; r < kRows; ++r) {
      const uint row = firstRow + r;
      if (row < n) sums[r] += laneProduct(blockWord(row, b), lane, inputs);
    }
  }

  for (uint r = 0u; r < kRows; ++r) {
    const float sum = workgroupSum(sums[r]);
    if (gl_LocalInvocationID.x == 0u && firstRow + r < n) y[firstRow + r] = sum;
  }
}
