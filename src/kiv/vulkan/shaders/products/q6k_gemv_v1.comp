// SPDX-License-Identifier: Apache-2.0
// Q6KGemvV1: y = W x for a Q6_K matrix, one row a workgroup of 128.
//
// x: k floats. w: n rows of Q6_K blocks, as words, a row every colBytes bytes (a multiple
// of 2; the last word must be whole). y: n floats. n, k, blocksPerCol: see gemv_push.glsl;
// where k is no multiple of 256, the rest of the last block counts as nothing.
//
// Eight blocks are read at once (see q6k_gemv_teams.glsl), so rows should have that many
// or more: for long rows, from 2048 elements, and for matrices of few rows, which keep
// most workgroups busy this way. Dispatch n workgroups, in one row or a grid.
#version 450
#extension GL_GOOGLE_include_directive : require
layout(local_size_x = 128) in;

const uint kLocal = gl_WorkGroupSize.x;
const uint kTeam = kLocal;
#include "q6k_gemv_teams.glsl"
