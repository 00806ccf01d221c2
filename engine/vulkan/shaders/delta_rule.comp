// SPDX-License-Identifier: Apache-2.0
// The gated delta rule and the gated norm behind it, one value head a workgroup. With query and
// key brought to length one, beta = sigmoid(b) and decay = exp(softplus(a + decayBias) *
// decayFactor), for each token of a run:
//   S *= decay;  S += k (beta (v - S^T k))^T;  o = S^T q / sqrt(size)
//   out = o weight / sqrt(mean of o^2 + eps) * silu(z)
// S^T q follows from the old state: decay (S^T q) + (k q) delta. So one pass over S gives both
// sums. An invocation keeps its part of one column of S from the first token to the last: the
// state is read once and written once.
//
// Bindings: runs (first token, count, state, unused), qkv (tokens x (2 keyHeads + valueHeads) x
// size), b and a (tokens x valueHeads), z and out (tokens x valueHeads x size), decayBias and
// decayFactor (valueHeads), weight (size), states (of one layer, stateFloats apart, beginning
// with the matrices). Push constants: keyHeads, valueHeads, size (at most 128), stateFloats,
// eps. Dispatch valueHeads workgroups in x, the runs in z.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kLocal = 256u;
const uint kMostSize = 128u;
const uint kHeld = 64u;  // elements of S an invocation
const uint kBlock = 8u;  // of them in a block
layout(local_size_x = kLocal) in;

layout(std430, set = 0, binding = 0) readonly buffer Runs { uvec4 runs[]; };
layout(std430, set = 0, binding = 1) readonly buffer Qkv { float qkv[]; };
layout(std430, set = 0, binding = 2) readonly buffer B { float b[]; };
layout(std430, set = 0, binding = 3) readonly buffer A { float a[]; };
layout(std430, set = 0, binding = 4) readonly buffer Z { float z[]; };
layout(std430, set = 0, binding = 5) readonly buffer DecayBias { float decayBias[]; };
layout(std430, set = 0, binding = 6) readonly buffer DecayFactor { float decayFactor[]; };
layout(std430, set = 0, binding = 7) readonly buffer Weight { float weight[]; };
layout(std430, set = 0, binding = 8) buffer States { float states[]; };
layout(std430, set = 0, binding = 9) writeonly buffer Out { float outputs[]; };

layout(push_constant) uniform PC {
  uint keyHeads;
  uint valueHeads;
  uint size;
  uint stateFloats;
  float eps;
};

shared float sQ[kMostSize];
shared float sK[kMostSize];
shared float sDelta[kMostSize];
shared vec2 sPart[kLocal];
shared vec4 sDots[kLocal];

#include "activations.glsl"

// ln(1 + e^x).
float softplus(float x) {
  if (x > 20.0) return x;
  const float e = exp(x);
  return e < 1e-3 ? e * (1.0 - 0.5 * e) : log(1.0 + e);
}

// The sums over the workgroup. Every invocation must call it.
vec3 workgroupSums(vec3 values) {
  const uint i = gl_LocalInvocationID.x;
  sDots[i] = vec4(values, 0.0);
  barrier();
  for (uint half_ = kLocal / 2u; half_ > 0u; half_ >>= 1) {
    if (i < half_) sDots[i] += sDots[i + half_];
    barrier();
  }
  const vec3 sums = sDots[0].xyz;
  barrier();
  return sums;
}

// Walks the invocation's elements, `rows` of them in use, by blocks: all bounds are constant, so
// that the elements stay in registers, and blocks without elements are skipped.
#define EACH_HELD(h)                                      \
  for (uint first_ = 0u; first_ < kHeld; first_ += kBlock) \
    if (first_ < rows)                                    \
      for (uint h = first_; h < first_ + kBlock; ++h)

void main() {
  const uvec4 run = runs[gl_WorkGroupID.z];
  const uint head = gl_WorkGroupID.x;
  const uint i = gl_LocalInvocationID.x;
  const uint groups = kLocal / size;  // of rows of S: row r lies in group r % groups
  const uint group = i / size;
  const uint column = i % size;
  const uint rows = (size + groups - 1u) / groups;
  const bool owns = i < size;  // the column's result
  const uint state = run.z * stateFloats + head * size * size;
  const uint channels = (2u * keyHeads + valueHeads) * size;

  float held[kHeld];
  EACH_HELD(h) {
    const uint row = h * groups + group;
    held[h] = group < groups && row < size ? states[state + row * size + column] : 0.0;
  }

  for (uint t = run.x; t < run.x + run.y; ++t) {
    const uint query = t * channels + head % keyHeads * size;
    if (owns) {
      sQ[i] = qkv[query + i];
      sK[i] = qkv[query + keyHeads * size + i];
    }
    const vec3 dots =
        workgroupSums(owns ? vec3(sQ[i] * sQ[i], sK[i] * sK[i], sQ[i] * sK[i]) : vec3(0.0));
    const float queryFactor = 1.0 / sqrt(dots.x + eps) / sqrt(float(size));
    const float keyFactor = 1.0 / sqrt(dots.y + eps);
    const uint gateAt = t * valueHeads + head;
    const float beta = sigmoid(b[gateAt]);
    const float decay = exp(softplus(a[gateAt] + decayBias[head]) * decayFactor[head]);

    vec2 part = vec2(0.0);  // of the column's S^T k and S^T q
    EACH_HELD(h) {
      const uint row = h * groups + group;
      if (row < size) part += held[h] * vec2(sK[row], sQ[row]);
    }
    sPart[i] = part;
    barrier();
    float o = 0.0;
    const uint at = (t * valueHeads + head) * size + column;
    if (owns) {
      for (uint g = 1u; g < groups; ++g) part += sPart[g * size + i];
      const float v = qkv[t * channels + 2u * keyHeads * size + head * size + i];
      const float delta = (v - decay * keyFactor * part.x) * beta;
      sDelta[i] = keyFactor * delta;
      o = queryFactor * (decay * part.y + dots.z * keyFactor * delta);
    }
    const float squares = workgroupSums(vec3(o * o, 0.0, 0.0)).x;  // and sDelta is there for all
    EACH_HELD(h) {
      const uint row = h * groups + group;
      if (row < size) held[h] = decay * held[h] + sK[row] * sDelta[column];
    }
    if (owns) {
      outputs[at] = o / sqrt(squares / float(size) + eps) * weight[i] * silu(z[at]);
    }
    barrier();  // the next token overwrites sQ and sK
  }

  EACH_HELD(h) {
    const uint row = h * groups + group;
    if (group < groups && row < size) states[state + row * size + column] = held[h];
  }
}
