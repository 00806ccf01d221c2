// SPDX-License-Identifier: Apache-2.0
// The sums of two values an invocation over a workgroup of 64, .x returned to
// invocation 32 and .y to invocation 0. The including shader declares
// `shared float sRed[64]`. Every invocation must call.
//
// The halves of the workgroup trade: invocation i < 32 adds up .x with its
// partner i + 32, which adds up .y. Then 32 partial sums of each become 8, and 1.
// Each place is read by one invocation only between two barriers, which may write
// it at once; so there are three barriers, and they are what a short reduction
// costs.
float twoRowSums(vec2 values) {
  const uint i = gl_LocalInvocationID.x;
  const bool lower = i < 32u;
  sRed[i] = lower ? values.y : values.x;
  barrier();
  sRed[i ^ 32u] += lower ? values.x : values.y;
  barrier();
  if ((i & 31u) < 8u) {
    sRed[i] = (sRed[i] + sRed[i + 8u]) + (sRed[i + 16u] + sRed[i + 24u]);
  }
  barrier();
  if ((i & 31u) != 0u) return 0.0;
  return ((sRed[i] + sRed[i + 1u]) + (sRed[i + 2u] + sRed[i + 3u])) +
         ((sRed[i + 4u] + sRed[i + 5u]) + (sRed[i + 6u] + sRed[i + 7u]));
}
