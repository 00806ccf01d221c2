// SPDX-License-Identifier: Apache-2.0
// y = W x for a Q5_K matrix: the decoder's matrix-vector product.
//
// x: k floats as vectors of four. w: n rows of colBytes bytes, blocksPerCol blocks
// each. y: n floats. Dispatch (n + 1) / 2 workgroups, in one row or a grid. k is a
// multiple of 256.
#version 450
#extension GL_GOOGLE_include_directive : require
#define FIFTH_BIT
#include "k_gemv_two_rows.glsl"
