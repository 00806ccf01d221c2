// SPDX-License-Identifier: Apache-2.0
#include "kiv/quant.h"

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "kiv/dequant.h"
#include "kiv/quant_testing.h"
#include "support/float_values.h"

namespace zemtest {

using namespace kiv;
using namespace kiv::quant;

namespace {

constexpr uint64_t kMaxCount = std::numeric_limits<uint64_t>::max();

QuantType typeOf(int code) { return static_cast<QuantType>(code); }

TEST(QuantTypeTest, EveryTypeHasItsNameAndCode) {
  const char* names[] = {"F32", "F16", "BF16", "Q4_0", "Q8_0", "Q4_K", "Q5_K", "Q6_K", "IQ4_XS"};
  for (int code = 0; code < 9; ++code) EXPECT_STREQ(quantTypeName(typeOf(code)), names[code]);
  EXPECT_EQ(static_cast<int>(QuantType::IQ4_XS), 8);
  EXPECT_EQ(sizeof(QuantType), 1U);
}

TEST(QuantTypeTest, UnknownTypesAreAQuestionMarkWithoutSize) {
  for (int code = 9; code < 256; ++code) {
    EXPECT_STREQ(quantTypeName(typeOf(code)), "?") << code;
    EXPECT_EQ(quantizedBytes(typeOf(code), 256), 0U) << code;
  }
}

TEST(QuantizedBytesTest, NoElementsNeedNoBytes) {
  for (int code = 0; code < 256; ++code) EXPECT_EQ(quantizedBytes(typeOf(code), 0), 0U) << code;
}

TEST(QuantizedBytesTest, PartialBlocksCountWhole) {
  EXPECT_EQ(quantizedBytes(QuantType::Q4_0, 1), 18U);
  EXPECT_EQ(quantizedBytes(QuantType::Q4_0, 33), 36U);
  EXPECT_EQ(quantizedBytes(QuantType::Q6_K, 257), 420U);
  EXPECT_EQ(quantizedBytes(QuantType::IQ4_XS, 256), 136U);
  EXPECT_EQ(quantizedBytes(QuantType::IQ4_XS, 255), 136U);
}

TEST(QuantizedBytesTest, MatchesBlockShapesAtEveryCount) {
  struct Shape {
    QuantType type;
    uint64_t elements, bytes;
  };
  constexpr Shape kShapes[] = {
      {QuantType::F32, 1, 4},      {QuantType::F16, 1, 2},      {QuantType::BF16, 1, 2},
      {QuantType::Q4_0, 32, 18},   {QuantType::Q8_0, 32, 34},   {QuantType::Q4_K, 256, 144},
      {QuantType::Q5_K, 256, 176}, {QuantType::Q6_K, 256, 210}, {QuantType::IQ4_XS, 256, 136},
  };
  for (const Shape& shape : kShapes) {
    for (uint64_t n = 0; n < 1100; ++n) {
      const uint64_t blocks = (n + shape.elements - 1) / shape.elements;
      EXPECT_EQ(quantizedBytes(shape.type, n), blocks * shape.bytes)
          << quantTypeName(shape.type) << " " << n;
    }
  }
}

TEST(QuantizedBytesTest, SizesBeyond64BitsAreZero) {
  EXPECT_EQ(quantizedBytes(QuantType::F32, kMaxCount / 4), kMaxCount - 3);
  EXPECT_EQ(quantizedBytes(QuantType::F32, kMaxCount / 4 + 1), 0U);
  EXPECT_EQ(quantizedBytes(QuantType::F16, kMaxCount), 0U);
  EXPECT_EQ(quantizedBytes(QuantType::BF16, kMaxCount), 0U);
  EXPECT_EQ(quantizedBytes(QuantType::Q8_0, kMaxCount), 0U);
  // Blocks of less than a byte an element always fit.
  EXPECT_EQ(quantizedBytes(QuantType::Q4_0, kMaxCount), uint64_t{18} << 59);
  EXPECT_EQ(quantizedBytes(QuantType::Q6_K, kMaxCount), uint64_t{210} << 56);
}

TEST(HalfToFloatTest, EveryPatternHasItsValue) {
  for (uint32_t h = 0; h < 65536; ++h) {
    const float x = f16ToF32(static_cast<uint16_t>(h));
    if ((h & 0x7C00) == 0x7C00 && (h & 0x3FF) != 0) {
      const uint32_t expected = ((h & 0x8000) << 16) | 0x7F800000 | ((h & 0x3FF) << 13);
      EXPECT_EQ(std::bit_cast<uint32_t>(x), expected) << h;
    } else {
      const float expected = halfValue(static_cast<uint16_t>(h));
      EXPECT_EQ(std::bit_cast<uint32_t>(x), std::bit_cast<uint32_t>(expected)) << h;
    }
  }
}

TEST(HalfToFloatTest, SmallestSubnormalAndNanPayload) {
  EXPECT_EQ(f16ToF32(0x0001), 0x1p-24F);
  EXPECT_EQ(f16ToF32(0x03FF), 1023 * 0x1p-24F);
  EXPECT_TRUE(std::isnan(f16ToF32(0x7C01)));
  EXPECT_EQ(std::bit_cast<uint32_t>(f16ToF32(0x7C01)) & 0x7FFFFF, 0x2000U);
}

TEST(FloatToHalfTest, EveryHalfComesBack) {
  for (uint32_t h = 0; h < 65536; ++h) {
    const bool nan = (h & 0x7C00) == 0x7C00 && (h & 0x3FF) != 0;
    const uint32_t expected = nan ? (h & 0x8000) | 0x7E00 : h;
    EXPECT_EQ(f32ToF16(f16ToF32(static_cast<uint16_t>(h))), expected) << h;
  }
}

TEST(FloatToHalfTest, BoundaryValues) {
  EXPECT_EQ(f32ToF16(65504.0F), 0x7BFF);
  EXPECT_EQ(f32ToF16(std::nextafter(65520.0F, 0.0F)), 0x7BFF);
  EXPECT_EQ(f32ToF16(65520.0F), 0x7C00);
  EXPECT_EQ(f32ToF16(std::numeric_limits<float>::max()), 0x7C00);
  EXPECT_EQ(f32ToF16(0x1p-25F), 0x0000);
  EXPECT_EQ(f32ToF16(std::nextafter(0x1p-25F, 1.0F)), 0x0001);
  EXPECT_EQ(f32ToF16(1.5F * 0x1p-24F), 0x0002);
  EXPECT_EQ(f32ToF16(std::nextafter(0x1p-14F, 0.0F)), 0x0400);
  EXPECT_EQ(f32ToF16(std::numeric_limits<float>::denorm_min()), 0x0000);
  EXPECT_EQ(f32ToF16(-std::numeric_limits<float>::denorm_min()), 0x8000);
  EXPECT_EQ(f32ToF16(0.0F), 0x0000);
  EXPECT_EQ(f32ToF16(-0.0F), 0x8000);
  EXPECT_EQ(f32ToF16(kInf), 0x7C00);
  EXPECT_EQ(f32ToF16(-kInf), 0xFC00);
}

TEST(FloatToHalfTest, NansLoseTheirPayloadOnly) {
  for (const uint32_t payload : {0x1U, 0x1FFFU, 0x2000U, 0x200000U, 0x400000U, 0x7FFFFFU}) {
    EXPECT_EQ(f32ToF16(std::bit_cast<float>(0x7F800000U | payload)), 0x7E00) << payload;
    EXPECT_EQ(f32ToF16(std::bit_cast<float>(0xFF800000U | payload)), 0xFE00) << payload;
  }
}

// Nearest half, ties to even, by way of the rounding of doubles to integers.
uint16_t nearestHalf(float x) {
  const auto sign = static_cast<uint32_t>(std::signbit(x) ? 0x8000 : 0);
  const double magnitude = std::fabs(static_cast<double>(x));
  if (std::isinf(x)) return static_cast<uint16_t>(sign | 0x7C00);
  const int exponent = magnitude < 0x1p-14 ? -14 : std::ilogb(magnitude);
  const double units = std::nearbyint(std::ldexp(magnitude, 10 - exponent));
  // Units count steps of this binade; those below 1024 are subnormal.
  const double bits = units + 1024.0 * (exponent + 14);
  return static_cast<uint16_t>(sign | (bits >= 0x7C00 ? 0x7C00U : static_cast<uint32_t>(bits)));
}

void expectNearest(float x) {
  ASSERT_EQ(f32ToF16(x), nearestHalf(x)) << std::hexfloat << x;
  ASSERT_EQ(f32ToF16(-x), nearestHalf(-x)) << std::hexfloat << -x;
}

TEST(FloatToHalfTest, RoundsToNearestAroundEveryHalfAndMidpoint) {
  for (uint16_t h = 0; h < 0x7C00; ++h) {
    const float here = halfValue(h);
    // The value after the largest half, were there one, is 65536.
    const float next = h == 0x7BFF ? 65536.0F : halfValue(static_cast<uint16_t>(h + 1));
    const float middle = here + (next - here) / 2;
    for (const float x : {here, middle}) {
      expectNearest(x);
      expectNearest(std::nextafter(x, kInf));
      expectNearest(std::nextafter(x, 0.0F));
    }
  }
}

TEST(FloatToHalfTest, RoundsToNearestOnRandomFloats) {
  std::mt19937 random(42);
  for (int i = 0; i < 2000000; ++i) {
    const uint32_t bits = static_cast<uint32_t>(random());
    const float anywhere = std::bit_cast<float>(bits);
    if (!std::isnan(anywhere)) expectNearest(anywhere);
    // Two thirds of all floats are far outside the half range; this one is not.
    expectNearest(std::bit_cast<float>((bits & 0x7FFFFF) | ((100 + (bits >> 23) % 45) << 23)));
  }
}

TEST(BlockRecordTest, FieldsLieAtTheirOffsets) {
  EXPECT_EQ(offsetof(Q40Block, d), 0U);
  EXPECT_EQ(offsetof(Q40Block, qs), 2U);
  EXPECT_EQ(offsetof(Q80Block, d), 0U);
  EXPECT_EQ(offsetof(Q80Block, qs), 2U);
  EXPECT_EQ(alignof(Q40Block), 1U);
  EXPECT_EQ(alignof(Q80Block), 1U);
}

// The bytes that the rules give for one padded block, one element at a time.
std::array<uint8_t, 18> referenceQ40(const float* x) {
  float extreme = 0.0F;
  for (int k = 0; k < 32; ++k) {
    if (std::fabs(x[k]) > std::fabs(extreme)) extreme = x[k];
  }
  const float d = extreme == 0.0F ? 0.0F : extreme * -0.125F;
  const float inverse = extreme == 0.0F ? 0.0F : 1.0F / d;
  std::array<uint8_t, 18> bytes{};
  zemtest::putHalf(bytes.data(), f32ToF16(d));
  for (size_t k = 0; k < 32; ++k) {
    const int code = std::clamp(static_cast<int>(x[k] * inverse + 8.5F), 0, 15);
    bytes[2 + k / 2] = static_cast<uint8_t>(bytes[2 + k / 2] + (k % 2 == 0 ? code : 16 * code));
  }
  return bytes;
}

std::array<uint8_t, 34> referenceQ80(const float* x) {
  float largest = 0.0F;
  for (int k = 0; k < 32; ++k) largest = std::max(largest, std::fabs(x[k]));
  const float d = largest == 0.0F ? 0.0F : largest / 127.0F;
  std::array<uint8_t, 34> bytes{};
  zemtest::putHalf(bytes.data(), f32ToF16(d));
  for (size_t k = 0; k < 32 && d != 0.0F; ++k) {
    bytes[2 + k] = static_cast<uint8_t>(std::clamp(roundHalfAway(x[k] / d), -127, 127));
  }
  return bytes;
}

template <typename Encode, typename Reference>
void expectRuleBytes(Encode encode, Reference reference) {
  for (const NamedInput& input : finiteInputs()) {
    for (const uint64_t n : kCounts) {
      SCOPED_TRACE(input.name + " " + std::to_string(n));
      std::vector<uint8_t> expected;
      for (uint64_t i = 0; i < n; i += 32) {
        std::array<float, 32> x{};
        std::copy_n(input.x.begin() + static_cast<std::ptrdiff_t>(i), std::min<uint64_t>(32, n - i),
                    x.begin());
        const auto bytes = reference(x.data());
        expected.insert(expected.end(), bytes.begin(), bytes.end());
      }
      GuardedBytes out(expected.size());
      encode(input.x.data(), out.data(), n);
      ASSERT_EQ(out.contents(), expected);
      ASSERT_TRUE(out.guardsIntact());
    }
  }
}

TEST(QuantQ40Test, BytesFollowTheRules) { expectRuleBytes(quantQ40, referenceQ40); }
TEST(QuantQ80Test, BytesFollowTheRules) { expectRuleBytes(quantQ80, referenceQ80); }

Q40Block encodedQ40(const std::vector<float>& x) {
  Q40Block block;
  std::memset(&block, 0xEE, sizeof(block));
  quantQ40(x.data(), &block, x.size());
  return block;
}

Q80Block encodedQ80(const std::vector<float>& x) {
  Q80Block block;
  std::memset(&block, 0xEE, sizeof(block));
  quantQ80(x.data(), &block, x.size());
  return block;
}

int codeQ40(const Q40Block& block, size_t k) {
  return zemtest::bitsOf(block.qs[k / 2], k % 2 * 4, 4);
}

TEST(QuantQ40Test, ZerosEncodeAsTheMiddleCode) {
  const Q40Block block = encodedQ40(std::vector<float>(32, 0.0F));
  EXPECT_EQ(block.d, 0);
  for (const uint8_t pair : block.qs) EXPECT_EQ(pair, 0x88);
  std::vector<float> y(32, 1.0F);
  dequantQ40(&block, y.data(), 32);
  for (const float v : y) EXPECT_EQ(v, 0.0F);
}

TEST(QuantQ40Test, ExtremeElementGetsCodeZero) {
  std::vector<float> x = randomFloats(9, 32, -3.0F, 3.0F);
  x[13] = -4.0F;
  const Q40Block block = encodedQ40(x);
  EXPECT_EQ(block.d, 0x3800);
  EXPECT_EQ(codeQ40(block, 13), 0);
  EXPECT_EQ(block.qs[6] >> 4, 0) << "element 13 is the high nibble of byte 6";
}

TEST(QuantQ40Test, PositiveExtremeGivesANegativeScale) {
  std::vector<float> x(32, 0.0F);
  x[4] = 4.0F;
  const Q40Block block = encodedQ40(x);
  EXPECT_EQ(block.d, 0xB800);
  EXPECT_EQ(codeQ40(block, 4), 0);
  std::vector<float> y(32);
  dequantQ40(&block, y.data(), 32);
  EXPECT_EQ(y[4], 4.0F);
}

TEST(QuantQ40Test, TheEarlierOfTwoExtremesSetsTheSign) {
  std::vector<float> x(32, 0.0F);
  x[7] = 8.0F;
  x[20] = -8.0F;
  EXPECT_EQ(encodedQ40(x).d, f32ToF16(-1.0F));
  std::swap(x[7], x[20]);
  const Q40Block block = encodedQ40(x);
  EXPECT_EQ(block.d, f32ToF16(1.0F));
  EXPECT_EQ(codeQ40(block, 7), 0);
  EXPECT_EQ(codeQ40(block, 20), 15) << "the other one is cut to the largest code";
}

TEST(QuantQ40Test, CodesUseTheUnroundedScale) {
  // d = 0.1F * 8 / 8 is no half; with the stored half some codes would differ.
  std::vector<float> x(32, 0.0F);
  x[0] = -0.8F;
  int differing = 0;
  for (int i = 1; i < 32; ++i)
    x[static_cast<size_t>(i)] = 0.1F * (0.49999F + static_cast<float>(i % 7));
  const Q40Block block = encodedQ40(x);
  const float inverse = 1.0F / (x[0] * -0.125F);
  for (size_t k = 0; k < 32; ++k) {
    EXPECT_EQ(codeQ40(block, k), static_cast<int>(x[k] * inverse + 8.5F));
    const int stored = static_cast<int>(x[k] * (1.0F / halfValue(block.d)) + 8.5F);
    if (stored != codeQ40(block, k)) ++differing;
  }
  EXPECT_GT(differing, 0) << "this input cannot tell the two apart";
}

TEST(QuantQ40Test, NanCountsAsZero) {
  std::vector<float> x = randomFloats(10, 32, -1.0F, 1.0F);
  x[0] = 0.0F;
  x[31] = 0.0F;
  const Q40Block expected = encodedQ40(x);
  x[0] = kNan;
  x[31] = -kNan;
  const Q40Block block = encodedQ40(x);
  EXPECT_EQ(std::memcmp(&block, &expected, sizeof(block)), 0);
}

TEST(QuantQ40Test, ScalesTooSmallToInvertStillDecodeToZero) {
  // 1 / d is infinite here, so zero elements meet 0 * infinity.
  for (const float tiny : {1e-45F, 1e-44F, 1e-38F}) {
    std::vector<float> x(32, 0.0F);
    x[3] = tiny;
    x[4] = -tiny / 2;
    const Q40Block block = encodedQ40(x);
    EXPECT_EQ(codeQ40(block, 0), 8);
    std::vector<float> y(32, 1.0F);
    dequantQ40(&block, y.data(), 32);
    for (const float v : y) EXPECT_EQ(v, 0.0F);
  }
}

TEST(QuantQ40Test, InfinityGivesAnInfiniteScale) {
  std::vector<float> x(32, 1.0F);
  x[5] = kInf;
  const Q40Block block = encodedQ40(x);
  EXPECT_EQ(block.d, 0xFC00);
  for (size_t k = 0; k < 32; ++k) EXPECT_EQ(codeQ40(block, k), 8);
}

TEST(QuantQ80Test, EqualValuesGetTheLargestCode) {
  const Q80Block block = encodedQ80(std::vector<float>(32, 1.0F));
  for (const int8_t code : block.qs) EXPECT_EQ(code, 127);
  EXPECT_EQ(block.d, f32ToF16(1.0F / 127.0F));
}

TEST(QuantQ80Test, TheLowestCodeIsMinus127) {
  for (uint32_t seed = 0; seed < 2000; ++seed) {
    std::vector<float> x = randomFloats(seed, 32, -1.0F, 0.1F);
    const Q80Block block = encodedQ80(x);
    int lowest = 0;
    for (const int8_t code : block.qs) lowest = std::min<int>(lowest, code);
    EXPECT_EQ(lowest, -127) << seed;
  }
}

TEST(QuantQ80Test, HalvesRoundAwayFromZero) {
  std::vector<float> x(32, 0.0F);
  x[0] = 127.0F;
  x[1] = 0.5F;
  x[2] = -0.5F;
  x[3] = 2.5F;
  x[4] = -2.5F;
  x[5] = 0.25F;
  const Q80Block block = encodedQ80(x);
  EXPECT_EQ(block.d, 0x3C00);
  EXPECT_EQ(block.qs[1], 1);
  EXPECT_EQ(block.qs[2], -1);
  EXPECT_EQ(block.qs[3], 3);
  EXPECT_EQ(block.qs[4], -3);
  EXPECT_EQ(block.qs[5], 0);
}

TEST(QuantQ80Test, NanCountsAsZeroAndInfinityHidesTheRest) {
  std::vector<float> x = randomFloats(11, 32, -1.0F, 1.0F);
  x[8] = 0.0F;
  const Q80Block expected = encodedQ80(x);
  x[8] = kNan;
  const Q80Block withNan = encodedQ80(x);
  EXPECT_EQ(std::memcmp(&withNan, &expected, sizeof(withNan)), 0);
  x[8] = -kInf;
  const Q80Block withInfinity = encodedQ80(x);
  EXPECT_EQ(withInfinity.d, 0x7C00);
  for (const int8_t code : withInfinity.qs) EXPECT_EQ(code, 0);
}

TEST(QuantQ80Test, ValuesWhoseScaleVanishesBecomeZero) {
  const Q80Block block = encodedQ80(std::vector<float>(32, 1e-45F));
  EXPECT_EQ(block.d, 0);
  for (const int8_t code : block.qs) EXPECT_EQ(code, 0);
}

TEST(RoundTripTest, Q80StaysWithinHalfAStep) {
  for (uint32_t seed = 0; seed < 500; ++seed) {
    const std::vector<float> x = randomFloats(seed, 32, -0.3F, 0.2F);
    const Q80Block block = encodedQ80(x);
    std::vector<float> y(32);
    dequantQ80(&block, y.data(), 32);
    const float d = halfValue(block.d);
    // Half a step, and what rounding the step to a half adds over 127 steps.
    const float bound = d * (0.5F + 127 * 0x1p-11F) * 1.001F;
    for (size_t k = 0; k < 32; ++k) EXPECT_NEAR(y[k], x[k], bound) << seed;
  }
}

TEST(RoundTripTest, Q40StaysWithinHalfAStepButForTheCutEnd) {
  for (uint32_t seed = 0; seed < 500; ++seed) {
    const std::vector<float> x = randomFloats(seed, 32, -0.3F, 0.2F);
    const Q40Block block = encodedQ40(x);
    std::vector<float> y(32);
    dequantQ40(&block, y.data(), 32);
    const float d = std::fabs(halfValue(block.d));
    for (size_t k = 0; k < 32; ++k) {
      const float steps = codeQ40(block, k) == 15 ? 1.0F : 0.5F;
      EXPECT_NEAR(y[k], x[k], d * (steps + 8 * 0x1p-11F) * 1.001F) << seed;
    }
  }
}

TEST(RoundTripTest, EncodingADecodedBlockChangesNothing) {
  for (uint32_t seed = 0; seed < 200; ++seed) {
    std::vector<float> x = randomFloats(seed, 32, -0.9F, 0.9F);
    x[seed % 32] = -1.0F;  // a scale that is a power of two, so that halves hold it
    const Q40Block once = encodedQ40(x);
    std::vector<float> y(32);
    dequantQ40(&once, y.data(), 32);
    const Q40Block twice = encodedQ40(y);
    EXPECT_EQ(std::memcmp(&once, &twice, sizeof(once)), 0) << seed;
  }
}

}  // namespace
}  // namespace zemtest
