// SPDX-License-Identifier: Apache-2.0
// x[i] = change(x[i], parameter) for i < count, with `change` from the including
// shader. One invocation an element, 256 a workgroup: ceil(count / 256) workgroups,
// in x and y. Each element is read and written by its own invocation alone.
const uint kLocal = 256u;
layout(local_size_x = kLocal) in;

#include "grid.glsl"

layout(std430, set = 0, binding = 0) buffer X { float x[]; };

layout(push_constant) uniform PC {
  uint count;
  float parameter;
};

void main() {
  const uint i = invocationIndex();
  if (i < count) x[i] = change(x[i], parameter);
}
