// SPDX-License-Identifier: Apache-2.0
// What the tests of shaders over floats share: inputs with something behind them that
// must not matter, outputs with something behind them that must stay, and results
// that are held to an error bound of their own.
#pragma once

#include <cmath>
#include <limits>

#include "kiv/quant_k.h"
#include "kiv/quant_testing.h"
#include "support/float_values.h"
#include "support/shader_runner.h"

namespace zemtest {

using namespace kiv;

// The relative distance of neighbouring floats: what one unit in the last place is at
// most, and twice the error of one correctly rounded operation.
inline constexpr double kUlp = 0x1p-23;

// Elements behind what a shader may touch.
inline constexpr size_t kGuard = 3;
inline constexpr float kUntouched = -12345.0F;

inline constexpr uint32_t kQ4KBytes = sizeof(quant::Q4KBlock);

// `x` with NaN behind it: a shader that reads too far spoils its result.
inline BufferBytes guarded(std::vector<float> x) {
  x.resize(x.size() + kGuard, kNan);
  return bytesOf(x);
}

// Room for `n` results.
inline BufferBytes room(size_t n) { return bytesOf(std::vector<float>(n + kGuard, kUntouched)); }

// `x` to be changed in place.
inline BufferBytes changeable(std::vector<float> x) {
  x.resize(x.size() + kGuard, kUntouched);
  return bytesOf(x);
}

struct Expected {
  double value = 0;
  double tolerance = 0;  // 0: the value itself
};

// Holds a buffer from `room` or `changeable` to what it should have become.
inline void expectResults(const BufferBytes& actual, const std::vector<Expected>& expected) {
  const std::vector<float> values = valuesOf<float>(actual);
  ASSERT_EQ(values.size(), expected.size() + kGuard);
  for (size_t i = 0; i < expected.size(); ++i) {
    const Expected& want = expected[i];
    ASSERT_LE(std::abs(static_cast<double>(values[i]) - want.value), want.tolerance)
        << "element " << i << " is " << values[i] << ", should be " << want.value;
  }
  for (size_t i = expected.size(); i < values.size(); ++i) {
    ASSERT_EQ(values[i], kUntouched) << "behind the end, at " << i;
  }
}

inline uint32_t ceilDiv(size_t n, size_t d) { return static_cast<uint32_t>((n + d - 1) / d); }

}  // namespace zemtest
