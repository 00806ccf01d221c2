// SPDX-License-Identifier: Apache-2.0
// y = W x for Q4_K rows or, with FIFTH_BIT defined, Q5_K rows; two rows a
// workgroup of 64.
//
// 16 invocations share a block, and four blocks of both rows are read at once.
// Invocation `part` of a block takes words `part` and `part + 16` of its 32 words
// of nibbles, so that neighbours read neighbouring words. Word j holds elements
// 64 (j / 8) + 4 (j % 8) + 0..3 in its low nibbles and those 32 further on in its
// high ones. With pair = part / 8 the four quarters of an invocation's elements
// so belong to sub-blocks 2 pair, 2 pair + 1, 2 pair + 4 and 2 pair + 5, whose
// packed scales lie at the same shift of three words.
//
// x and its sums serve both rows; d and dmin multiply once for 16 elements:
//   sum of w x = d (scales . (codes . x)) - dmin (minima . (sums of x)).
//
// What the including shader defines before: nothing, or any of
//   FIFTH_BIT;
//   HALF_WORDS: nibbles are loaded as 16-bit numbers, through a second view of w;
//   SUBGROUP_SUMS: sums are reduced by subgroups;
//   GEMV_OF_TOKENS: a vector for each token (gemv_tokens.glsl).

layout(local_size_x = 64) in;

const uint kPerBlock = 16u;  // invocations a block
const uint kAtOnce = 4u;     // blocks

layout(std430, set = 0, binding = 0) readonly buffer X { vec4 x[]; };
#ifdef HALF_WORDS
layout(std430, set = 0, binding = 1) readonly buffer Halves { uint16_t halves[]; };
layout(std430, set = 0, binding = 2) readonly buffer W { uint w[]; };
layout(std430, set = 0, binding = 3) writeonly buffer Y { float y[]; };
#else
layout(std430, set = 0, binding = 1) readonly buffer W { uint w[]; };
#ifdef GEMV_OF_TOKENS
layout(std430, set = 0, binding = 2) buffer Y { float y[]; };
#else
layout(std430, set = 0, binding = 2) writeonly buffer Y { float y[]; };
#endif
#endif

shared float sRed[64];

#include "four_bytes.glsl"
#include "gemv_push.glsl"
#include "gemv_tokens.glsl"
#include "k_scales.glsl"
#ifdef SUBGROUP_SUMS
#include "two_row_subgroup_sums.glsl"
#else
#include "two_row_sums.glsl"
#endif

#ifdef FIFTH_BIT
const uint kBlockWords = kQ5KWords;
const uint kFifthBits = 4u;  // word of the block where the fifth bits begin
const uint kNibbles = 12u;   // and where the nibbles do
#else
const uint kBlockWords = kQ4KWords;
const uint kNibbles = 4u;
#endif

#ifdef HALF_WORDS
uint nibblesAt(uint word) {
  return uint(halves[2u * word]) | uint(halves[2u * word + 1u]) << 16;
}
#else
uint nibblesAt(uint word) { return w[word]; }
#endif

float sumOf(vec4 v) { return (v.x + v.y) + (v.z + v.w); }

// What `part` of a block adds to its row.
float partProduct(uint block, uint part, vec4 xs[4], vec4 xSums) {
  const uint first = nibblesAt(block + kNibbles + part);
  const uint second = nibblesAt(block + kNibbles + part + 16u);
  uvec4 codes = uvec4(first, first >> 4, second, second >> 4) & 0x0f0f0f0fu;
#ifdef FIFTH_BIT
  // Bit 2c of each byte belongs to chunk c = pair of the first word and c = pair
  // + 2 of the second; the bit above it to their high nibbles.
  const uint fifth = w[block + kFifthBits + (part & 7u)] >> (2u * (part >> 3));
  codes |= uvec4(fifth << 4, fifth << 3, fifth, fifth >> 1) & 0x10101010u;
#endif
  const uint shift = 16u * (part >> 3);
  const uint a = w[block + 1u] >> shift;
  const uint b = w[block + 2u] >> shift;
  const uint c = w[block + 3u] >> shift;
  const uvec4 scales =
      uvec4(a & 63u, a >> 8 & 63u, c & 15u | a >> 2 & 48u, c >> 8 & 15u | a >> 10 & 48u);
  const uvec4 minima =
      uvec4(b & 63u, b >> 8 & 63u, c >> 4 & 15u | b >> 2 & 48u, c >> 12 & 15u | b >> 10 & 48u);
  const vec4 dots = vec4(dot(bytesOf(codes.x), xs[0]), dot(bytesOf(codes.y), xs[1]),
                         dot(bytesOf(codes.z), xs[2]), dot(bytesOf(codes.w), xs[3]));
  const vec2 head = unpackHalf2x16(w[block]);
  return head.x * dot(vec4(scales), dots) - head.y * dot(vec4(minima), xSums);
}

void main() {
  const uint first = 2u * (gl_WorkGroupID.y * gl_NumWorkGroups.x + gl_WorkGroupID.x);
  const uint second = first + 1u < n ? first + 1u : first;
  const uint part = gl_LocalInvocationID.x % kPerBlock;

  vec2 sums = vec2(0.0);
  if (first < n) {
    const uint row0 = first * (colBytes >> 2);
    const uint row1 = second * (colBytes >> 2);
    for (uint b = gl_LocalInvocationID.x / kPerBlock; b < blocksPerCol; b += kAtOnce) {
      // In vectors of four.
      const uint at = firstOfX() / 4u + 64u * b + 16u * (part >> 3) + (part & 7u);
      const vec4 xs[4] = {x[at], x[at + 8u], x[at + 32u], x[at + 40u]};
      const vec4 xSums = vec4(sumOf(xs[0]), sumOf(xs[1]), sumOf(xs[2]), sumOf(xs[3]));
      sums.x += partProduct(row0 + b * kBlockWords, part, xs, xSums);
      sums.y += partProduct(row1 + b * kBlockWords, part, xs, xSums);
    }
  }

  const float sum = twoRowSums(sums);
  const uint row = gl_LocalInvocationID.x == 32u ? first : first + 1u;
  if (gl_LocalInvocationID.x % 32u == 0u && row < n) storeRow(row, sum);
}
