// SPDX-License-Identifier: Apache-2.0
// Q4KGemmDecode: y = W x, 64 rows a workgroup, four invocations a row, x in shared memory.
//
// x: k floats. w: n rows of Q4_K blocks, as words, a row every colBytes bytes (a
// multiple of 4). y: n floats. n, k, blocksPerCol: see gemv_push.glsl; where k is no
// multiple of 256, the rest of the last block counts as nothing.
//
// The partition of a matrix product with one vector: each piece of 4096 elements of x is
// read from device memory once for 64 rows, and each invocation takes one chunk of
// every block of its row, 64 codes for the heads of two sub-blocks. The least
// arithmetic and the fewest reads of x of all variants, but loads of neighbours lie
// 32 bytes apart and a small matrix keeps few workgroups busy: for n in the tens of
// thousands, an output head for instance. Dispatch (n + 63) / 64 workgroups, in one row
// or a grid.
#version 450
#extension GL_GOOGLE_include_directive : require
layout(local_size_x = 256) in;

layout(std430, set = 0, binding = 0) readonly buffer X { float x[]; };
layout(std430, set = 0, binding = 1) readonly buffer W { uint w[]; };
layout(std430, set = 0, binding = 2) writeonly buffer Y { float y[]; };

const uint kLocal = gl_WorkGroupSize.x;
const uint kLanes = 4u;  // invocations a row, and a block
const bool kFactored = true;
shared float sX[4096];
#define sRed sX  // rows are reduced when x is no longer needed

#include "gemv_push.glsl"
#include "x_staged.glsl"
#include "q4k_gemv_teams.glsl"
