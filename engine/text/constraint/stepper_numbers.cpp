// SPDX-License-Identifier: Apache-2.0
// Numbers of JSON.
#include <utility>

#include "engine/text/constraint/stepper.h"

namespace zem::text::grammar {
namespace {

constexpr uint32_t kMostDigits = 40;         // of an unbounded number, in a row
constexpr uint32_t kMostExponentDigits = 2;  // with more, a double can overflow

}  // namespace

void Stepper::step(const Number& number, Way way) {
  if (number.bounded) {
    stepBounded(number, std::move(way));
  } else {
    stepUnbounded(number, std::move(way));
  }
}

// a: digits in a row.
void Stepper::stepUnbounded(const Number& number, Way way) {
  Frame& top = way.top;
  const auto to = [&](uint8_t phase) {
    top.a = top.phase == phase ? top.a + 1 : 1;
    top.phase = phase;
    keep(std::move(way));
  };
  const bool whole = top.phase == Zero || top.phase == Digits || top.phase == Fraction;
  switch (top.phase) {
    case NumberBegin:
      if (byte_ == '-') return to(Minus);
      [[fallthrough]];
    case Minus:
      if (byte_ == '0') return to(Zero);
      if (isDigit(byte_)) return to(Digits);
      return;
    case Digits:
      if (isDigit(byte_) && top.a < kMostDigits) return to(Digits);
      break;
    case Point:
    case Fraction:
      if (isDigit(byte_) && (top.phase == Point || top.a < kMostDigits)) return to(Fraction);
      break;
    case Exponent:
      if (byte_ == '+' || byte_ == '-') return to(ExponentSign);
      [[fallthrough]];
    case ExponentSign:
    case ExponentDigits:
      if (isDigit(byte_) && (top.phase != ExponentDigits || top.a < kMostExponentDigits)) {
        return to(ExponentDigits);
      }
      break;
    default:
      break;
  }
  if (!number.integer && byte_ == '.' && (top.phase == Zero || top.phase == Digits)) {
    return to(Point);
  }
  if (!number.integer && (byte_ == 'e' || byte_ == 'E') && whole) return to(Exponent);
  if (whole || top.phase == ExponentDigits) endBefore(way);
}

NumberPrefix Stepper::prefixOf(const Frame& top) {
  NumberPrefix prefix;
  prefix.negative = (top.flags & kNegative) != 0;
  prefix.pointed = top.phase == Point || top.phase == Fraction;
  prefix.digits = top.a;
  prefix.magnitude = static_cast<Scaled>(top.bits[1]) * kScaledOne + top.bits[0];
  return prefix;
}

// a: digits in front of the point, or behind it; bits: the magnitude's fraction and whole.
void Stepper::stepBounded(const Number& number, Way way) {
  Frame& top = way.top;
  const NumberPrefix before = prefixOf(top);
  NumberPrefix after = before;
  const bool whole = top.phase == Zero || top.phase == Digits;
  if (byte_ == '-' && top.phase == NumberBegin) {
    top.phase = Minus;
    top.flags = kNegative;
    after.negative = true;
  } else if (byte_ == '.' && whole && !number.integer) {
    top.phase = Point;
    after.pointed = true;
    after.digits = 0;
  } else if (isDigit(byte_) && top.phase != Zero && top.a < kBoundedDigits) {
    after = before.with(byte_ - uint32_t{'0'});
    top.phase = after.pointed ? Fraction : before.digits == 0 && byte_ == '0' ? Zero : Digits;
  } else {
    if ((whole || top.phase == Fraction) && isInside(number.bounds, before)) endBefore(way);
    return;
  }
  if (!canGetInside(number.bounds, after)) return;
  top.a = after.digits;
  top.bits = {static_cast<uint64_t>(after.magnitude % kScaledOne),
              static_cast<uint64_t>(after.magnitude / kScaledOne)};
  keep(std::move(way));
}

}  // namespace zem::text::grammar
