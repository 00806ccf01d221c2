// y[i] = a[i] + b[i] for i < count. One invocation an element, 256 a workgroup.
#version 450
layout(local_size_x = 256) in;

layout(std430, set = 0, binding = 0) readonly buffer A { float a[]; };
layout(std430, set = 0, binding = 1) readonly buffer B { float b[]; };
layout(std430, set = 0, binding = 2) writeonly buffer Y { float y[]; };

layout(push_constant) uniform PC { uint count; };

void main() {
  const uint i = gl_GlobalInvocationID.x;
  if (i < count) y[i] = a[i] + b[i];
}
