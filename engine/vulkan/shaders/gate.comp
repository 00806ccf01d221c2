// SPDX-License-Identifier: Apache-2.0
// y = silu(gate) * up for each token.
//
// Bindings: gate, up, y (tokens x width each). Push constants: width. Dispatch
// ceil(width / 256) workgroups in x, the tokens in z.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kLocal = 256u;
layout(local_size_x = kLocal) in;

layout(std430, set = 0, binding = 0) readonly buffer Gate { float gate[]; };
layout(std430, set = 0, binding = 1) readonly buffer Up { float up[]; };
layout(std430, set = 0, binding = 2) writeonly buffer Y { float y[]; };

layout(push_constant) uniform PC { uint width; };

#include "activations.glsl"

void main() {
  const uint column = gl_WorkGroupID.x * kLocal + gl_LocalInvocationID.x;
  if (column >= width) return;
  const uint i = gl_WorkGroupID.z * width + column;
  y[i] = silu(gate[i]) * up[i];
}
