// SPDX-License-Identifier: Apache-2.0
// Where the rows of a matrix of 256-element blocks lie. Include gemv_push.glsl and
// set kBlockWords, the words of a block, before.

const uint kBlock = 256u;
#include "row_blocks.glsl"

// The word of the matrix at which block `b` of row `row` begins.
uint blockWord(uint row, uint b) { return row * (colBytes >> 2) + b * kBlockWords; }
