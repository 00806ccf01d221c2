// SPDX-License-Identifier: Apache-2.0
// The product of a Q8_0 matrix and many tokens: matmul.glsl.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kBlock = 32u;
#include "matmul.glsl"
#include "words.glsl"
#include "q8_0_codes.glsl"

vec4 fourWeights(uint row, uint column) {
  const uint block = row + column / kBlock * kQ8_0Bytes;
  return q8_0Codes(block, column % kBlock / 4u) * halfAt(block);
}
