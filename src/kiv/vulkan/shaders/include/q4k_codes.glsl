// SPDX-License-Identifier: Apache-2.0
// Q4_K blocks times x. The 32 words of codes that follow the head of a block are
// four chunks of eight; word i of chunk c holds, in its low nibbles, elements
// 64c + 4i to 64c + 4i + 3 of the block (sub-block 2c) and in its high nibbles the
// elements 32 further on (sub-block 2c + 1). An element is worth code * s - m, with
// s and m from the head of its sub-block.
//
// kLanes invocations divide a block (4, 8, 16 or 32). Invocation `lane`
// takes every (kLanes / 4)th word of one chunk, so that neighbours load neighbouring
// words and each needs the heads of two sub-blocks only: the fewer lanes, the more
// codes share the work of unpacking those.
//
// The including shader sets kLanes and
//   bool kFactored: whether a lane adds s * sum(code * x) - m * sum(x), whose second
//     sum serves all rows, instead of sum((code * s - m) * x);
//   vec4 xQuad(uint quad): elements 4 * quad to 4 * quad + 3 of x, zeros from k on;
//   w: the words of the weights, also read by k_scales.glsl.

#include "four_bytes.glsl"
#include "k_scales.glsl"

const uint kStep = kLanes / 4u;   // lanes a chunk
const uint kWords = 8u / kStep;   // words a lane takes

// What a lane multiplies its codes by. low[i] and high[i] belong to the low and the
// high nibbles of its word i; sums are those of all low and of all high elements.
struct Inputs {
  vec4 low[kWords];
  vec4 high[kWords];
  vec2 sums;
};

// Word i of the lane's words, counted in its chunk.
uint wordOfLane(uint lane, uint i) { return lane % kStep + i * kStep; }

// `quad` is the first of the block's 64 in x.
Inputs inputsOf(uint quad, uint lane) {
  Inputs inputs;
  vec4 low = vec4(0.0);
  vec4 high = vec4(0.0);
  for (uint i = 0u; i < kWords; ++i) {
    const uint first = quad + lane / kStep * 16u + wordOfLane(lane, i);
    inputs.low[i] = xQuad(first);
    inputs.high[i] = xQuad(first + 8u);
    low += inputs.low[i];
    high += inputs.high[i];
  }
  const vec4 ones = vec4(1.0);
  inputs.sums = vec2(dot(low, ones), dot(high, ones));
  return inputs;
}

// The lane's part of the block that begins at word `block`, times x.
float laneProduct(uint block, uint lane, Inputs inputs) {
  const uint chunk = lane / kStep;
  const vec2 a = scaledHead(block, 2u * chunk);
  const vec2 b = scaledHead(block, 2u * chunk + 1u);
  float low = 0.0;
  float high = 0.0;
  for (uint i = 0u; i < kWords; ++i) {
    const uint codes = w[block + 4u + 8u * chunk + wordOfLane(lane, i)];
    const vec4 lowCodes = bytesOf(codes & 0x0f0f0f0fu);
    const vec4 highCodes = bytesOf(codes >> 4 & 0x0f0f0f0fu);
    if (kFactored) {
      low += dot(lowCodes, inputs.low[i]);
      high += dot(highCodes, inputs.high[i]);
    } else {
      low += dot(lowCodes * a.x - a.y, inputs.low[i]);
      high += dot(highCodes * b.x - b.y, inputs.high[i]);
    }
  }
  if (!kFactored) return low + high;
  return (a.x * low - a.y * inputs.sums.x) + (b.x * high - b.y * inputs.sums.y);
}
