// SPDX-License-Identifier: Apache-2.0
// The largest of one value an invocation over a workgroup: as workgroup_sum.glsl.
#define TEAM_REDUCE teamMax
#define TEAM_COMBINE(a, b) max(a, b)
#include "team_reduce.glsl"
#undef TEAM_COMBINE
#undef TEAM_REDUCE

float workgroupMax(float value) { return teamMax(value, kLocal); }
