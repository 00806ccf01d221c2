// SPDX-License-Identifier: Apache-2.0
// The parts of attention_parts.glsl joined, and gated: o = (values / weights) * sigmoid(gate).
//
// Bindings: parts (tokens x heads x splits x (size + 2)), q (tokens x heads x 2 size: a query,
// then its gate), o (tokens x heads x size). Push constants: heads, size (at most 256), splits.
// Dispatch heads workgroups in x, the tokens in z; an invocation owns a component.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kLocal = 256u;
layout(local_size_x = kLocal) in;

layout(std430, set = 0, binding = 0) readonly buffer Parts { float parts[]; };
layout(std430, set = 0, binding = 1) readonly buffer Q { float q[]; };
layout(std430, set = 0, binding = 2) writeonly buffer O { float o[]; };

layout(push_constant) uniform PC {
  uint heads;
  uint size;
  uint splits;
};

#include "activations.glsl"

void main() {
  const uint i = gl_LocalInvocationID.x;
  if (i >= size) return;
  const uint row = gl_WorkGroupID.z * heads + gl_WorkGroupID.x;
  const uint stride = size + 2u;
  const uint first = row * splits * stride;
  float largest = parts[first];  // of the part with position 0
  for (uint s = 1u; s < splits; ++s) largest = max(largest, parts[first + s * stride]);
  float weights = 0.0;
  float value = 0.0;
  for (uint s = 0u; s < splits; ++s) {
    const uint part = first + s * stride;
    if (parts[part + 1u] == 0.0) continue;  // without pages
    const float factor = exp(parts[part] - largest);
    weights += factor * parts[part + 1u];
    value += factor * parts[part + 2u + i];
  }
  o[row * size + i] = value / weights * sigmoid(q[(2u * row + 1u) * size + i]);
}
