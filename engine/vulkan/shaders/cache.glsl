// SPDX-License-Identifier: Apache-2.0
// Pages of keys and values: of each key/value head the keys of 64 positions, component by
// component, and then their values, position by position. Numbers are half precision, two a
// word, or, with FLOAT_CACHE defined, floats. Sizes are even, so a pair of neighbouring numbers
// never lies in two words. The including shader declares the buffer `cache` as words.
const uint kPagePositions = 64u;

uint pageNumbers(uint kvHeads, uint size) { return kvHeads * 2u * kPagePositions * size; }

// The first key of a head in its page; its values begin kPagePositions * size further on.
uint keysOfHead(uint page, uint head, uint kvHeads, uint size) {
  return page * pageNumbers(kvHeads, size) + head * 2u * kPagePositions * size;
}

// Numbers `at`, which is even, and at + 1.
vec2 pairOf(uint at) {
#ifdef FLOAT_CACHE
  return uintBitsToFloat(uvec2(cache[at], cache[at + 1u]));
#else
  return unpackHalf2x16(cache[at / 2u]);
#endif
}
