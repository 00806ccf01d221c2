// SPDX-License-Identifier: Apache-2.0
// The product of an F32 matrix and many tokens: matmul.glsl.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kBlock = 4u;
#include "matmul.glsl"

// Nothing lies behind the last row.
vec4 fourWeights(uint row, uint column) {
  vec4 weights = vec4(0.0);
  for (uint i = 0u; i < 4u && column + i < k; ++i) {
    weights[i] = uintBitsToFloat(w[row / 4u + column + i]);
  }
  return weights;
}
