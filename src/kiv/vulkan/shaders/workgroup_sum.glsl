// The sum of one value an invocation over a workgroup, by halving. The including
// shader declares `shared float sRed[kLocal]`, with kLocal = gl_WorkGroupSize.x a
// power of two. Every invocation must call it; all get the sum, and sRed is free
// for the next call.
float workgroupSum(float value) {
  const uint i = gl_LocalInvocationID.x;
  sRed[i] = value;
  barrier();
  for (uint half_ = kLocal / 2u; half_ > 0u; half_ >>= 1) {
    if (i < half_) sRed[i] += sRed[i + half_];
    barrier();
  }
  const float sum = sRed[0];
  barrier();
  return sum;
}
