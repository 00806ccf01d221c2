// SPDX-License-Identifier: Apache-2.0
// The short convolution of linear attention: each channel over its last four tokens, then SiLU,
// in place.
//
// Bindings: runs (first token, count, state, unused), taps (four a channel, tapStride apart),
// states (of one layer; the three last inputs of each channel, oldest first, lie at windowAt of
// a state's stateFloats), qkv (tokens x channels). Push constants: channels, tapStride,
// stateFloats, windowAt. Dispatch ceil(channels / 256) workgroups in x, the runs in z. An
// invocation owns a channel and walks the tokens of its run.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kLocal = 256u;
layout(local_size_x = kLocal) in;

layout(std430, set = 0, binding = 0) readonly buffer Runs { uvec4 runs[]; };
layout(std430, set = 0, binding = 1) readonly buffer Taps { float taps[]; };
layout(std430, set = 0, binding = 2) buffer States { float states[]; };
layout(std430, set = 0, binding = 3) buffer Qkv { float qkv[]; };

layout(push_constant) uniform PC {
  uint channels;
  uint tapStride;
  uint stateFloats;
  uint windowAt;
};

#include "activations.glsl"

void main() {
  const uint c = gl_WorkGroupID.x * kLocal + gl_LocalInvocationID.x;
  if (c >= channels) return;
  const uvec4 run = runs[gl_WorkGroupID.z];
  const uint window = run.z * stateFloats + windowAt + 3u * c;
  const uint tap = c * tapStride;
  const vec4 weights = vec4(taps[tap], taps[tap + 1u], taps[tap + 2u], taps[tap + 3u]);
  vec4 inputs = vec4(0.0, states[window], states[window + 1u], states[window + 2u]);
  for (uint t = 0u; t < run.y; ++t) {
    const uint at = (run.x + t) * channels + c;
    inputs = vec4(inputs.yzw, qkv[at]);
    qkv[at] = silu(dot(weights, inputs));
  }
  states[window] = inputs.y;
  states[window + 1u] = inputs.z;
  states[window + 2u] = inputs.w;
}
