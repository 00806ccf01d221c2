// SPDX-License-Identifier: Apache-2.0
// (cos, sin) of an angle that may be thousands of turns. The built-in functions
// promise no accuracy beyond half a turn and little within. Here the quarter turns
// are taken off first: a quarter is the sum of three numbers, of which the first two
// have so few bits that their products with a count below 2^13 are exact. What is
// left, at most an eighth of a turn, goes through the series. The error is a few
// 2^-24 plus about one unit in the last place of the angle.
vec2 cosSin(float angle) {
  const float quarters = roundEven(angle * 0.636619772);
  precise float r = angle - quarters * 1.5703125;
  r = r - quarters * 0.0004837512969970703125;
  r = r - quarters * 7.549790126404332e-8;

  const float s = r * r;
  const float sineTail = 1.0 / 120.0 + s * (-1.0 / 5040.0 + s * (1.0 / 362880.0));
  const float sine = r * (1.0 + s * (-1.0 / 6.0 + s * sineTail));
  const float cosineTail =
      1.0 / 24.0 + s * (-1.0 / 720.0 + s * (1.0 / 40320.0 + s * (-1.0 / 3628800.0)));
  const float cosine = 1.0 + s * (-0.5 + s * cosineTail);

  const uint quadrant = uint(int(quarters)) & 3u;
  const vec2 turned = (quadrant & 1u) == 0u ? vec2(cosine, sine) : vec2(-sine, cosine);
  return quadrant < 2u ? turned : -turned;
}
