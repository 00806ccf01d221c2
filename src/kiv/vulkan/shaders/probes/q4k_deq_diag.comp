// SPDX-License-Identifier: Apache-2.0
// Q4KDeqDiag: y[e] = code * (d * scale) - dmin * min for the 256 elements e of the first
// Q4_K block of w, with scale and min of the element's sub-block: what the CPU decodes,
// bit for bit, to tell a wrong layout from a wrong product.
//
// w: the block's 36 words; more may follow. y: 256 floats. No push constants. One
// invocation does everything, so that nothing depends on how work is divided. Dispatch
// one workgroup.
#version 450
#extension GL_GOOGLE_include_directive : require
layout(local_size_x = 1) in;

layout(std430, set = 0, binding = 0) readonly buffer W { uint w[]; };
layout(std430, set = 0, binding = 1) writeonly buffer Y { float y[]; };

#include "k_scales.glsl"

void main() {
  for (uint j = 0u; j < 8u; ++j) {
    const vec2 head = scaledHead(0u, j);
    for (uint l = 0u; l < 32u; ++l) {
      const uint word = w[4u + j / 2u * 8u + l / 4u];
      const uint code = (word >> (l % 4u * 8u + j % 2u * 4u)) & 15u;
      y[32u * j + l] = float(code) * head.x - head.y;
    }
  }
}
