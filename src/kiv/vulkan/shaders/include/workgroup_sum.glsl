// SPDX-License-Identifier: Apache-2.0
// The sum of one value an invocation over a workgroup, by halving. The including
// shader declares `shared float sRed[kLocal]`, with kLocal = gl_WorkGroupSize.x a
// power of two. Every invocation must call it; all get the sum, and sRed is free
// for the next call.
#define TEAM_REDUCE teamSum
#define TEAM_COMBINE(a, b) ((a) + (b))
#include "team_reduce.glsl"
#undef TEAM_COMBINE
#undef TEAM_REDUCE

float workgroupSum(float value) { return teamSum(value, kLocal); }
