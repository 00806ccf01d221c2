// SPDX-License-Identifier: Apache-2.0
// The elementwise shaders against plain loops.
#include <algorithm>

#include "float_testing.h"

namespace zemtest {

using namespace kiv;

namespace {

using vulkan::ShaderId;

// One, none full, full, one more, several workgroups.
constexpr size_t kCounts[] = {1, 2, 37, 255, 256, 257, 1000, 4099};

// As few workgroups as `count` elements need, and no more than three in x.
Workgroups gridFor(size_t count) {
  const uint32_t groups = ceilDiv(count, 256);
  return groups <= 3 ? Workgroups{groups} : Workgroups{3, ceilDiv(groups, 3)};
}

// Results below the smallest normal number may become 0.
constexpr double kTiny = 0x1p-126;

// An exponential may be off by 3 + 2|x| units; then there are some six operations.
double exponentialError(double x) { return (3 + 2 * std::abs(x) + 6) * kUlp; }

Expected expectedSilu(double x) {
  const double y = x / (1 + std::exp(-x));
  return {y, std::abs(y) * exponentialError(x) + (1 + std::abs(x)) * kTiny};
}

Expected expectedGelu(double x) {
  const double z = std::sqrt(2 / 3.14159265358979323846) * (x + 0.044715 * x * x * x);
  const double y = 0.5 * x * (1 + std::tanh(z));
  // The exponential is of 2z, which four operations have put off as well.
  const double error = exponentialError(2 * z) + 4 * std::abs(2 * z) * kUlp;
  // Where tanh is near -1, this formula cancels, in double precision.
  return {y, std::abs(y) * error + std::abs(x) * (0x1p-50 + kTiny)};
}

// The series is good to six units. Of the exponential's error (3 + 4|z| units of it),
// no more than twice 4 units reach the result, at z = 1/4 where the series ends.
Expected expectedSoftcap(double x, double cap) {
  const double y = cap * std::tanh(x / cap);
  return {y, 16 * kUlp * std::abs(y)};
}

Expected times(const Expected& e, double factor) {
  const double value = e.value * factor;
  return {value, e.tolerance * std::abs(factor) + std::abs(value) * kUlp};
}

// Where functions are steep and where they are flat, tiny numbers, and numbers beyond
// every exponential.
std::vector<float> inputs(size_t n) {
  std::vector<float> x = randomFloats(7, n, -12, 12);
  const float special[] = {0,     -0.0F,  1e-6F,  -1e-6F,  0.2499F, 0.2501F, 15,    17,    -17,
                           88.5F, -88.5F, 104.0F, -104.0F, 1e4F,    -1e4F,   1e30F, -1e30F};
  if (n > 300) std::copy(std::begin(special), std::end(special), x.begin() + 250);
  return x;
}

class ElementwiseShader : public ShaderTest {
 protected:
  // `reference(a, b)` for every element of a and b into a third buffer.
  template <typename Reference>
  void expectBinary(ShaderId id, const Reference& reference) {
    for (const size_t count : kCounts) {
      SCOPED_TRACE(count);
      const std::vector<float> a = inputs(count);
      const std::vector<float> b = randomFloats(8, count, -3, 3);
      std::vector<BufferBytes> buffers = {guarded(a), guarded(b), room(count)};
      run(id, buffers, {static_cast<uint32_t>(count)}, gridFor(count));
      std::vector<Expected> expected;
      for (size_t i = 0; i < count; ++i) expected.push_back(reference(a[i], b[i]));
      expectResults(buffers[2], expected);
    }
  }

  // `reference(x)` for every element in place.
  template <typename Reference>
  void expectInPlace(ShaderId id, float parameter, const Reference& reference) {
    for (const size_t count : kCounts) {
      SCOPED_TRACE(count);
      const std::vector<float> x = inputs(count);
      std::vector<BufferBytes> buffers = {changeable(x)};
      run(id, buffers, {static_cast<uint32_t>(count), pushFloat(parameter)}, gridFor(count));
      std::vector<Expected> expected;
      for (const float v : x) expected.push_back(reference(v));
      expectResults(buffers[0], expected);
    }
  }
};

TEST_F(ElementwiseShader, AddRoundsOnce) {
  expectBinary(ShaderId::Add, [](float a, float b) { return Expected{a + b}; });
}

TEST_F(ElementwiseShader, MulRoundsOnce) {
  expectBinary(ShaderId::Mul, [](float a, float b) { return Expected{a * b}; });
}

TEST_F(ElementwiseShader, SwiGLUIsTheSiluOfTheGateTimesUp) {
  expectBinary(ShaderId::SwiGLU,
               [](float gate, float up) { return times(expectedSilu(gate), up); });
}

TEST_F(ElementwiseShader, ACountOfNoneChangesNothing) {
  for (const ShaderId id : {ShaderId::Add, ShaderId::Mul, ShaderId::SwiGLU}) {
    std::vector<BufferBytes> buffers = {guarded({}), guarded({}), room(0)};
    run(id, buffers, {0}, {});
    expectResults(buffers[2], {});
  }
}

TEST_F(ElementwiseShader, MoreWorkgroupsThanNeededChangeNothingMore) {
  std::vector<BufferBytes> buffers = {guarded({1, 2}), guarded({10, 20}), room(2)};
  run(ShaderId::Add, buffers, {2}, {5, 4});
  expectResults(buffers[2], {{11}, {22}});
}

TEST_F(ElementwiseShader, GridsOfTwoDimensionsReachBeyondTheLimitOfOne) {
  constexpr size_t kCount = 65535 * 256 + 300;
  std::vector<BufferBytes> buffers = {changeable(std::vector<float>(kCount, 3))};
  run(ShaderId::Scale, buffers, {kCount, pushFloat(2)}, {32769, 2});
  std::vector<float> expected(kCount, 6);
  expected.resize(kCount + kGuard, kUntouched);
  EXPECT_TRUE(buffers[0] == bytesOf(expected));
}

TEST_F(ElementwiseShader, SiLUIsXTimesItsSigmoid) {
  for (const size_t count : kCounts) {
    SCOPED_TRACE(count);
    const std::vector<float> x = inputs(count);
    std::vector<BufferBytes> buffers = {guarded(x), room(count)};
    run(ShaderId::SiLU, buffers, {static_cast<uint32_t>(count)}, gridFor(count));
    std::vector<Expected> expected;
    for (const float v : x) expected.push_back(expectedSilu(v));
    expectResults(buffers[1], expected);
  }
}

TEST_F(ElementwiseShader, GeluMulReadsUpFromAnOffset) {
  for (const size_t offset : {0, 1, 300}) {
    for (const size_t count : kCounts) {
      SCOPED_TRACE(count);
      const std::vector<float> gate = inputs(count);
      const std::vector<float> up = randomFloats(8, count, -3, 3);
      std::vector<float> shifted(offset, std::numeric_limits<float>::quiet_NaN());
      shifted.insert(shifted.end(), up.begin(), up.end());
      std::vector<BufferBytes> buffers = {guarded(gate), guarded(shifted), room(count)};
      run(ShaderId::GeluMul, buffers, {static_cast<uint32_t>(count), static_cast<uint32_t>(offset)},
          gridFor(count));
      std::vector<Expected> expected;
      for (size_t i = 0; i < count; ++i) expected.push_back(times(expectedGelu(gate[i]), up[i]));
      expectResults(buffers[2], expected);
    }
  }
}

TEST_F(ElementwiseShader, ResidualAddsInPlace) {
  for (const size_t count : kCounts) {
    SCOPED_TRACE(count);
    const std::vector<float> y = inputs(count);
    const std::vector<float> x = randomFloats(9, count, -3, 3);
    std::vector<BufferBytes> buffers = {changeable(y), guarded(x)};
    run(ShaderId::Residual, buffers, {static_cast<uint32_t>(count)}, gridFor(count));
    std::vector<Expected> expected;
    for (size_t i = 0; i < count; ++i) expected.push_back({y[i] + x[i]});
    expectResults(buffers[0], expected);
  }
}

TEST_F(ElementwiseShader, ScaleMultipliesInPlace) {
  for (const float factor : {0.0F, 1.0F, -0.3F, 1e5F}) {
    expectInPlace(ShaderId::Scale, factor, [=](float x) { return Expected{x * factor}; });
  }
}

TEST_F(ElementwiseShader, SoftcapKeepsSmallValuesAndBoundsLargeOnes) {
  for (const float cap : {0.5F, 30.0F, 50.0F}) {
    expectInPlace(ShaderId::Softcap, cap, [=](float x) { return expectedSoftcap(x, cap); });
  }
}

TEST_F(ElementwiseShader, SoftcapOfInfinityIsTheCap) {
  std::vector<BufferBytes> buffers = {changeable({kInf, -kInf, 1e38F, -1e38F})};
  run(ShaderId::Softcap, buffers, {4, pushFloat(30)}, {});
  expectResults(buffers[0], {{30}, {-30}, {30}, {-30}});
}

}  // namespace
}  // namespace zemtest
