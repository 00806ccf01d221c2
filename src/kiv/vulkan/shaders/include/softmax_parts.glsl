// SPDX-License-Identifier: Apache-2.0
// Softmax in one pass over its input: of the values seen so far, the largest (x) and
// the sum of exp(value - largest) (y). Nothing overflows, and a value of minus
// infinity weighs nothing, even when there are no others.
const vec2 kNoParts = vec2(-3.402823466e38, 0.0);

vec2 addPart(vec2 parts, float value) {
  return value > parts.x ? vec2(value, parts.y * exp(parts.x - value) + 1.0)
                         : vec2(parts.x, parts.y + exp(value - parts.x));
}

vec2 joinParts(vec2 a, vec2 b) {
  const float largest = max(a.x, b.x);
  return vec2(largest, a.y * exp(a.x - largest) + b.y * exp(b.x - largest));
}

// What the sum turns into: weights add up to 1, or are 0 when nothing weighs.
float inverseOfSum(float sum) { return sum == 0.0 ? 0.0 : 1.0 / sum; }

// The parts of a whole workgroup. The including shader declares
// `shared float sMax[kLocal], sRed[kLocal]`, with kLocal = gl_WorkGroupSize.x a
// power of two. Every invocation must call it; all get the same parts.
vec2 workgroupParts(vec2 parts) {
  const uint i = gl_LocalInvocationID.x;
  sMax[i] = parts.x;
  sRed[i] = parts.y;
  barrier();
  for (uint half_ = kLocal / 2u; half_ > 0u; half_ >>= 1) {
    if (i < half_) {
      parts = joinParts(vec2(sMax[i], sRed[i]), vec2(sMax[i + half_], sRed[i + half_]));
      sMax[i] = parts.x;
      sRed[i] = parts.y;
    }
    barrier();
  }
  parts = vec2(sMax[0], sRed[0]);
  barrier();
  return parts;
}
