// SPDX-License-Identifier: Apache-2.0
// Bf16GemvV1: y = scale * W x for a BF16 matrix, one row a workgroup of 128.
//
// w: n rows of k weights, two a word, the even one in the low half; a row every colBytes
// bytes (a multiple of 2, so a row may begin inside a word). x: k floats. y: n floats.
// Push constants: n; k; wordsPerRow, pairs of weights in a row, ceil(k / 2) for all of
// them; colBytes; scale.
//
// Invocation i takes pairs i, i + 128, ... of the row: neighbours load neighbouring words,
// and pairs of x in order. For long rows (Bf16Proj suits short ones). Dispatch n
// workgroups, in one row or a grid.
#version 450
#extension GL_GOOGLE_include_directive : require
layout(local_size_x = 128) in;

layout(std430, set = 0, binding = 0) readonly buffer W { uint w[]; };
layout(std430, set = 0, binding = 1) readonly buffer X { float x[]; };
layout(std430, set = 0, binding = 2) writeonly buffer Y { float y[]; };

layout(push_constant) uniform PC {
  uint n;
  uint k;
  uint wordsPerRow;
  uint colBytes;
  float scale;
};

const uint kLocal = gl_WorkGroupSize.x;
shared float sRed[kLocal];

#include "grid.glsl"
#include "words.glsl"
#include "workgroup_sum.glsl"

// Pair i of the row that begins at byte `row`, times x. Where k is odd, the last pair has
// one weight, and what follows it may lie behind the buffer.
float pairProduct(uint row, uint i) {
  const uint at = row + 4u * i;
  const uint column = 2u * i;
  if (column >= k) return 0.0;
  if (column + 1u == k) return uintBitsToFloat(pairAt(at) << 16) * x[column];
  const uint pair = wordAt(at);
  return uintBitsToFloat(pair << 16) * x[column] +
         uintBitsToFloat(pair & 0xffff0000u) * x[column + 1u];
}

void main() {
  const uint row = workgroupIndex();
  float sum = 0.0;
  if (row < n) {
    for (uint i = gl_LocalInvocationID.x; i < wordsPerRow; i += kLocal) {
      sum += pairProduct(row * colBytes, i);
    }
  }
  sum = workgroupSum(sum);
  if (gl_LocalInvocationID.x == 0u && row < n) y[row] = scale * sum;
}
