// SPDX-License-Identifier: Apache-2.0
// The first candidates among each 4096 of a row of logits, in the order of ranking.glsl.
//
// Bindings: logits (rows x count), parts (rows x ceil(count / 4096) x most: the bits of a value,
// then its id; minus infinity and kNowhere behind the last). Push constants: count, most.
// Dispatch ceil(count / 4096) workgroups in x, the rows in z. A round finds one candidate: the
// first of those behind the one before.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kLocal = 256u;
const uint kEach = 16u;
layout(local_size_x = kLocal) in;

layout(std430, set = 0, binding = 0) readonly buffer Logits { float logits[]; };
layout(std430, set = 0, binding = 1) writeonly buffer Parts { uvec2 parts[]; };

layout(push_constant) uniform PC {
  uint count;
  uint most;
};

#include "ranking.glsl"

void main() {
  const uint i = gl_LocalInvocationID.x;
  const uint first = gl_WorkGroupID.x * kLocal * kEach + i;
  float values[kEach];
  for (uint e = 0u; e < kEach; ++e) {
    const uint id = first + e * kLocal;
    values[e] = id < count ? logits[gl_WorkGroupID.z * count + id] : minusInfinity();
  }

  const uint out_ = (gl_WorkGroupID.z * gl_NumWorkGroups.x + gl_WorkGroupID.x) * most;
  float lastValue = 0.0;
  uint lastId = kNowhere;
  for (uint rank = 0u; rank < most; ++rank) {
    float value = minusInfinity();
    uint found = kNowhere;
    for (uint e = 0u; e < kEach; ++e) {
      const uint id = first + e * kLocal;
      const bool left = id < count && (rank == 0u || before(lastValue, lastId, values[e], id));
      if (left && before(values[e], id, value, found)) {
        value = values[e];
        found = id;
      }
    }
    firstOfWorkgroup(value, found);
    if (i == 0u) parts[out_ + rank] = uvec2(floatBitsToUint(value), found);
    lastValue = value;
    lastId = found;
  }
}
