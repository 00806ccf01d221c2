// The sum of one value an invocation over a workgroup: first within each subgroup,
// then over their sums. Any subgroup size will do. The including shader enables
// GL_KHR_shader_subgroup_arithmetic and declares `shared float sRed[]` with a place
// for each subgroup. Every invocation must call it; all get the sum, and sRed is
// free for the next call.
float workgroupSum(float value) {
  const float part = subgroupAdd(value);
  if (subgroupElect()) sRed[gl_SubgroupID] = part;
  barrier();
  float sum = 0.0;
  for (uint i = 0u; i < gl_NumSubgroups; ++i) sum += sRed[i];
  barrier();
  return sum;
}
