// SPDX-License-Identifier: Apache-2.0
// KvStore: row `position` of the key and of the value cache becomes k and v:
// kCache[position * width + i] = k[i], vCache[position * width + i] = v[i] for
// i < width.
//
// Bindings: k, v, kCache, vCache (positions x width, row-major; width is the number
// of key/value heads times their size, as Attention and AttentionGemma read it).
// Push constants: width, position. One invocation an element of the row, 256 a
// workgroup: ceil(width / 256) workgroups, in x and y. A cache holds at most 2^32
// elements.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kLocal = 256u;
layout(local_size_x = kLocal) in;

#include "grid.glsl"

layout(std430, set = 0, binding = 0) readonly buffer K { float k[]; };
layout(std430, set = 0, binding = 1) readonly buffer V { float v[]; };
layout(std430, set = 0, binding = 2) writeonly buffer KCache { float kCache[]; };
layout(std430, set = 0, binding = 3) writeonly buffer VCache { float vCache[]; };

layout(push_constant) uniform PC {
  uint width;
  uint position;
};

void main() {
  const uint i = invocationIndex();
  if (i >= width) return;
  kCache[position * width + i] = k[i];
  vCache[position * width + i] = v[i];
}
