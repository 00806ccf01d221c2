// SPDX-License-Identifier: Apache-2.0
// Q4KGemvV1: y = W x, y[r] = sum over c of w[r][c] * x[c], an element an invocation.
//
// x: k floats. w: n rows of Q4_K blocks, as words, a row every colBytes bytes (a
// multiple of 4). y: n floats. n, k, blocksPerCol: see gemv_push.glsl; where k is no
// multiple of 256, the rest of the last block counts as nothing.
//
// One row a workgroup: invocation e decodes element e of every block of the row, so
// that its sub-block and the place of its code never change, and neighbours read
// neighbouring elements of x. The plainest partition, and the one to hold others
// against: eight invocations load the same word, and each unpacks a head for a single
// code. Dispatch n workgroups, in one row or a grid.
#version 450
#extension GL_GOOGLE_include_directive : require
layout(local_size_x = 256) in;

layout(std430, set = 0, binding = 0) readonly buffer X { float x[]; };
layout(std430, set = 0, binding = 1) readonly buffer W { uint w[]; };
layout(std430, set = 0, binding = 2) writeonly buffer Y { float y[]; };

const uint kLocal = gl_WorkGroupSize.x;
shared float sRed[kLocal];

#include "gemv_push.glsl"
#include "grid.glsl"
#include "k_scales.glsl"
#include "workgroup_sum.glsl"

const uint kBlockWords = kQ4KWords;
#include "gemv_rows.glsl"

void main() {
  const uint row = workgroupIndex();
  const uint e = gl_LocalInvocationID.x;
  const uint word = 4u + e / 64u * 8u + e % 32u / 4u;
  const uint shift = e % 4u * 8u + e / 32u % 2u * 4u;

  float sum = 0.0;
  if (row < n) {
    for (uint b = 0u; b < rowBlocks(); ++b) {
      if (256u * b + e >= k) break;
      const uint block = blockWord(row, b);
      const vec2 head = scaledHead(block, e / 32u);
      const float code = float((w[block + word] >> shift) & 15u);
      sum += (code * head.x - head.y) * x[256u * b + e];
    }
  }

  sum = workgroupSum(sum);
  if (e == 0u && row < n) y[row] = sum;
}
