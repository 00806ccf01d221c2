// SPDX-License-Identifier: Apache-2.0
// Blocks of Q6_K: 256 elements in 210 bytes, low four bits of the codes, high two,
// 16 signed scales, a half-precision scale for all. An element is (code - 32) * scale of
// its 16 * d.
//
// Four neighbouring bytes of each of three places make up 16 elements: `part` 0 to 15 of a
// block is, with h = part / 8 and l = 4 (part % 8), elements 128 h + 32 q + l + 0..3 for
// q = 0 to 3. Low bits of q = 0 and 2 share the bytes at 64 h + l, those of q = 1 and 3
// the bytes at 64 h + 32 + l; high bits of all four the bytes at 128 + 32 h + l.
//
// The including shader provides, for any byte of the weights that a block calls for,
// uint evenWordAt(uint at) (four bytes), float halfAt(uint at) and float signedByteAt(uint at);
// `block` is the byte at which a block begins.

#include "four_bytes.glsl"

const uint kBlockBytes = 210u;
const uint kHighBits = 128u;  // byte of the block where the high bits begin
const uint kScales = 192u;
const uint kSuperScale = 208u;

// Four codes, each with its 32 taken off, from the lowest bits of each byte.
vec4 codes(uint low, uint high) {
  return bytesOf((low & 0x0f0f0f0fu) | (high & 0x03030303u) << 4) - 32.0;
}

// The codes of a part times the four x of each q: what remains is to multiply by the
// scales of sub-blocks firstScale, firstScale + 2, + 4 and + 6.
vec4 partDots(uint block, uint part, vec4 xs[4]) {
  const uint half_ = part >> 3;
  const uint l = 4u * (part & 7u);
  const uint low0 = evenWordAt(block + 64u * half_ + l);
  const uint low1 = evenWordAt(block + 64u * half_ + 32u + l);
  const uint high = evenWordAt(block + kHighBits + 32u * half_ + l);
  return vec4(dot(codes(low0, high), xs[0]), dot(codes(low1, high >> 2), xs[1]),
              dot(codes(low0 >> 4, high >> 4), xs[2]), dot(codes(low1 >> 4, high >> 6), xs[3]));
}

uint firstScale(uint part) { return 8u * (part >> 3) + ((part & 7u) >> 2); }
