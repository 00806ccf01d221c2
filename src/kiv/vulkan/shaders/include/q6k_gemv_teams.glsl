// SPDX-License-Identifier: Apache-2.0
// y = W x for Q6_K rows, one row a team of kTeam neighbouring invocations. 16 of a team
// share a block, kTeam / 16 blocks are read at once, and each invocation takes one part
// of a block (see q6k_block.glsl): eight neighbours read 32 bytes in a row at each of its
// three places. Every invocation loads the four scales of its part, from a cache for all but
// the first, so that none waits for another before the rows are reduced.
//
// The including shader sets kLocal = gl_WorkGroupSize.x and kTeam, a power of two from 16
// to kLocal.

layout(std430, set = 0, binding = 0) readonly buffer X { float x[]; };
layout(std430, set = 0, binding = 1) readonly buffer W { uint w[]; };
layout(std430, set = 0, binding = 2) writeonly buffer Y { float y[]; };

shared float sRed[kLocal];

const uint kBlock = 256u;

#include "gemv_push.glsl"
#include "grid.glsl"
#include "row_blocks.glsl"
#include "words.glsl"
#include "x_quads.glsl"

#include "q6k_block.glsl"

float sumOfTwo(float a, float b) { return a + b; }
#define TEAM_COMBINE sumOfTwo
#define TEAM_REDUCE teamSum
#include "team_reduce.glsl"

// What a part of a block adds to its row; `quad` is the block's first in x.
float partProduct(uint block, uint part, uint quad) {
  const uint first = quad + 32u * (part >> 3) + (part & 7u);
  const vec4 xs[4] = {xQuad(first), xQuad(first + 8u), xQuad(first + 16u), xQuad(first + 24u)};
  const uint scale = block + kScales + firstScale(part);
  const vec4 scales = vec4(signedByteAt(scale), signedByteAt(scale + 2u),
                           signedByteAt(scale + 4u), signedByteAt(scale + 6u));
  return dot(partDots(block, part, xs), scales) * halfAt(block + kSuperScale);
}

void main() {
  const uint i = gl_LocalInvocationID.x;
  const uint row = workgroupIndex() * (kLocal / kTeam) + i / kTeam;
  const uint part = i % 16u;

  float sum = 0.0;
  if (row < n) {
    for (uint b = i % kTeam / 16u; b < rowBlocks(); b += kTeam / 16u) {
      sum += partProduct(row * colBytes + b * kBlockBytes, part, b * (kBlock / 4u));
    }
  }

  sum = teamSum(sum, kTeam);
  if (i % kTeam == 0u && row < n) y[row] = sum;
}
