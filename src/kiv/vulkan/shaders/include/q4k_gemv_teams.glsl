// SPDX-License-Identifier: Apache-2.0
// y = W x for Q4_K rows, one row a team of kLanes neighbouring invocations: the
// kLocal / kLanes teams of a workgroup share x, kBlocks blocks of it at a time in sX,
// and a team reduces its sums among itself, so that no invocation waits for another
// row's. What q4k_codes.glsl, workgroup_sum.glsl and x_staged.glsl need is set before.

#include "grid.glsl"
#include "workgroup_sum.glsl"
#include "q4k_codes.glsl"

const uint kBlockWords = kQ4KWords;
#include "gemv_rows.glsl"

const uint kBlocks = 16u;  // blocks of x in sX

void main() {
  const uint lane = gl_LocalInvocationID.x % kLanes;
  const uint row = workgroupIndex() * (kLocal / kLanes) + gl_LocalInvocationID.x / kLanes;

  float sum = 0.0;
  for (uint first = 0u; first < rowBlocks(); first += kBlocks) {
    const uint count = min(kBlocks, rowBlocks() - first);
    stageX(256u * first, 256u * count);
    barrier();
    if (row < n) {
      for (uint b = 0u; b < count; ++b) {
        sum += laneProduct(blockWord(row, first + b), lane, inputsOf(64u * b, lane));
      }
    }
    barrier();
  }

  sum = teamSum(sum, kLanes);
  if (lane == 0u && row < n) y[row] = sum;
}
