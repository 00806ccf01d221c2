// SPDX-License-Identifier: Apache-2.0
// Q4KGemvLlamaSg: y = W x for a Q4_K matrix, as Q4KGemvLlama, with sums by subgroups.
//
// x: k floats as vectors of four. w: n rows of colBytes bytes, blocksPerCol blocks
// each. y: n floats. Dispatch (n + 1) / 2 workgroups, in one row or a grid. k is a
// multiple of 256.
//
// One barrier at the end of a row in place of three, which counts where rows are
// short. Needs subgroup arithmetic in compute shaders, with subgroups of two or more.
#version 450
#extension GL_GOOGLE_include_directive : require
#extension GL_KHR_shader_subgroup_basic : require
#extension GL_KHR_shader_subgroup_arithmetic : require
#define SUBGROUP_SUMS
#include "k_gemv_two_rows.glsl"
