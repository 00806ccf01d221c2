// y = W x for a Q6_K matrix: the decoder's matrix-vector product.
//
// x: k floats as vectors of four. w: n rows of colBytes bytes, blocksPerCol blocks
// each. y: n floats. Dispatch (n + 1) / 2 workgroups, in one row or a grid. k is a
// multiple of 256.
//
// Two rows a workgroup of 64: 16 invocations share a block and four blocks of
// both rows are read at once. Invocation `part` takes four neighbouring bytes of
// each of the three places that make up 16 elements: with half h = part / 8 and
// l = 4 (part % 8), elements 128 h + 32 q + l + 0..3 for q = 0 to 3. The 16 scales
// of each block, times its d, are spread through shared memory first: every
// invocation needs four of them, at places that differ from its own bytes.
// Blocks have 210 bytes, so words are put together from two.
#version 450
#extension GL_GOOGLE_include_directive : require

layout(local_size_x = 64) in;

const uint kLocal = 64u;
const uint kPerBlock = 16u;               // invocations a block
const uint kAtOnce = kLocal / kPerBlock;  // blocks
const uint kBlockBytes = 210u;
const uint kHighBits = 128u;  // byte of the block where the high bits begin
const uint kScales = 192u;
const uint kSuperScale = 208u;

layout(std430, set = 0, binding = 0) readonly buffer X { vec4 x[]; };
layout(std430, set = 0, binding = 1) readonly buffer W { uint w[]; };
layout(std430, set = 0, binding = 2) writeonly buffer Y { float y[]; };

shared float sScale[16][kAtOnce][2];  // sub-block, block, row
shared float sRed[kLocal];

#include "gemv_push.glsl"
#include "words.glsl"
#include "two_row_sums.glsl"

float signedByteAt(uint at) { return float(bitfieldExtract(int(byteAt(at)), 0, 8)); }

// Four codes, each with its 32 taken off.
vec4 codes(uint low, uint high) {
  const uint four = (low & 0x0f0f0f0fu) | (high & 0x03030303u) << 4;
  return vec4(four & 255u, four >> 8 & 255u, four >> 16 & 255u, four >> 24) - 32.0;
}

float partProduct(uint block, uint part, vec4 xs[4], uint slot, uint row) {
  const uint half_ = part >> 3;
  const uint l = 4u * (part & 7u);
  const uint low0 = wordAt(block + 64u * half_ + l);
  const uint low1 = wordAt(block + 64u * half_ + 32u + l);
  const uint high = wordAt(block + kHighBits + 32u * half_ + l);
  const vec4 dots = vec4(dot(codes(low0, high), xs[0]), dot(codes(low1, high >> 2), xs[1]),
                         dot(codes(low0 >> 4, high >> 4), xs[2]),
                         dot(codes(low1 >> 4, high >> 6), xs[3]));
  const uint s = 8u * half_ + (l >> 4);
  return dot(dots, vec4(sScale[s][slot][row], sScale[s + 2u][slot][row],
                        sScale[s + 4u][slot][row], sScale[s + 6u][slot][row]));
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
      const uint at = 64u * b + 32u * (part >> 3) + (part & 7u);  // in vectors of four
      const vec4 xs[4] = {x[at], x[at + 8u], x[at + 16u], x[at + 24u]};
      sums.x += partProduct(block0, part, xs, slot, 0u);
      sums.y += partProduct(block1, part, xs, slot, 1u);
    }
  }

  const float sum = twoRowSums(sums);
  const uint row = gl_LocalInvocationID.x == 32u ? first : first + 1u;
  if (gl_LocalInvocationID.x % 32u == 0u && row < n) y[row] = sum;
}
