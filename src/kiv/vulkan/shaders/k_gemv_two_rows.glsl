// y = W x for Q4_K rows or, with FIFTH_BIT defined, Q5_K rows; two rows a
// workgroup of 64.
//
// 16 invocations share a block and four blocks of both rows are read at once.
// Invocation `part` of a block takes words `part` and `part + 16` of its 32 words
// of nibbles, so that neighbours read neighbouring words. Word j holds elements
// 64 (j / 8) + 4 (j % 8) + 0..3 in its low nibbles and those 32 further on in its
// high ones: sub-blocks 2 (j / 8) and 2 (j / 8) + 1. The same x serves both rows,
// and the minimum of a sub-block is subtracted once from four products, as
// dmin m (x0 + x1 + x2 + x3).
//
// The including shader has declared nothing but the version and this include.

layout(local_size_x = 64) in;

const uint kLocal = 64u;
const uint kPerBlock = 16u;                // invocations a block
const uint kAtOnce = kLocal / kPerBlock;  // blocks

layout(std430, set = 0, binding = 0) readonly buffer X { vec4 x[]; };
layout(std430, set = 0, binding = 1) readonly buffer W { uint w[]; };
layout(std430, set = 0, binding = 2) writeonly buffer Y { float y[]; };

shared float sRed[kLocal];

#include "gemv_push.glsl"
#include "k_scales.glsl"
#include "workgroup_sum.glsl"

#ifdef FIFTH_BIT
const uint kBlockWords = kQ5KWords;
const uint kHighBits = 4u;  // word of the block where the fifth bits begin
const uint kNibbles = 12u;  // and where the nibbles do
#else
const uint kBlockWords = kQ4KWords;
const uint kNibbles = 4u;
#endif

vec4 bytesOf(uint four) {
  return vec4(four & 255u, four >> 8 & 255u, four >> 16 & 255u, four >> 24);
}

// What word j of a block's nibbles adds to its row: x and its sums belong to the
// low nibbles in the first place and to the high ones in the second.
float wordProduct(uint block, uint j, vec4 xLow, vec4 xHigh, vec2 xSums) {
  const uint pair = j >> 3;
  uint low = w[block + kNibbles + j];
  uint high = low >> 4 & 0x0f0f0f0fu;
  low &= 0x0f0f0f0fu;
#ifdef FIFTH_BIT
  const uint fifth = w[block + kHighBits + (j & 7u)] >> (2u * pair);
  low |= (fifth & 0x01010101u) << 4;
  high |= (fifth & 0x02020202u) << 3;
#endif
  const vec2 headLow = scaledHead(block, 2u * pair);
  const vec2 headHigh = scaledHead(block, 2u * pair + 1u);
  const vec2 dots = vec2(dot(bytesOf(low), xLow), dot(bytesOf(high), xHigh));
  return dot(vec2(headLow.x, headHigh.x), dots) - dot(vec2(headLow.y, headHigh.y), xSums);
}

float sumOf(vec4 v) { return (v.x + v.y) + (v.z + v.w); }

void main() {
  const uint first = 2u * (gl_WorkGroupID.y * gl_NumWorkGroups.x + gl_WorkGroupID.x);
  const uint second = first + 1u < n ? first + 1u : first;
  const uint part = gl_LocalInvocationID.x % kPerBlock;

  vec2 sums = vec2(0.0);
  if (first < n) {
    const uint row0 = first * (colBytes >> 2);
    const uint row1 = second * (colBytes >> 2);
    for (uint b = gl_LocalInvocationID.x / kPerBlock; b < blocksPerCol; b += kAtOnce) {
      for (uint j = part; j < 32u; j += kPerBlock) {
        const uint at = 64u * b + 16u * (j >> 3) + (j & 7u);  // in vectors of four
        const vec4 xLow = x[at];
        const vec4 xHigh = x[at + 8u];
        const vec2 xSums = vec2(sumOf(xLow), sumOf(xHigh));
        sums.x += wordProduct(row0 + b * kBlockWords, j, xLow, xHigh, xSums);
        sums.y += wordProduct(row1 + b * kBlockWords, j, xLow, xHigh, xSums);
      }
    }
  }

  const float y0 = workgroupSum(sums.x);
  const float y1 = workgroupSum(sums.y);
  if (gl_LocalInvocationID.x == 0u && first < n) {
    y[first] = y0;
    if (first + 1u < n) y[first + 1u] = y1;
  }
}
