// y = W x for Q4_K rows, one row a team of kLanes neighbouring invocations: the
// kLocal / kLanes teams of a workgroup share x, kBlocks blocks of it at a time in sX,
// and a team reduces its sums among itself, so that no invocation waits for another
// row's. What q4k_codes.glsl and x_staged.glsl need is set before. SUMS names the
// shared array of kLocal floats through which sums are reduced; it may be sX.

#include "grid.glsl"
#include "q4k_codes.glsl"

const uint kBlockWords = kQ4KWords;
#include "gemv_rows.glsl"

const uint kBlocks = 16u;  // blocks of x in sX

// The sum over the team, for its lane 0. All invocations must call it.
float teamSum(float value, uint lane) {
  const uint i = gl_LocalInvocationID.x;
  SUMS[i] = value;
  barrier();
  for (uint half_ = kLanes / 2u; half_ > 0u; half_ >>= 1) {
    if (lane < half_) SUMS[i] += SUMS[i + half_];
    barrier();
  }
  return SUMS[i];
}

void main() {
  const uint lane = gl_LocalInvocationID.x % kLanes;
  const uint row =
      workgroupIndex() * (kLocal / kLanes) + gl_LocalInvocationID.x / kLanes;

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

  sum = teamSum(sum, lane);
  if (lane == 0u && row < n) y[row] = sum;
}
