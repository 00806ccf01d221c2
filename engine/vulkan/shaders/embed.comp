// SPDX-License-Identifier: Apache-2.0
// x = row `id` of W for each token, in any type of matrix.
//
// Bindings: rows (a token's id, position, first page, state: only the id is read), w (words),
// x (tokens x width). Push constants: width, rowBytes, type (kF32, ...). Dispatch
// ceil(width / 256) workgroups in x, the tokens in z; an invocation decodes one element.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kLocal = 256u;
layout(local_size_x = kLocal) in;

layout(std430, set = 0, binding = 0) readonly buffer Rows { uvec4 rows[]; };
layout(std430, set = 0, binding = 1) readonly buffer W { uint w[]; };
layout(std430, set = 0, binding = 2) writeonly buffer X { float x[]; };

layout(push_constant) uniform PC {
  uint width;
  uint rowBytes;
  uint type;
};

#include "k_scales.glsl"
#include "words.glsl"
#include "q6k_element.glsl"

const uint kF32 = 0u;
const uint kBF16 = 1u;
const uint kQ8_0 = 2u;
const uint kQ4K = 3u;
const uint kQ5K = 4u;

// Element e of the block of Q4_K or Q5_K that begins at word `block`. Sub-blocks 2c and 2c + 1
// are the low and the high nibbles of 32 bytes; bit j of the byte of fifth bits is sub-block j's.
float kElement(uint block, uint e, bool fifthBit) {
  const uint j = e / 32u;
  const uint nibbles = 4u * block + (fifthBit ? 48u : 16u);
  uint code = byteAt(nibbles + 32u * (j / 2u) + e % 32u) >> (4u * (j & 1u)) & 15u;
  if (fifthBit) code |= (byteAt(4u * block + 16u + e % 32u) >> j & 1u) << 4;
  const vec2 scales = scaledHead(block, j);
  return scales.x * float(code) - scales.y;
}

float elementAt(uint row, uint e) {
  if (type == kF32) return uintBitsToFloat(w[row / 4u + e]);
  if (type == kBF16) return uintBitsToFloat(pairAt(row + 2u * e) << 16);
  if (type == kQ8_0) {
    const uint block = row + e / 32u * 34u;
    return halfAt(block) * signedByteAt(block + 2u + e % 32u);
  }
  const uint b = e / 256u;
  if (type == kQ4K) return kElement(row / 4u + b * kQ4KWords, e % 256u, false);
  if (type == kQ5K) return kElement(row / 4u + b * kQ5KWords, e % 256u, true);
  return q6kElement(row + b * kQ6KBytes, e % 256u);
}

void main() {
  const uint e = gl_WorkGroupID.x * kLocal + gl_LocalInvocationID.x;
  if (e >= width) return;
  x[gl_WorkGroupID.z * width + e] = elementAt(rows[gl_WorkGroupID.z].x * rowBytes, e);
}
