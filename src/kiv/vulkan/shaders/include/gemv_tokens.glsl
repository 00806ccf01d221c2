// SPDX-License-Identifier: Apache-2.0
// Where a product of a matrix and a vector reads and writes. With GEMV_OF_TOKENS defined, x and
// y hold a vector for each token, one after the other; gl_WorkGroupID.z counts the tokens, and
// `add` of gemv_push.glsl says whether y is added to. Otherwise there is one vector.
#ifdef GEMV_OF_TOKENS
uint firstOfX() { return gl_WorkGroupID.z * k; }

void storeRow(uint row, float sum) {
  const uint at = gl_WorkGroupID.z * n + row;
  y[at] = add == 0u ? sum : y[at] + sum;
}
#else
uint firstOfX() { return 0u; }

void storeRow(uint row, float sum) { y[row] = sum; }
#endif
