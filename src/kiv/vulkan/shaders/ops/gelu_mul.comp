// SPDX-License-Identifier: Apache-2.0
// GeluMul: y[i] = gelu(gate[i]) * up[upOffset + i] for i < count, with
// gelu(g) = g / 2 * (1 + tanh(sqrt(2 / pi) * (g + 0.044715 g^3))).
//
// Bindings: gate, up, y. `gate` and `up` may be one buffer, bound twice, that holds
// both halves of a fused projection: then upOffset is where the second half begins.
// Push constants: count, upOffset (the first element of `up` that is used). One
// invocation an element, 256 a workgroup: ceil(count / 256) workgroups, in x and y.
#version 450
#extension GL_GOOGLE_include_directive : require

#include "activations.glsl"

const uint kLocal = 256u;
layout(local_size_x = kLocal) in;

#include "grid.glsl"

layout(std430, set = 0, binding = 0) readonly buffer Gate { float gate[]; };
layout(std430, set = 0, binding = 1) readonly buffer Up { float up[]; };
layout(std430, set = 0, binding = 2) writeonly buffer Y { float y[]; };

layout(push_constant) uniform PC {
  uint count;
  uint upOffset;
};

void main() {
  const uint i = invocationIndex();
  if (i < count) y[i] = geluTanh(gate[i]) * up[upOffset + i];
}
