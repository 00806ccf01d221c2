// SPDX-License-Identifier: Apache-2.0
// Q6KGemvNative: y = W x for a Q6_K matrix, its weights read as 16- and 8-bit numbers.
//
// x: k floats as vectors of four. halves, bytes: two views of the same n rows of colBytes
// bytes (a multiple of 2), blocksPerCol blocks each; the last half must be whole. y: n
// floats. Dispatch (n + 1) / 2 workgroups, in one row or a grid. k is a multiple of 256.
//
// Two rows a workgroup of 64, divided as q6k_gemv_two_rows.glsl says. Every part of a
// block begins at an even byte, so two halves make a word at any block without the shifts
// and the third load that words at odd halves cost, and a scale comes with its sign. Wins
// on devices that load narrow numbers at full rate; needs 8- and 16-bit storage buffers.
#version 450
#extension GL_GOOGLE_include_directive : require
#extension GL_EXT_shader_16bit_storage : require
#extension GL_EXT_shader_8bit_storage : require

layout(local_size_x = 64) in;

const uint kLocal = 64u;
const uint kAtOnce = 4u;  // blocks

layout(std430, set = 0, binding = 0) readonly buffer X { vec4 x[]; };
layout(std430, set = 0, binding = 1) readonly buffer Halves { uint16_t halves[]; };
layout(std430, set = 0, binding = 2) readonly buffer Bytes { int8_t bytes[]; };
layout(std430, set = 0, binding = 3) writeonly buffer Y { float y[]; };

shared float sScale[16][kAtOnce][2];  // sub-block, block, row
shared float sRed[kLocal];

uint evenWordAt(uint at) { return uint(halves[at >> 1]) | uint(halves[(at >> 1) + 1u]) << 16; }

float halfAt(uint at) { return unpackHalf2x16(uint(halves[at >> 1])).x; }

float signedByteAt(uint at) { return float(int(bytes[at])); }

#include "gemv_push.glsl"
#include "two_row_sums.glsl"

#include "q6k_gemv_two_rows.glsl"
