// SPDX-License-Identifier: Apache-2.0
// The rotary embeddings against plain loops.
#include "float_testing.h"

namespace zemtest {

using namespace kiv;

namespace {

using vulkan::ShaderId;

// Two products and a sum, of factors that carry an error of their own.
Expected turned(double x, double cosine, double y, double sine, double factorError) {
  return {x * cosine - y * sine, (std::abs(x) + std::abs(y)) * (factorError + 2 * kUlp)};
}

using RopeShader = ShaderTest;

TEST_F(RopeShader, RoPETurnsTheHalvesOfEachHead) {
  struct Shape {
    size_t heads;
    size_t headDim;
  };
  for (const Shape shape : {Shape{1, 2}, {1, 64}, {3, 6}, {4, 128}, {9, 130}, {17, 256}}) {
    SCOPED_TRACE(shape.headDim);
    const size_t count = shape.heads * shape.headDim;
    const size_t half = shape.headDim / 2;
    const std::vector<float> x = randomFloats(1, count, -2, 2);
    std::vector<float> cosines;
    std::vector<float> sines;
    for (const float angle : randomFloats(2, half, -3, 3)) {
      cosines.push_back(std::cos(angle));
      sines.push_back(std::sin(angle));
    }

    const uint32_t groups = ceilDiv(count / 2, 256);
    for (const Workgroups grid : {Workgroups{groups}, Workgroups{1, groups + 1}}) {
      std::vector<BufferBytes> buffers = {guarded(x), guarded(cosines), guarded(sines),
                                          room(count)};
      run(ShaderId::RoPE, buffers,
          {static_cast<uint32_t>(shape.heads), static_cast<uint32_t>(shape.headDim)}, grid);
      std::vector<Expected> expected(count);
      for (size_t start = 0; start < count; start += shape.headDim) {
        for (size_t i = 0; i < half; ++i) {
          const float low = x[start + i];
          const float high = x[start + half + i];
          expected[start + i] = turned(low, cosines[i], high, sines[i], 0);
          expected[start + half + i] = turned(high, cosines[i], -low, sines[i], 0);
        }
      }
      expectResults(buffers[3], expected);
    }
  }
}

struct GemmaTurn {
  size_t heads;
  size_t headDim;
  size_t rotated;
  float base;
  uint32_t position;
};

void PrintTo(const GemmaTurn& c, std::ostream* out) {
  *out << c.heads << " heads of " << c.headDim << ", " << c.rotated << " rotated, base " << c.base
       << ", position " << c.position;
}

// How far off an angle may be: a power is 2^(log2(base) * exponent), whose exponent
// carries the error of the logarithm (3 units) and of two operations, and whose own
// error is 3 + 2|exponent| units; then it is divided, multiplied, and reduced.
double angleError(double angle, double base, double exponent) {
  const double bits = std::abs(std::log2(base) * exponent);
  return std::abs(angle) * (5 * bits + 3 + 2 * bits + 5) * kUlp;
}

// One head.
void rotateHead(const float* x, const std::vector<float>& factors, const GemmaTurn& c,
                uint32_t position, std::vector<Expected>& expected) {
  const size_t half = c.rotated / 2;
  const size_t start = expected.size();
  for (size_t i = 0; i < c.headDim; ++i) expected.push_back({x[i]});
  for (size_t i = 0; i < half; ++i) {
    const double exponent = -2.0 * static_cast<double>(i) / static_cast<double>(c.rotated);
    const double angle = position * std::pow(static_cast<double>(c.base), exponent) / factors[i];
    const double error = angleError(angle, c.base, exponent) + 4 * kUlp;
    expected[start + i] = turned(x[i], std::cos(angle), x[half + i], std::sin(angle), error);
    expected[start + half + i] =
        turned(x[half + i], std::cos(angle), -x[i], std::sin(angle), error);
  }
}

std::vector<float> factorsFor(const GemmaTurn& c) { return randomFloats(4, c.rotated / 2, 1, 8); }

const GemmaTurn kGemmaTurns[] = {
    {1, 2, 2, 10000, 0},       {1, 2, 2, 10000, 1},       {1, 4, 0, 10000, 5},
    {3, 6, 4, 10000, 7},       {8, 64, 64, 10000, 1},     {8, 64, 64, 10000, 4095},
    {2, 256, 256, 1e6F, 300},  {2, 256, 256, 1e6F, 8191}, {5, 512, 128, 1e6F, 100},
    {5, 512, 128, 1e6F, 2000}, {4, 128, 128, 1e7F, 1000}, {4, 128, 128, 1e6F, 131071},
};

class RopeGemmaShader : public ShaderTest, public ::testing::WithParamInterface<GemmaTurn> {};

TEST_P(RopeGemmaShader, TurnsWhatIsRotatedAndCopiesTheRest) {
  const GemmaTurn& c = GetParam();
  const size_t count = c.heads * c.headDim;
  const std::vector<float> x = randomFloats(3, count, -2, 2);
  const std::vector<float> factors = factorsFor(c);
  std::vector<Expected> expected;
  for (size_t h = 0; h < c.heads; ++h) {
    rotateHead(&x[h * c.headDim], factors, c, c.position, expected);
  }
  const uint32_t groups = ceilDiv(c.heads * (c.headDim - c.rotated / 2), 256);
  for (const Workgroups grid : {Workgroups{groups}, Workgroups{1, groups + 1}}) {
    std::vector<BufferBytes> buffers = {guarded(x), guarded(factors), room(count)};
    run(ShaderId::RopeGemma, buffers,
        {static_cast<uint32_t>(c.heads), static_cast<uint32_t>(c.headDim),
         static_cast<uint32_t>(c.rotated), pushFloat(c.base), c.position},
        grid);
    expectResults(buffers[2], expected);
  }
}

// `rotated` is the whole head here.
TEST_P(RopeGemmaShader, ABatchTurnsEachTokenByItsPosition) {
  GemmaTurn c = GetParam();
  c.rotated = c.headDim;
  constexpr size_t kTokens = 3;
  const size_t count = kTokens * c.heads * c.headDim;
  const std::vector<float> x = randomFloats(5, count, -2, 2);
  const std::vector<float> factors = factorsFor(c);
  std::vector<Expected> expected;
  for (size_t h = 0; h < kTokens * c.heads; ++h) {
    const auto token = static_cast<uint32_t>(h / c.heads);
    rotateHead(&x[h * c.headDim], factors, c, c.position + token, expected);
  }
  std::vector<BufferBytes> buffers = {guarded(x), guarded(factors), room(count)};
  run(ShaderId::RopeGemmaBatch, buffers,
      {static_cast<uint32_t>(c.heads), static_cast<uint32_t>(c.headDim), pushFloat(c.base),
       c.position},
      {ceilDiv(c.heads * c.headDim / 2, 256) + 1, kTokens});
  expectResults(buffers[2], expected);
}

INSTANTIATE_TEST_SUITE_P(Cases, RopeGemmaShader, ::testing::ValuesIn(kGemmaTurns));

TEST_F(RopeShader, AnInfiniteFactorLeavesAPairAlone) {
  const std::vector<float> x = {1, 2, 3, 4};
  const float infinity = std::numeric_limits<float>::infinity();
  std::vector<BufferBytes> buffers = {guarded(x), guarded({1, infinity}), room(4)};
  run(ShaderId::RopeGemma, buffers, {1, 4, 4, pushFloat(10000), 1}, {});
  const double c = std::cos(1.0);
  const double s = std::sin(1.0);
  expectResults(buffers[2],
                {turned(1, c, 3, s, 4 * kUlp), {2}, turned(3, c, -1, s, 4 * kUlp), {4}});
}

// Integer angles are exact, so all error is the reduction's (half a unit: the products
// of its first two steps are exact up to 2^13 quarters) and the series' (three halves).
TEST_F(RopeShader, AnglesOfThousandsOfTurnsKeepTheirPrecision) {
  std::vector<Expected> expected;
  std::vector<float> x;
  constexpr uint32_t kFirst = 12000;
  constexpr uint32_t kTokens = 700;
  for (uint32_t t = 0; t < kTokens; ++t) {
    x.insert(x.end(), {1, 0});
    const double error = 2 * kUlp;
    expected.push_back({std::cos(kFirst + t), error});
    expected.push_back({std::sin(kFirst + t), error});
  }
  std::vector<BufferBytes> buffers = {guarded(x), guarded({1}), room(x.size())};
  run(ShaderId::RopeGemmaBatch, buffers, {1, 2, pushFloat(10000), kFirst}, {1, kTokens});
  expectResults(buffers[2], expected);
}

}  // namespace
}  // namespace zemtest
