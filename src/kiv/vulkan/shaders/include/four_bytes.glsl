// SPDX-License-Identifier: Apache-2.0
// The four bytes of a word as numbers, the lowest first.
vec4 bytesOf(uint four) {
  return vec4(four & 255u, four >> 8 & 255u, four >> 16 & 255u, four >> 24);
}
