// SPDX-License-Identifier: Apache-2.0
// A pair of elements seen as a point, turned by the angle whose (cos, sin) is given.
vec2 rotatePair(vec2 point, vec2 cosSin) {
  return vec2(point.x * cosSin.x - point.y * cosSin.y, point.y * cosSin.x + point.x * cosSin.y);
}
