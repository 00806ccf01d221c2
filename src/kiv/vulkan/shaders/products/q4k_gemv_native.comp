// SPDX-License-Identifier: Apache-2.0
// Q4KGemvNative: y = W x for a Q4_K matrix, as Q4KGemvLlama, with 16-bit loads.
//
// x: k floats as vectors of four. halves and w: n rows of colBytes bytes, blocksPerCol
// blocks each, the same bytes once as 16-bit numbers and once as words. y: n floats.
// Dispatch (n + 1) / 2 workgroups, in one row or a grid. k is a multiple of 256.
//
// The heads of blocks are read as words, the codes in halves of a word, as a format
// whose blocks are no whole words has to be read. For Q4_K, whose blocks are, it shows
// what narrow loads cost a device against Q4KGemvLlama, or whether they cost nothing.
// Needs 16-bit storage buffers.
#version 450
#extension GL_GOOGLE_include_directive : require
#extension GL_EXT_shader_16bit_storage : require
#define HALF_WORDS
#include "k_gemv_two_rows.glsl"
