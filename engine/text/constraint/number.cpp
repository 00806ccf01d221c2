// SPDX-License-Identifier: Apache-2.0
#include "engine/text/constraint/number.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>
#include <string_view>

namespace zem::text {
namespace {

struct Interval {
  Scaled least;
  Scaled most;
};

bool meet(const Interval& a, const Interval& b) {
  return std::max(a.least, b.least) <= std::min(a.most, b.most);
}

Scaled powerOfTen(uint32_t exponent) {
  Scaled power = 1;
  for (uint32_t i = 0; i < exponent; ++i) power *= 10;
  return power;
}

Scaled floorDivided(Scaled value, Scaled divisor) {
  const Scaled quotient = value / divisor;
  return quotient * divisor > value ? quotient - 1 : quotient;
}

// The shortest decimal number that reads back as `value`: its digits are below 1e17.
struct Decimal {
  Scaled digits = 0;  // with the sign
  int exponent = 0;   // the number is digits * 10^exponent
};

Decimal shortestDecimal(double value) {
  std::array<char, 40> buffer{};
  const auto end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), std::abs(value),
                                 std::chars_format::scientific);
  const std::string_view text(buffer.data(), static_cast<size_t>(end.ptr - buffer.data()));
  const size_t mark = text.find('e');
  Decimal decimal;
  for (const char c : text.substr(0, mark)) {
    if (c >= '0' && c <= '9') decimal.digits = decimal.digits * 10 + (c - '0');
  }
  const std::string_view exponent = text.substr(mark + (text[mark + 1] == '+' ? 2 : 1));
  std::from_chars(exponent.data(), exponent.data() + exponent.size(), decimal.exponent);
  if (mark > 1) decimal.exponent -= static_cast<int>(mark) - 2;  // digits behind the point
  if (value < 0) decimal.digits = -decimal.digits;
  return decimal;
}

// The largest multiple of 1e-18 that is not above `bound`. `exact`: it is the bound.
Scaled scaledFloor(const Json& bound, bool& exact) {
  exact = true;
  Scaled value = 0;
  if (bound.is_number_unsigned()) {
    value = Scaled{bound.get<uint64_t>()} * kScaledOne;
  } else if (bound.is_number_integer()) {
    value = Scaled{bound.get<int64_t>()} * kScaledOne;
  } else {
    const double number = bound.get<double>();
    if (std::abs(number) >= 1e18) return number < 0 ? -kScaledLimit - 1 : kScaledLimit + 1;
    const Decimal decimal = shortestDecimal(number);
    const int shift = decimal.exponent + 18;
    if (shift >= 0) {
      value = decimal.digits * powerOfTen(static_cast<uint32_t>(shift));
    } else {
      const Scaled divisor = powerOfTen(static_cast<uint32_t>(std::min(-shift, 18)));
      value = floorDivided(decimal.digits, divisor);
      exact = value * divisor == decimal.digits;
    }
  }
  return std::clamp(value, -kScaledLimit - 1, kScaledLimit + 1);
}

Interval magnitudes(const NumberBounds& bounds, bool negative) {
  const Scaled least = negative ? -bounds.most : bounds.least;
  return {std::max<Scaled>(least, 0), negative ? -bounds.least : bounds.most};
}

}  // namespace

void NumberBounds::addMinimum(const Json& bound, bool exclusive) {
  bool exact = false;
  Scaled value = scaledFloor(bound, exact);
  if (!exact || exclusive) ++value;
  if (integer) value = -floorDivided(-value, kScaledOne) * kScaledOne;
  least = std::max(least, value);
}

void NumberBounds::addMaximum(const Json& bound, bool exclusive) {
  bool exact = false;
  Scaled value = scaledFloor(bound, exact);
  if (exact && exclusive) --value;
  if (integer) value = floorDivided(value, kScaledOne) * kScaledOne;
  most = std::min(most, value);
}

bool NumberBounds::any() const {
  return canGetInside(*this, {}) || canGetInside(*this, {.negative = true});
}

NumberPrefix NumberPrefix::with(uint32_t digit) const {
  NumberPrefix next = *this;
  ++next.digits;
  if (pointed) {
    next.magnitude += powerOfTen(kBoundedDigits - next.digits) * digit;
  } else {
    next.magnitude = magnitude * 10 + kScaledOne * digit;
  }
  return next;
}

bool isInside(const NumberBounds& bounds, const NumberPrefix& prefix) {
  return meet(magnitudes(bounds, prefix.negative), {prefix.magnitude, prefix.magnitude});
}

bool canGetInside(const NumberBounds& bounds, const NumberPrefix& prefix) {
  const Interval allowed = magnitudes(bounds, prefix.negative);
  if (prefix.pointed) {
    const Scaled finer = powerOfTen(kBoundedDigits - prefix.digits);
    return meet(allowed, {prefix.magnitude, prefix.magnitude + finer - 1});
  }
  // With so many more digits in front of the point. Behind a zero there are none.
  const uint32_t more =
      prefix.digits > 0 && prefix.magnitude == 0 ? 0 : kBoundedDigits - prefix.digits;
  const Scaled finest = bounds.integer ? kScaledOne : 1;
  for (uint32_t count = 0; count <= more; ++count) {
    const Scaled power = powerOfTen(count);
    const Scaled least = prefix.magnitude * power;
    if (meet(allowed, {least, least + power * kScaledOne - finest})) return true;
  }
  return false;
}

}  // namespace zem::text
