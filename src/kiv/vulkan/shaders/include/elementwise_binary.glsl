// SPDX-License-Identifier: Apache-2.0
// y[i] = combine(a[i], b[i]) for i < count, with `combine` from the including
// shader. One invocation an element, 256 a workgroup: ceil(count / 256) workgroups,
// in x and y. There is nothing to share between elements; loads and stores are
// contiguous, and memory speed is the limit.
const uint kLocal = 256u;
layout(local_size_x = kLocal) in;

#include "grid.glsl"

layout(std430, set = 0, binding = 0) readonly buffer A { float a[]; };
layout(std430, set = 0, binding = 1) readonly buffer B { float b[]; };
layout(std430, set = 0, binding = 2) writeonly buffer Y { float y[]; };

layout(push_constant) uniform PC { uint count; };

void main() {
  const uint i = invocationIndex();
  if (i < count) y[i] = combine(a[i], b[i]);
}
