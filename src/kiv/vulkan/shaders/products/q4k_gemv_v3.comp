// SPDX-License-Identifier: Apache-2.0
// Q4KGemvV3: y = W x, a word of codes an invocation, two rows a workgroup.
//
// x: k floats. w: n rows of Q4_K blocks, as words, a row every colBytes bytes (a
// multiple of 4). y: n floats. n, k, blocksPerCol: see gemv_push.glsl; where k is no
// multiple of 256, the rest of the last block counts as nothing.
//
// As Q4KGemvV2, but what is read of x serves two rows, and the loads of both are
// under way together. For matrices with rows enough to fill the device at half the
// number of workgroups. Dispatch (n + 1) / 2 workgroups, in one row or a grid.
#version 450
#extension GL_GOOGLE_include_directive : require
layout(local_size_x = 128) in;

layout(std430, set = 0, binding = 0) readonly buffer X { float x[]; };
layout(std430, set = 0, binding = 1) readonly buffer W { uint w[]; };
layout(std430, set = 0, binding = 2) writeonly buffer Y { float y[]; };

const uint kLocal = gl_WorkGroupSize.x;
const uint kRows = 2u;
const uint kLanes = 32u;  // invocations a block
const bool kFactored = false;
shared float sRed[kLocal];

#include "gemv_push.glsl"

#include "x_quads.glsl"
#include "q4k_gemv_rows.glsl"
