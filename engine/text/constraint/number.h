// SPDX-License-Identifier: Apache-2.0
/// \file
/// Numbers within bounds, digit by digit: could what was written so far become one?
#pragma once

#include <cstdint>

#include "engine/text/json.h"

namespace zem::text {

/// A number in units of 1e-18; all that is computed with stays below 1e37.
__extension__ using Scaled = __int128;

/// 1 in these units.
inline constexpr Scaled kScaledOne = 1'000'000'000'000'000'000;

/// Digits that a bounded number has at most in front of the point, and behind it.
inline constexpr uint32_t kBoundedDigits = 18;

/// Above all numbers of kBoundedDigits digits.
inline constexpr Scaled kScaledLimit = kScaledOne * kScaledOne;

/// Bounds, both included.
struct NumberBounds {
  bool integer = false;          ///< only multiples of kScaledOne
  Scaled least = -kScaledLimit;  ///< no number below
  Scaled most = kScaledLimit;    ///< no number above

  /// Takes a bound of a schema into account; `bound` is a number. Bounds that 1e-18
  /// cannot express are moved inward.
  void addMinimum(const Json& bound, bool exclusive);
  void addMaximum(const Json& bound, bool exclusive);

  /// Whether a number is inside.
  bool any() const;
};

/// What was written of a number without an exponent.
struct NumberPrefix {
  bool negative = false;
  bool pointed = false;  ///< the point was written
  uint32_t digits = 0;   ///< in front of the point, or behind it once `pointed`
  Scaled magnitude = 0;  ///< of what was written, without its sign

  /// The same with one more digit. There are fewer than kBoundedDigits.
  NumberPrefix with(uint32_t digit) const;
};

/// Whether the number, as it stands, is inside.
bool isInside(const NumberBounds& bounds, const NumberPrefix& prefix);

/// Whether it is, or could be after more digits or a point.
bool canGetInside(const NumberBounds& bounds, const NumberPrefix& prefix);

}  // namespace zem::text
