// SPDX-License-Identifier: Apache-2.0
// RoPE: in each head, elements i and i + headDim / 2 are turned as a pair by the
// angle whose cosine and sine are cos[i] and sin[i]:
// y[i] = x[i] cos[i] - x[i + h] sin[i] and y[i + h] = x[i + h] cos[i] + x[i] sin[i],
// with h = headDim / 2.
//
// Bindings: x (heads x headDim), cos and sin (headDim / 2 each, for the position of
// this token), y (as x). Push constants: heads, headDim (even). One invocation a pair,
// 256 a workgroup: ceil(heads * headDim / 512) workgroups, in x and y. Neighbours own
// neighbouring pairs, so both halves are loaded and stored contiguously.
#version 450
#extension GL_GOOGLE_include_directive : require

#include "rotate_pair.glsl"

const uint kLocal = 256u;
layout(local_size_x = kLocal) in;

#include "grid.glsl"

layout(std430, set = 0, binding = 0) readonly buffer X { float x[]; };
layout(std430, set = 0, binding = 1) readonly buffer Cos { float cosines[]; };
layout(std430, set = 0, binding = 2) readonly buffer Sin { float sines[]; };
layout(std430, set = 0, binding = 3) writeonly buffer Y { float y[]; };

layout(push_constant) uniform PC {
  uint heads;
  uint headDim;
};

void main() {
  const uint pairs = headDim / 2u;
  const uint index = invocationIndex();
  if (index >= heads * pairs) return;
  const uint pair = index % pairs;
  const uint low = index / pairs * headDim + pair;
  const uint high = low + pairs;

  const vec2 turned = rotatePair(vec2(x[low], x[high]), vec2(cosines[pair], sines[pair]));
  y[low] = turned.x;
  y[high] = turned.y;
}
