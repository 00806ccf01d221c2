// SPDX-License-Identifier: Apache-2.0
#include "kiv/quant_k.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <ostream>
#include <vector>

#include "kiv/dequant.h"
#include "kiv/quant_testing.h"
#include "support/float_values.h"

namespace zemtest {

using namespace kiv;
using namespace kiv::quant;

namespace {

TEST(QuantizedBytesKTest, OnlyTypesOfTwoHundredFiftySixElements) {
  EXPECT_EQ(quantizedBytesK(QuantType::Q4_K, 1), 144U);
  EXPECT_EQ(quantizedBytesK(QuantType::Q5_K, 256), 176U);
  EXPECT_EQ(quantizedBytesK(QuantType::Q6_K, 257), 420U);
  EXPECT_EQ(quantizedBytesK(QuantType::IQ4_XS, 256), 136U);
  for (const QuantType other : {QuantType::F32, QuantType::F16, QuantType::BF16, QuantType::Q4_0,
                                QuantType::Q8_0, static_cast<QuantType>(9)}) {
    for (const uint64_t n : kCounts) EXPECT_EQ(quantizedBytesK(other, n), 0U);
  }
  EXPECT_EQ(quantizedBytesK(QuantType::Q5_K, std::numeric_limits<uint64_t>::max()),
            uint64_t{176} << 56);
}

TEST(BlockRecordKTest, FieldsLieAtTheirOffsets) {
  EXPECT_EQ(offsetof(Q4KBlock, d), 0U);
  EXPECT_EQ(offsetof(Q4KBlock, dmin), 2U);
  EXPECT_EQ(offsetof(Q4KBlock, scales), 4U);
  EXPECT_EQ(offsetof(Q4KBlock, qs), 16U);
  EXPECT_EQ(offsetof(Q5KBlock, d), 0U);
  EXPECT_EQ(offsetof(Q5KBlock, dmin), 2U);
  EXPECT_EQ(offsetof(Q5KBlock, scales), 4U);
  EXPECT_EQ(offsetof(Q5KBlock, qh), 16U);
  EXPECT_EQ(offsetof(Q5KBlock, qs), 48U);
  EXPECT_EQ(offsetof(Q6KBlock, ql), 0U);
  EXPECT_EQ(offsetof(Q6KBlock, qh), 128U);
  EXPECT_EQ(offsetof(Q6KBlock, scales), 192U);
  EXPECT_EQ(offsetof(Q6KBlock, d), 208U);
  EXPECT_EQ(offsetof(Q8KBlock, d), 0U);
  EXPECT_EQ(offsetof(Q8KBlock, qs), 2U);
  EXPECT_EQ(offsetof(Q8KBlock, bsums), 258U);
  EXPECT_EQ(alignof(Q4KBlock) * alignof(Q5KBlock) * alignof(Q6KBlock) * alignof(Q8KBlock), 1U);
}

TEST(ScaleMinTest, EachBitOfTheTwelveBytesHasOnePlace) {
  // Bit i of byte b belongs to one bit of one scale or one minimum.
  for (int byte = 0; byte < 12; ++byte) {
    for (int bit = 0; bit < 8; ++bit) {
      uint8_t packed[12] = {};
      packed[byte] = static_cast<uint8_t>(1U << bit);
      int setBits = 0;
      for (int j = 0; j < 8; ++j) {
        uint8_t scale = 0xFF;
        uint8_t min = 0xFF;
        getScaleMinK4(j, packed, scale, min);
        EXPECT_EQ(scale, packedScale(packed, j)) << byte << " " << bit << " " << j;
        EXPECT_EQ(min, packedMin(packed, j)) << byte << " " << bit << " " << j;
        setBits += (scale != 0 ? 1 : 0) + (min != 0 ? 1 : 0);
      }
      EXPECT_EQ(setBits, 1) << byte << " " << bit;
    }
  }
}

TEST(ScaleMinTest, RandomBytesReadAsThePictureSays) {
  for (uint32_t seed = 0; seed < 1000; ++seed) {
    const std::vector<uint8_t> packed = randomBytes(seed, 12);
    for (int j = 0; j < 8; ++j) {
      uint8_t scale = 0;
      uint8_t min = 0;
      getScaleMinK4(j, packed.data(), scale, min);
      EXPECT_EQ(scale, packedScale(packed.data(), j));
      EXPECT_EQ(min, packedMin(packed.data(), j));
    }
  }
}

// The rules of the encoders, one element at a time, for finite input only.

// Puts the `width` low bits of `value` at bit `from` of `byte`.
void putBits(uint8_t& byte, int from, int width, int value) {
  byte = static_cast<uint8_t>(byte | ((value & ((1 << width) - 1)) << from));
}

void packReference(uint8_t* q, int j, int scale, int min) {
  if (j < 4) {
    putBits(q[j], 0, 6, scale);
    putBits(q[j + 4], 0, 6, min);
  } else {
    putBits(q[j + 4], 0, 4, scale);
    putBits(q[j + 4], 4, 4, min);
    putBits(q[j - 4], 6, 2, scale >> 4);
    putBits(q[j], 6, 2, min >> 4);
  }
}

// The 16 leading bytes of a Q4_K or Q5_K block, and its 256 codes.
struct Affine {
  std::array<uint8_t, 16> head{};
  std::array<int, 256> codes{};
};

Affine referenceAffine(const float* x, int maxCode) {
  std::array<float, 8> scales, offsets;
  float maxScale = 0.0F;
  float maxOffset = 0.0F;
  Affine out;
  for (size_t j = 0; j < 8; ++j) {
    const auto [lo, hi] = std::minmax_element(x + 32 * j, x + 32 * j + 32);
    scales[j] = (*hi - *lo) / static_cast<float>(maxCode);
    offsets[j] = -*lo;
    maxScale = std::max(maxScale, scales[j]);
    maxOffset = std::max(maxOffset, offsets[j]);
    for (size_t i = 32 * j; i < 32 * j + 32 && scales[j] > 0.0F; ++i) {
      out.codes[i] = std::clamp(roundHalfAway((x[i] - *lo) / scales[j]), 0, maxCode);
    }
  }
  const float perScale = maxScale == 0.0F ? 0.0F : 63.0F / maxScale;
  const float perOffset = maxOffset == 0.0F ? 0.0F : 63.0F / maxOffset;
  for (size_t j = 0; j < 8; ++j) {
    packReference(&out.head[4], static_cast<int>(j),
                  std::clamp(roundHalfAway(scales[j] * perScale), 0, 63),
                  std::clamp(roundHalfAway(offsets[j] * perOffset), 0, 63));
  }
  const uint16_t d = f32ToF16(maxScale / 63.0F);
  const uint16_t dmin = f32ToF16(maxOffset / 63.0F);
  putHalf(&out.head[0], d);
  putHalf(&out.head[2], dmin);
  for (size_t i = 0; i < 256; ++i) {
    const int j = static_cast<int>(i / 32);
    const float step = static_cast<float>(packedScale(&out.head[4], j)) * halfValue(d);
    const float min = static_cast<float>(packedMin(&out.head[4], j)) * halfValue(dmin);
    if (step != 0.0F) out.codes[i] = std::clamp(roundHalfAway((x[i] + min) / step), 0, maxCode);
  }
  return out;
}

void putNibbles(uint8_t* qs, const std::array<int, 256>& codes) {
  for (size_t i = 0; i < 256; ++i) {
    putBits(qs[i / 64 * 32 + i % 32], i % 64 < 32 ? 0 : 4, 4, codes[i]);
  }
}

std::vector<uint8_t> referenceQ4K(const float* x) {
  const Affine affine = referenceAffine(x, 15);
  std::vector<uint8_t> block(affine.head.begin(), affine.head.end());
  block.resize(144);
  putNibbles(&block[16], affine.codes);
  return block;
}

std::vector<uint8_t> referenceQ5K(const float* x) {
  const Affine affine = referenceAffine(x, 31);
  std::vector<uint8_t> block(affine.head.begin(), affine.head.end());
  block.resize(176);
  putNibbles(&block[48], affine.codes);
  for (size_t i = 0; i < 256; ++i) {
    putBits(block[16 + i % 32], static_cast<int>(i / 32), 1, affine.codes[i] / 16);
  }
  return block;
}

std::vector<uint8_t> referenceQ6K(const float* x) {
  std::array<float, 16> steps{};
  for (size_t i = 0; i < 256; ++i) steps[i / 16] = std::max(steps[i / 16], std::fabs(x[i]));
  for (float& step : steps) step /= 31.0F;
  const float maxStep = *std::max_element(steps.begin(), steps.end());
  const uint16_t half = f32ToF16(maxStep == 0.0F ? 0.0F : maxStep / 127.0F);
  const float d = halfValue(half);
  std::vector<uint8_t> block(210);
  putHalf(&block[208], half);
  for (size_t i = 0; i < 256; ++i) {
    const int rounded = d > 0.0F ? roundHalfAway(steps[i / 16] / d) : 0;
    const int scale = rounded >= 128 ? 127 : std::max(rounded, 0);
    block[192 + i / 16] = static_cast<uint8_t>(scale);
    const float step = static_cast<float>(scale) * d;
    const int code = step == 0.0F ? 32 : std::clamp(roundHalfAway(x[i] / step), -32, 31) + 32;
    const size_t half128 = i / 128;
    const size_t quarter = i % 128 / 32;
    putBits(block[64 * half128 + 32 * (quarter % 2) + i % 32], quarter < 2 ? 0 : 4, 4, code);
    putBits(block[128 + 32 * half128 + i % 32], static_cast<int>(2 * quarter), 2, code >> 4);
  }
  return block;
}

struct Encoder {
  const char* name;
  size_t bytes;
  size_t scaleOffset;  // of the super-scale `d`
  void (*encode)(const float*, void*, uint64_t);
  void (*decode)(const void*, float*, uint64_t);
  std::vector<uint8_t> (*reference)(const float*);
};

void PrintTo(const Encoder& encoder, std::ostream* out) { *out << encoder.name; }

constexpr Encoder kEncoders[] = {
    {"Q4K", 144, 0, quantQ4K, dequantQ4K, referenceQ4K},
    {"Q5K", 176, 0, quantQ5K, dequantQ5K, referenceQ5K},
    {"Q6K", 210, 208, quantQ6K, dequantQ6K, referenceQ6K},
};

std::vector<uint8_t> encoded(const Encoder& encoder, const std::vector<float>& x) {
  std::vector<uint8_t> blocks((x.size() + 255) / 256 * encoder.bytes, 0xEE);
  encoder.encode(x.data(), blocks.data(), x.size());
  return blocks;
}

std::vector<float> roundTrip(const Encoder& encoder, const std::vector<float>& x) {
  std::vector<float> y(x.size());
  encoder.decode(encoded(encoder, x).data(), y.data(), x.size());
  return y;
}

class QuantKTest : public ::testing::TestWithParam<Encoder> {};

TEST_P(QuantKTest, BytesFollowTheRulesAtEveryCount) {
  for (const NamedInput& input : finiteInputs()) {
    for (const uint64_t n : kCounts) {
      SCOPED_TRACE(input.name + " " + std::to_string(n));
      std::vector<uint8_t> expected;
      for (uint64_t i = 0; i < n; i += 256) {
        std::array<float, 256> x{};
        std::copy_n(input.x.begin() + static_cast<std::ptrdiff_t>(i),
                    std::min<uint64_t>(256, n - i), x.begin());
        const std::vector<uint8_t> block = GetParam().reference(x.data());
        expected.insert(expected.end(), block.begin(), block.end());
      }
      GuardedBytes out(expected.size());
      GetParam().encode(input.x.data(), out.data(), n);
      ASSERT_EQ(out.contents(), expected);
      ASSERT_TRUE(out.guardsIntact());
    }
  }
}

TEST_P(QuantKTest, BytesFollowTheRulesOnManyRandomRows) {
  for (uint32_t seed = 100; seed < 400; ++seed) {
    const float size = std::ldexp(1.0F, static_cast<int>(seed % 40) - 24);
    const std::vector<float> x =
        randomFloats(seed, 256, -size, size * 0.01F * static_cast<float>(seed % 200));
    ASSERT_EQ(encoded(GetParam(), x), GetParam().reference(x.data())) << seed;
  }
}

TEST_P(QuantKTest, ThreeHundredElementsMakeTwoBlocksPaddedWithZeros) {
  const std::vector<float> x = randomFloats(12, 300, -1.0F, 1.0F);
  std::vector<float> padded = x;
  padded.resize(512, 0.0F);
  const std::vector<uint8_t> blocks = encoded(GetParam(), x);
  EXPECT_EQ(blocks.size(), 2 * GetParam().bytes);
  EXPECT_EQ(blocks, encoded(GetParam(), padded));
}

TEST_P(QuantKTest, NothingIsReadOrWrittenForNoElements) { GetParam().encode(nullptr, nullptr, 0); }

TEST_P(QuantKTest, ZerosDecodeToZeros) {
  for (const float v : roundTrip(GetParam(), std::vector<float>(512, 0.0F))) EXPECT_EQ(v, 0.0F);
}

TEST_P(QuantKTest, NanCountsAsZero) {
  std::vector<float> x = randomFloats(13, 512, -1.0F, 1.0F);
  std::vector<float> clean = x;
  for (const size_t i : {0U, 31U, 32U, 100U, 255U, 256U, 400U, 511U}) {
    x[i] = i % 2 == 0 ? kNan : -kNan;
    clean[i] = 0.0F;
  }
  EXPECT_EQ(encoded(GetParam(), x), encoded(GetParam(), clean));
  EXPECT_EQ(encoded(GetParam(), std::vector<float>(256, kNan)),
            encoded(GetParam(), std::vector<float>(256, 0.0F)));
}

TEST_P(QuantKTest, ABlockWithAnInfinityLeavesItsNeighboursAlone) {
  for (const float bad : {kInf, -kInf}) {
    std::vector<float> x = randomFloats(14, 768, -1.0F, 1.0F);
    const std::vector<float> clean = roundTrip(GetParam(), x);
    x[300] = bad;
    const std::vector<float> y = roundTrip(GetParam(), x);
    for (size_t i = 0; i < x.size(); ++i) {
      if (i / 256 != 1) {
        EXPECT_EQ(y[i], clean[i]) << i;
      }
    }
    EXPECT_FALSE(std::isfinite(y[300]));
  }
}

TEST_P(QuantKTest, ScalesOutsideHalfPrecisionSaturate) {
  // Ranges, scales and their inverses overflow on the way, and some become NaN.
  constexpr float kMax = std::numeric_limits<float>::max();
  constexpr float kTiny = std::numeric_limits<float>::denorm_min();
  const auto scaleOf = [](const std::vector<float>& x) {
    return zemtest::halfAt(&encoded(GetParam(), x)[GetParam().scaleOffset]);
  };
  for (const float size : {kMax, kMax / 2, 1e30F, 1e12F}) {
    EXPECT_EQ(scaleOf(randomFloats(15, 256, -size / 2, size / 2)), 0x7C00) << size;
  }
  for (const float size : {kTiny, 100 * kTiny, 1e-37F, 1e-12F}) {
    EXPECT_EQ(scaleOf(randomFloats(15, 256, -size, size)), 0) << size;
  }
  std::vector<float> ends(256, kMax);  // the range itself is infinite
  for (size_t i = 0; i < ends.size(); i += 3) ends[i] = -kMax;
  EXPECT_EQ(scaleOf(ends), 0x7C00);
}

TEST_P(QuantKTest, TinyValuesDecodeToZeroNotToNan) {
  for (const float size : {1e-44F, 1e-38F, 1e-30F, 1e-12F}) {
    for (const float v : roundTrip(GetParam(), randomFloats(16, 256, -size, size))) {
      EXPECT_EQ(v, 0.0F) << size;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Encoders, QuantKTest, ::testing::ValuesIn(kEncoders),
                         [](const auto& param) { return std::string(param.param.name); });

TEST(QuantQ4KTest, ANegativeConstantIsCarriedByTheMinimum) {
  Q4KBlock block;
  const std::vector<float> x(256, -6.3F);
  quantQ4K(x.data(), &block, 256);
  EXPECT_EQ(block.d, 0);
  EXPECT_EQ(block.dmin, f32ToF16(6.3F / 63.0F));
  for (const uint8_t code : block.qs) EXPECT_EQ(code, 0);
  for (int j = 0; j < 8; ++j) {
    EXPECT_EQ(packedScale(block.scales, j), 0);
    EXPECT_EQ(packedMin(block.scales, j), 63);
  }
  std::vector<float> y(256);
  dequantQ4K(&block, y.data(), 256);
  for (const float v : y) EXPECT_EQ(v, -63.0F * halfValue(block.dmin));
  EXPECT_NEAR(y[0], -6.3F, 6.3F * 0x1p-11F);
}

TEST(QuantQ4KTest, APositiveConstantBecomesZero) {
  Q4KBlock block;
  const std::vector<float> x(256, 2.0F);
  quantQ4K(x.data(), &block, 256);
  EXPECT_EQ(block.d, 0);
  EXPECT_EQ(block.dmin, 0);
  for (const uint8_t byte : block.scales) EXPECT_EQ(byte, 0);
  for (const uint8_t code : block.qs) EXPECT_EQ(code, 0);
  std::vector<float> y(256, 1.0F);
  dequantQ4K(&block, y.data(), 256);
  for (const float v : y) EXPECT_EQ(v, 0.0F);
}

TEST(QuantQ4KTest, ASubBlockWhoseStoredScaleVanishesKeepsItsOwnCodes) {
  // Sub-block 1 spans 1/1000 of sub-block 0, so its 6-bit scale rounds to 0.
  std::vector<float> x(256, 0.0F);
  for (size_t l = 0; l < 32; ++l) {
    x[l] = static_cast<float>(l % 16);
    x[32 + l] = 0.001F * static_cast<float>(l % 16);
  }
  Q4KBlock block;
  quantQ4K(x.data(), &block, 256);
  EXPECT_EQ(packedScale(block.scales, 1), 0);
  for (size_t l = 0; l < 32; ++l) EXPECT_EQ(block.qs[l], l % 16 * 0x11) << l;
}

TEST(QuantQ4KTest, ScalesAreMultipliedByARoundedFactor) {
  // Scales 22 and 11: 11 * 63 / 22 is 31.5 and would round to 32, but the float
  // nearest 63 / 22 lies below it, and 11 times that rounds to 31.
  std::vector<float> x(256, 0.0F);
  x[0] = 330.0F;
  x[32] = 165.0F;
  Q4KBlock block;
  quantQ4K(x.data(), &block, 256);
  EXPECT_EQ(packedScale(block.scales, 0), 63);
  EXPECT_EQ(packedScale(block.scales, 1), 31);
}

TEST(QuantQ6KTest, ZeroBlockHasNoScaleAndMiddleCodes) {
  Q6KBlock block;
  std::memset(&block, 0xEE, sizeof(block));
  const std::vector<float> x(256, 0.0F);
  quantQ6K(x.data(), &block, 256);
  EXPECT_EQ(block.d, 0);
  for (const int8_t scale : block.scales) EXPECT_EQ(scale, 0);
  for (const uint8_t low : block.ql) EXPECT_EQ(low, 0);
  for (const uint8_t high : block.qh) EXPECT_EQ(high, 0b10101010);  // four times code 32
}

TEST(QuantQ6KTest, ScalesNeverPass127) {
  // The stored scale rounds far down when it is a subnormal half.
  const std::vector<float> x = randomFloats(17, 256, -1e-3F, 1e-3F);
  Q6KBlock block;
  quantQ6K(x.data(), &block, 256);
  int largest = 0;
  for (const int8_t scale : block.scales) {
    EXPECT_GE(scale, 0);
    largest = std::max<int>(largest, scale);
  }
  EXPECT_EQ(largest, 127);
}

float largestOf(const std::vector<float>& x) {
  float largest = 0.0F;
  for (const float v : x) largest = std::max(largest, std::fabs(v));
  return largest;
}

TEST(RoundTripTest, Q4KAndQ5KStayWithinHalfAStepAndTheRoundingOfScales) {
  for (uint32_t seed = 0; seed < 200; ++seed) {
    const std::vector<float> x = randomFloats(seed, 256, -0.7F, 0.9F);
    for (const auto& [encoder, steps] :
         {std::pair{kEncoders[0], 15}, std::pair{kEncoders[1], 31}}) {
      const std::vector<float> y = roundTrip(encoder, x);
      // Largest step, what half a unit of a 6-bit scale is worth over all codes,
      // and half a unit of a 6-bit minimum; 2 % for the halves.
      const float step = 1.6F / static_cast<float>(steps);
      const float bound = step * 0.5F + 1.6F / 126 + 0.7F / 126;
      for (size_t i = 0; i < 256; ++i) ASSERT_NEAR(y[i], x[i], bound * 1.02F) << seed << " " << i;
    }
  }
}

TEST(RoundTripTest, Q6KStaysWithinHalfAStepAndTheRoundingOfScales) {
  for (uint32_t seed = 0; seed < 200; ++seed) {
    const std::vector<float> x = randomFloats(seed, 256, -0.9F, 0.9F);
    const std::vector<float> y = roundTrip(kEncoders[2], x);
    const float step = largestOf(x) / 31;
    const float bound = step * 0.5F + 31 * step / 254;
    for (size_t i = 0; i < 256; ++i) ASSERT_NEAR(y[i], x[i], bound * 1.02F) << seed << " " << i;
  }
}

TEST(RoundTripTest, MoreBitsMeanLessError) {
  const std::vector<float> x = randomFloats(18, 25600, -1.0F, 1.0F);
  double previous = std::numeric_limits<double>::infinity();
  for (const Encoder& encoder : kEncoders) {
    const std::vector<float> y = roundTrip(encoder, x);
    double squares = 0.0;
    for (size_t i = 0; i < x.size(); ++i) squares += std::pow(double{x[i]} - y[i], 2);
    EXPECT_LT(squares, previous / 3) << encoder.name;
    previous = squares;
  }
}

}  // namespace
}  // namespace zemtest
