// SPDX-License-Identifier: Apache-2.0
// RopeGemmaBatch: rotary embedding of consecutive tokens, over whole heads; the formula
// is in rope_gemma.glsl, with rotated = headDim and position = firstPosition + token.
//
// Bindings: x (tokens x heads x headDim), freqFactors (headDim / 2, all 1 for none), y
// (as x). Push constants: heads, headDim (even), base, firstPosition. Row y of the grid
// is token y; in it one invocation a pair, 256 a workgroup:
// ceil(heads * headDim / 512) x tokens workgroups. As in RopeGemma, neighbours own
// neighbouring pairs.
#version 450
#extension GL_GOOGLE_include_directive : require

#include "rope_gemma.glsl"

layout(push_constant) uniform PC {
  uint heads;
  uint headDim;
  float base;
  uint firstPosition;
};

void main() {
  const uint units = unitsOfHead(headDim, headDim);
  const uint index = gl_GlobalInvocationID.x;
  if (index >= heads * units) return;
  const uint token = gl_WorkGroupID.y;
  rotateUnit((token * heads + index / units) * headDim, index % units, headDim, base,
             firstPosition + token);
}
