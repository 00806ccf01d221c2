// SPDX-License-Identifier: Apache-2.0
// ProbeRow: y[r] = sum over the words of row r of (low 16 bits + high 16 bits): how fast
// rows of weights can be read where nearly nothing is computed from them.
//
// w: n rows of Q4_K blocks, as words, a row every colBytes bytes (a multiple of 4); bytes
// behind the blocks of a row are not read. y: n floats. n, k, blocksPerCol: see
// gemv_push.glsl. Every bit counts, so that no compiler can narrow a load.
//
// One row a workgroup, invocation i takes words i, i + 128, ...: the rows, the order of
// the reads and the reduction of a matrix-vector product, whose time cannot go below
// this module's. Dispatch n workgroups, in one row or a grid.
#version 450
#extension GL_GOOGLE_include_directive : require
layout(local_size_x = 128) in;

layout(std430, set = 0, binding = 0) readonly buffer W { uint w[]; };
layout(std430, set = 0, binding = 1) writeonly buffer Y { float y[]; };

const uint kLocal = gl_WorkGroupSize.x;
shared float sRed[kLocal];

#include "gemv_push.glsl"
#include "grid.glsl"
#include "workgroup_sum.glsl"

const uint kBlockWords = 36u;  // of Q4_K
#include "gemv_rows.glsl"

void main() {
  const uint row = workgroupIndex();
  float sum = 0.0;
  if (row < n) {
    const uint start = blockWord(row, 0u);
    const uint count = rowBlocks() * kBlockWords;
    for (uint i = gl_LocalInvocationID.x; i < count; i += kLocal) {
      const uint word = w[start + i];
      sum += float(word & 0xffffu) + float(word >> 16);
    }
  }
  sum = workgroupSum(sum);
  if (gl_LocalInvocationID.x == 0u && row < n) y[row] = sum;
}
