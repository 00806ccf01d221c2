// SPDX-License-Identifier: Apache-2.0
// What every product of a quantised matrix and a vector is told.
layout(push_constant) uniform PC {
  uint n;             // rows of the matrix, length of y
  uint k;             // columns of the matrix, length of x
  uint blocksPerCol;  // whole blocks in a row
  uint colBytes;      // bytes from one stored row to the next
#ifdef GEMV_OF_TOKENS
  uint add;           // 1: y += W x, 0: y = W x
#endif
};
