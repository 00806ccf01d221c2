// SPDX-License-Identifier: Apache-2.0
// Q4KGemvV8: y = W x, eight rows a workgroup, 32 invocations a row, x in shared memory.
//
// x: k floats. w: n rows of Q4_K blocks, as words, a row every colBytes bytes (a
// multiple of 4). y: n floats. n, k, blocksPerCol: see gemv_push.glsl; where k is no
// multiple of 256, the rest of the last block counts as nothing.
//
// Each piece of 4096 elements of x is read from device memory once for eight rows, and
// each invocation takes a word of codes of every block of its row. Teams stand in for
// subgroups: no device needs to offer any, and none of the sums crosses a row. For wide
// matrices on devices whose caches are too small or too slow for x. Dispatch
// (n + 7) / 8 workgroups, in one row or a grid.
#version 450
#extension GL_GOOGLE_include_directive : require
layout(local_size_x = 256) in;

layout(std430, set = 0, binding = 0) readonly buffer X { float x[]; };
layout(std430, set = 0, binding = 1) readonly buffer W { uint w[]; };
layout(std430, set = 0, binding = 2) writeonly buffer Y { float y[]; };

const uint kLocal = gl_WorkGroupSize.x;
const uint kLanes = 32u;  // invocations a row, and a block
const bool kFactored = false;
shared float sX[4096];
shared float sRed[kLocal];

#include "gemv_push.glsl"
#include "x_staged.glsl"
#include "q4k_gemv_teams.glsl"
