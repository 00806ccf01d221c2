// SPDX-License-Identifier: Apache-2.0
// vec4 xQuad(uint quad): elements 4 * quad to 4 * quad + 3 of x, zeros from k on.
// The including shader has declared the buffer `x`, as floats or, with X_AS_VECTORS
// defined, as vectors of four (the last one whole, whatever it holds from k on).
#ifdef X_AS_VECTORS
vec4 xQuad(uint quad) {
  const uint first = 4u * quad;
  if (first >= k) return vec4(0.0);
  return mix(vec4(0.0), x[quad], lessThan(first + uvec4(0u, 1u, 2u, 3u), uvec4(k)));
}
#else
float xOrZero(uint i) { return i < k ? x[i] : 0.0; }

vec4 xQuad(uint quad) {
  const uint first = 4u * quad;
  return vec4(xOrZero(first), xOrZero(first + 1u), xOrZero(first + 2u), xOrZero(first + 3u));
}
#endif
