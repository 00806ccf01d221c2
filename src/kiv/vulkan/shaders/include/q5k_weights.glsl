// SPDX-License-Identifier: Apache-2.0
// Four weights of a row of Q5_K blocks, as gemm.glsl asks for them.
#include "four_bytes.glsl"
#include "k_scales.glsl"

vec4 fourWeights(uint row, uint column) {
  const uint block = row / 4u + column / kBlock * kQ5KWords;
  const uint subBlock = column % kBlock / 32u;
  const uint i = column % 32u / 4u;
  const uint word = w[block + 12u + subBlock / 2u * 8u + i];
  const uint fifth = w[block + 4u + i] >> subBlock & 0x01010101u;
  const uint codes = (word >> (4u * (subBlock & 1u)) & 0x0f0f0f0fu) | fifth << 4;
  const vec2 head = scaledHead(block, subBlock);
  return bytesOf(codes) * head.x - head.y;
}
