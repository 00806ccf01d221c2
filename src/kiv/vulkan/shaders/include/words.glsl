// SPDX-License-Identifier: Apache-2.0
// Reading packed weights byte by byte. The including shader declares the buffer
// `w` as 32-bit words; a byte index counts from its start, little-endian. What is
// read must lie in whole words of the buffer.

// The four bytes from `at`, at any alignment.
uint wordAt(uint at) {
  const uint shift = (at & 3u) * 8u;
  const uint low = w[at >> 2] >> shift;
  return shift == 0u ? low : low | (w[(at >> 2) + 1u] << (32u - shift));
}

// The same where `at` is even and four further bytes follow in the buffer: no
// branch, since neighbours would take both ways.
uint evenWordAt(uint at) {
  const uint low = w[at >> 2];
  const uint next = w[(at >> 2) + 1u];
  return (at & 2u) == 0u ? low : low >> 16 | next << 16;
}

// The two bytes from `at`, which is even.
uint pairAt(uint at) { return (w[at >> 2] >> ((at & 2u) * 8u)) & 0xffffu; }

uint byteAt(uint at) { return (w[at >> 2] >> ((at & 3u) * 8u)) & 0xffu; }

float signedByteAt(uint at) { return float(bitfieldExtract(int(byteAt(at)), 0, 8)); }

// The half-precision number at `at`, which is even.
float halfAt(uint at) { return unpackHalf2x16(pairAt(at)).x; }
