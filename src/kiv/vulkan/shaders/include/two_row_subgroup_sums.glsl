// SPDX-License-Identifier: Apache-2.0
// two_row_sums.glsl by way of subgroups, of any size from two up: .x of the sum of all
// values is returned to invocation 32, .y to invocation 0. The including shader
// enables GL_KHR_shader_subgroup_arithmetic and declares `shared float sRed[64]`.
// Every invocation must call.
//
// Each subgroup adds up its values without shared memory and leaves its two sums in
// places of its own, so that one barrier is enough.
float twoRowSums(vec2 values) {
  const vec2 sums = subgroupAdd(values);
  if (subgroupElect()) {
    sRed[2u * gl_SubgroupID] = sums.x;
    sRed[2u * gl_SubgroupID + 1u] = sums.y;
  }
  barrier();
  const uint i = gl_LocalInvocationID.x;
  if ((i & 31u) != 0u) return 0.0;
  float sum = 0.0;
  for (uint s = 0u; s < gl_NumSubgroups; ++s) sum += sRed[2u * s + (i == 32u ? 0u : 1u)];
  return sum;
}
