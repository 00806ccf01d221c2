// SPDX-License-Identifier: Apache-2.0
// The head that Q4_K and Q5_K blocks share: d and dmin (half precision) in the
// first word, eight 6-bit scales and eight 6-bit minima in the next three. Blocks
// of both types are whole words, so `block` is the index of a word of `w`.

const uint kQ4KWords = 36u;
const uint kQ5KWords = 44u;

// Scale and minimum of sub-block j (0 to 7), as integers.
uvec2 scaleAndMin(uint block, uint j) {
  const uint shift = (j & 3u) * 8u;
  const uint low = w[block + 1u] >> shift;
  const uint middle = w[block + 2u] >> shift;
  if (j < 4u) return uvec2(low & 63u, middle & 63u);
  const uint high = w[block + 3u] >> shift;
  return uvec2((high & 15u) | ((low >> 2) & 48u), ((high >> 4) & 15u) | ((middle >> 2) & 48u));
}

// What a code of sub-block j is multiplied by, and what is then subtracted.
vec2 scaledHead(uint block, uint j) {
  return unpackHalf2x16(w[block]) * vec2(scaleAndMin(block, j));
}
