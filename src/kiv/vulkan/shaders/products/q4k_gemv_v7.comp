// SPDX-License-Identifier: Apache-2.0
// Q4KGemvV7: y = W x, two words of codes an invocation, four rows a workgroup.
//
// x: k floats. w: n rows of Q4_K blocks, as words, a row every colBytes bytes (a
// multiple of 4). y: n floats. n, k, blocksPerCol: see gemv_push.glsl; where k is no
// multiple of 256, the rest of the last block counts as nothing.
//
// The minima are factored out: for a sub-block, sum((code * s - m) * x) is computed as
// s * sum(code * x) - m * sum(x), whose second sum serves four rows, and whose first
// needs one multiplication less for each code. Two words of the same chunk share the
// heads of their sub-blocks. For devices short of arithmetic, with n in the thousands.
// Dispatch (n + 3) / 4 workgroups, in one row or a grid.
#version 450
#extension GL_GOOGLE_include_directive : require
layout(local_size_x = 128) in;

layout(std430, set = 0, binding = 0) readonly buffer X { float x[]; };
layout(std430, set = 0, binding = 1) readonly buffer W { uint w[]; };
layout(std430, set = 0, binding = 2) writeonly buffer Y { float y[]; };

const uint kLocal = gl_WorkGroupSize.x;
const uint kRows = 4u;
const uint kLanes = 16u;  // invocations a block
const bool kFactored = true;
shared float sRed[kLocal];

#include "gemv_push.glsl"

#include "x_quads.glsl"
#include "q4k_gemv_rows.glsl"
