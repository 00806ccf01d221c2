// SPDX-License-Identifier: Apache-2.0
// Four weights of a row of Q4_K blocks, as gemm.glsl asks for them.
#include "four_bytes.glsl"
#include "k_scales.glsl"

vec4 fourWeights(uint row, uint column) {
  const uint block = row / 4u + column / kBlock * kQ4KWords;
  const uint subBlock = column % kBlock / 32u;
  const uint word = w[block + 4u + subBlock / 2u * 8u + column % 32u / 4u];
  const uint codes = word >> (4u * (subBlock & 1u)) & 0x0f0f0f0fu;
  const vec2 head = scaledHead(block, subBlock);
  return bytesOf(codes) * head.x - head.y;
}
