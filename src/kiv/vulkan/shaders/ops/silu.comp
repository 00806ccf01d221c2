// SPDX-License-Identifier: Apache-2.0
// SiLU: y[i] = x[i] / (1 + exp(-x[i])) for i < count.
//
// Bindings: x, y. Push constants: count. One invocation an element, 256 a
// workgroup: ceil(count / 256) workgroups, in x and y.
#version 450
#extension GL_GOOGLE_include_directive : require

#include "activations.glsl"

const uint kLocal = 256u;
layout(local_size_x = kLocal) in;

#include "grid.glsl"

layout(std430, set = 0, binding = 0) readonly buffer X { float x[]; };
layout(std430, set = 0, binding = 1) writeonly buffer Y { float y[]; };

layout(push_constant) uniform PC { uint count; };

void main() {
  const uint i = invocationIndex();
  if (i < count) y[i] = silu(x[i]);
}
