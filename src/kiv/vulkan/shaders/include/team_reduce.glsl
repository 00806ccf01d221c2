// SPDX-License-Identifier: Apache-2.0
// TEAM_REDUCE(value, team): TEAM_COMBINE over the values of each `team` neighbouring
// invocations, by halving. The including shader sets both macros and declares
// `shared float sRed[kLocal]` with kLocal = gl_WorkGroupSize.x; `team` is a power of
// two that divides kLocal. Every invocation of the workgroup must call it; all get
// their team's result, and sRed is free for the next call.
float TEAM_REDUCE(float value, uint team) {
  const uint i = gl_LocalInvocationID.x;
  const uint first = i & ~(team - 1u);
  sRed[i] = value;
  barrier();
  for (uint half_ = team / 2u; half_ > 0u; half_ >>= 1) {
    if (i - first < half_) sRed[i] = TEAM_COMBINE(sRed[i], sRed[i + half_]);
    barrier();
  }
  const float result = sRed[first];
  barrier();
  return result;
}
