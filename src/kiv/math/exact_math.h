// SPDX-License-Identifier: Apache-2.0
/// \file
/// Elementary functions with one result on every machine.
///
/// The C library's exp and its kin differ in the last bit between versions and
/// between processors, and a decoder feeds its own output back: one bit of
/// difference becomes another text. These use only operations that IEEE 754
/// fixes exactly (add, subtract, multiply, divide, conversions, in double), each
/// written separately, so a vector version with the same steps gives the same
/// bits. Pure; any thread.
#pragma once

#include <cstdint>

namespace kiv::math {

/// e^x rounded to float; within 0.51 units in the last place. Overflows to
/// infinity above 88.72..., underflows gradually to 0; NaN stays NaN.
float expF32(float x);

/// log(1 + x) rounded to float, for x >= 0; within 0.51 units in the last place.
/// Infinity stays infinity, NaN stays NaN, a negative x gives NaN below -1.
float log1pF32(float x);

/// e^x in double, within 1 unit in the last place for |x| < 700.
double expF64(double x);

/// The natural logarithm in double, within 2 units in the last place. 0 gives negative
/// infinity, a negative x NaN; infinity and NaN stay.
double logF64(double x);

/// Sine and cosine of `angle` (radians), |angle| <= 2^20, absolute error below
/// 1e-15: rounding to float is right but for near-ties.
void sinCosF64(double angle, double& sine, double& cosine);

}  // namespace kiv::math
