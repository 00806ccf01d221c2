// SPDX-License-Identifier: Apache-2.0
// Q6KGemvV2: y = W x for a Q6_K matrix, four rows a workgroup of 256.
//
// x: k floats. w: n rows of Q6_K blocks, as words, a row every colBytes bytes (a multiple
// of 2; the last word must be whole). y: n floats. n, k, blocksPerCol: see gemv_push.glsl;
// where k is no multiple of 256, the rest of the last block counts as nothing.
//
// 64 invocations a row, which read four blocks at once (see q6k_gemv_teams.glsl): rows of
// 1024 elements keep all busy, the four rows meet the same x in the caches, and a
// reduction takes two steps less than over the workgroup. For short rows and many of
// them. Dispatch (n + 3) / 4 workgroups, in one row or a grid.
#version 450
#extension GL_GOOGLE_include_directive : require
layout(local_size_x = 256) in;

const uint kLocal = gl_WorkGroupSize.x;
const uint kTeam = 64u;
#include "q6k_gemv_teams.glsl"
