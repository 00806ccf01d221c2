// Q4KGemvLlamaSg: y = W x, two words of codes an invocation, two rows a workgroup,
// sums by subgroups.
//
// x: k floats as vectors of four, the last one whole. w: n rows of Q4_K blocks, as
// words, a row every colBytes bytes (a multiple of 4). y: n floats. n, k, blocksPerCol:
// see gemv_push.glsl; where k is no multiple of 256, the rest of the last block counts
// as nothing.
//
// 16 invocations share a block and four blocks of both rows are under way at once. A
// row's 64 sums are added within the subgroups, without shared memory, and only the
// subgroups' sums pass through it: two barriers in place of eight, which counts where
// rows are short. Needs subgroup arithmetic in compute shaders; subgroups of any size.
// Dispatch (n + 1) / 2 workgroups, in one row or a grid.
#version 450
#extension GL_GOOGLE_include_directive : require
#extension GL_KHR_shader_subgroup_basic : require
#extension GL_KHR_shader_subgroup_arithmetic : require
layout(local_size_x = 64) in;

layout(std430, set = 0, binding = 0) readonly buffer X { vec4 x[]; };
layout(std430, set = 0, binding = 1) readonly buffer W { uint w[]; };
layout(std430, set = 0, binding = 2) writeonly buffer Y { float y[]; };

const uint kLocal = gl_WorkGroupSize.x;
const uint kRows = 2u;
const uint kLanes = 16u;  // invocations a block
const bool kFactored = true;
shared float sRed[kLocal];

#include "gemv_push.glsl"
#include "subgroup_sum.glsl"
#define X_AS_VECTORS
#include "x_quads.glsl"
#include "q4k_gemv_rows.glsl"
