// Q4KGemvNative: y = W x, two words of codes an invocation, two rows a workgroup, codes
// loaded as 16-bit numbers.
//
// x: k floats as vectors of four, the last one whole. w: n rows of Q4_K blocks, as
// words, a row every colBytes bytes (a multiple of 4). y: n floats. n, k, blocksPerCol:
// see gemv_push.glsl; where k is no multiple of 256, the rest of the last block counts
// as nothing.
// halves: the same bytes as w, as 16-bit numbers.
//
// 16 invocations share a block and four blocks of both rows are under way at once. The
// heads of the blocks are read as words, the codes by halves of a word, as a format
// whose blocks are no whole words has to be read: what this module loses against
// Q4KGemvLlamaSg is what narrow loads cost a device. Needs 16-bit storage buffers.
// Dispatch (n + 1) / 2 workgroups, in one row or a grid.
#version 450
#extension GL_GOOGLE_include_directive : require
#extension GL_EXT_shader_16bit_storage : require
layout(local_size_x = 64) in;

layout(std430, set = 0, binding = 0) readonly buffer X { vec4 x[]; };
layout(std430, set = 0, binding = 1) readonly buffer Halves { uint16_t halves[]; };
layout(std430, set = 0, binding = 2) readonly buffer W { uint w[]; };
layout(std430, set = 0, binding = 3) writeonly buffer Y { float y[]; };

const uint kLocal = gl_WorkGroupSize.x;
const uint kRows = 2u;
const uint kLanes = 16u;  // invocations a block
const bool kFactored = true;
shared float sRed[kLocal];

uint codesAt(uint word) {
  return uint(halves[2u * word]) | (uint(halves[2u * word + 1u]) << 16);
}
#define CODES_AT codesAt

#include "gemv_push.glsl"
#include "workgroup_sum.glsl"
#define X_AS_VECTORS
#include "x_quads.glsl"
#include "q4k_gemv_rows.glsl"
