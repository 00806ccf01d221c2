// SPDX-License-Identifier: Apache-2.0
// y = W x for Q6_K rows, two rows a workgroup of 64.
//
// 16 invocations share a block and four blocks of both rows are read at once, each
// invocation taking one part of them (see q6k_block.glsl). The 16 scales of each block,
// times its d, are spread through shared memory first: every invocation needs four of
// them, at places that differ from its own bytes.
//
// The including shader sets kLocal = 64 and kAtOnce = 4, declares the buffers `x` (vec4)
// and `y`, sScale and sRed, and includes gemv_push.glsl, two_row_sums.glsl and what
// q6k_block.glsl needs.

#include "gemv_tokens.glsl"
#include "q6k_block.glsl"

const uint kPerBlock = kLocal / kAtOnce;  // invocations a block

float partProduct(uint block, uint part, vec4 xs[4], uint slot, uint row) {
  const uint s = firstScale(part);
  return dot(partDots(block, part, xs),
             vec4(sScale[s][slot][row], sScale[s + 2u][slot][row], sScale[s + 4u][slot][row],
                  sScale[s + 6u][slot][row]));
}

void main() {
  const uint first = 2u * (gl_WorkGroupID.y * gl_NumWorkGroups.x + gl_WorkGroupID.x);
  const uint second = first + 1u < n ? first + 1u : first;
  const uint part = gl_LocalInvocationID.x % kPerBlock;
  const uint slot = gl_LocalInvocationID.x / kPerBlock;
  const uint blocks = first < n ? blocksPerCol : 0u;

  vec2 sums = vec2(0.0);
  for (uint b = slot; b - slot < blocks; b += kAtOnce) {
    const bool reads = b < blocks;
    const uint block0 = first * colBytes + b * kBlockBytes;
    const uint block1 = second * colBytes + b * kBlockBytes;
    barrier();
    if (reads) {
      sScale[part][slot][0] = signedByteAt(block0 + kScales + part) * halfAt(block0 + kSuperScale);
      sScale[part][slot][1] = signedByteAt(block1 + kScales + part) * halfAt(block1 + kSuperScale);
    }
    barrier();
    if (reads) {
      // In vectors of four.
      const uint at = firstOfX() / 4u + 64u * b + 32u * (part >> 3) + (part & 7u);
      const vec4 xs[4] = {x[at], x[at + 8u], x[at + 16u], x[at + 24u]};
      sums.x += partProduct(block0, part, xs, slot, 0u);
      sums.y += partProduct(block1, part, xs, slot, 1u);
    }
  }

  const float sum = twoRowSums(sums);
  const uint row = gl_LocalInvocationID.x == 32u ? first : first + 1u;
  if (gl_LocalInvocationID.x % 32u == 0u && row < n) storeRow(row, sum);
}
