// SPDX-License-Identifier: Apache-2.0
#include "kiv/container/gguf_types.h"

#include <bit>
#include <cstdint>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "kiv/quant.h"

namespace zemtest {

using namespace kiv;

namespace {

using Bytes = std::vector<uint8_t>;

void putHalf(Bytes& out, float value) {
  const uint16_t half = quant::f32ToF16(value);
  out.push_back(static_cast<uint8_t>(half));
  out.push_back(static_cast<uint8_t>(half >> 8));
}

std::vector<float> widened(GgufType type, const Bytes& bytes) {
  EXPECT_EQ(bytes.size() % ggufBlockBytes(type), 0U);
  std::vector<float> y(bytes.size() / ggufBlockBytes(type) * ggufBlockSize(type), -999.0F);
  widenGguf(type, bytes.data(), y.data(), y.size());
  return y;
}

TEST(GgufTypesTest, BlocksHaveThePublishedSizes) {
  const std::vector<std::tuple<GgufType, const char*, uint64_t, uint64_t>> table = {
      {GgufType::F32, "F32", 1, 4},          {GgufType::F16, "F16", 1, 2},
      {GgufType::BF16, "BF16", 1, 2},        {GgufType::Q4_0, "Q4_0", 32, 18},
      {GgufType::Q4_1, "Q4_1", 32, 20},      {GgufType::Q5_0, "Q5_0", 32, 22},
      {GgufType::Q5_1, "Q5_1", 32, 24},      {GgufType::Q8_0, "Q8_0", 32, 34},
      {GgufType::Q2_K, "Q2_K", 256, 84},     {GgufType::Q3_K, "Q3_K", 256, 110},
      {GgufType::Q4_K, "Q4_K", 256, 144},    {GgufType::Q5_K, "Q5_K", 256, 176},
      {GgufType::Q6_K, "Q6_K", 256, 210},    {GgufType::IQ4_NL, "IQ4_NL", 32, 18},
      {GgufType::IQ4_XS, "IQ4_XS", 256, 136}};
  for (const auto& [type, name, elements, bytes] : table) {
    EXPECT_STREQ(ggufTypeName(type), name);
    EXPECT_EQ(ggufBlockSize(type), elements) << name;
    EXPECT_EQ(ggufBlockBytes(type), bytes) << name;
  }
  for (const uint32_t other : {4U, 5U, 9U, 15U, 16U, 22U, 24U, 29U, 31U, 39U, ~0U}) {
    EXPECT_STREQ(ggufTypeName(static_cast<GgufType>(other)), "?");
    EXPECT_EQ(ggufBlockSize(static_cast<GgufType>(other)), 0U);
    EXPECT_EQ(ggufBlockBytes(static_cast<GgufType>(other)), 0U);
  }
}

TEST(GgufTypesTest, OnlyTypesOfTheSameLayoutAreStoredAsTheyAre) {
  DType stored = DType::Q8_K;
  EXPECT_TRUE(ggufStoredAs(GgufType::Q6_K, stored));
  EXPECT_EQ(stored, DType::Q6_K);
  EXPECT_TRUE(ggufStoredAs(GgufType::BF16, stored));
  EXPECT_EQ(stored, DType::BF16);
  for (const GgufType type : {GgufType::F16, GgufType::Q4_0, GgufType::Q4_1, GgufType::Q5_0,
                              GgufType::Q2_K, GgufType::Q3_K, GgufType::IQ4_XS}) {
    EXPECT_FALSE(ggufStoredAs(type, stored)) << ggufTypeName(type);
  }
}

TEST(GgufTypesTest, HalvesAreWidened) {
  Bytes half;
  putHalf(half, -1.5F);
  putHalf(half, 65504.0F);
  EXPECT_THAT(widened(GgufType::F16, half), testing::ElementsAre(-1.5F, 65504.0F));
  EXPECT_THAT(widened(GgufType::BF16, {0xC0, 0x3F, 0x80, 0xC0}), testing::ElementsAre(1.5F, -4.0F));
}

// Element k and k + 16 share a byte, unlike in a container's Q4_0.
TEST(GgufTypesTest, FourBitBlocksHaveTheirHalvesSixteenApart) {
  Bytes block;
  putHalf(block, 0.5F);
  for (unsigned k = 0; k < 16; ++k) block.push_back(static_cast<uint8_t>(k | (15 - k) << 4));
  const std::vector<float> y = widened(GgufType::Q4_0, block);
  for (size_t k = 0; k < 16; ++k) {
    EXPECT_EQ(y[k], (static_cast<float>(k) - 8) * 0.5F);
    EXPECT_EQ(y[k + 16], (7 - static_cast<float>(k)) * 0.5F);
  }
  block.insert(block.begin() + 2, {0, 0});
  const uint16_t minimum = quant::f32ToF16(-3.0F);
  block[2] = static_cast<uint8_t>(minimum);
  block[3] = static_cast<uint8_t>(minimum >> 8);
  const std::vector<float> z = widened(GgufType::Q4_1, block);
  for (size_t k = 0; k < 16; ++k) {
    EXPECT_EQ(z[k], static_cast<float>(k) * 0.5F - 3.0F);
    EXPECT_EQ(z[k + 16], static_cast<float>(15 - k) * 0.5F - 3.0F);
  }
}

TEST(GgufTypesTest, FifthBitsLieInElementOrder) {
  Bytes block;
  putHalf(block, 2.0F);
  const uint32_t high = 0x80010003;  // elements 0, 1, 16 and 31
  for (int i = 0; i < 4; ++i) block.push_back(static_cast<uint8_t>(high >> (8 * i)));
  for (unsigned k = 0; k < 16; ++k) block.push_back(static_cast<uint8_t>(k << 4 | (15 - k)));
  const std::vector<float> y = widened(GgufType::Q5_0, block);
  for (size_t e = 0; e < 32; ++e) {
    const int code = static_cast<int>(e < 16 ? 15 - e : e - 16) + ((high >> e & 1) != 0 ? 16 : 0);
    EXPECT_EQ(y[e], static_cast<float>(code - 16) * 2.0F) << e;
  }
  Bytes withMinimum(block.begin(), block.begin() + 2);
  putHalf(withMinimum, 1.0F);
  withMinimum.insert(withMinimum.end(), block.begin() + 2, block.end());
  const std::vector<float> z = widened(GgufType::Q5_1, withMinimum);
  for (size_t e = 0; e < 32; ++e) EXPECT_EQ(z[e], y[e] + 33.0F) << e;
}

TEST(GgufTypesTest, TwoBitBlocksHaveScalesAndMinimaOfSixteen) {
  Bytes block;
  for (unsigned j = 0; j < 16; ++j) block.push_back(static_cast<uint8_t>(j | (15 - j) << 4));
  for (unsigned i = 0; i < 64; ++i) block.push_back(static_cast<uint8_t>(i * 37));
  putHalf(block, 0.25F);
  putHalf(block, 0.5F);
  const std::vector<float> y = widened(GgufType::Q2_K, block);
  for (size_t half = 0; half < 2; ++half) {
    for (size_t quarter = 0; quarter < 4; ++quarter) {
      for (size_t l = 0; l < 32; ++l) {
        const size_t e = 128 * half + 32 * quarter + l;
        const unsigned byte = static_cast<uint8_t>((32 * half + l) * 37);
        const unsigned code = byte >> (2 * quarter) & 3;
        const float scale = static_cast<float>(e / 16);
        EXPECT_EQ(y[e], static_cast<float>(code) * 0.25F * scale - 0.5F * (15 - scale)) << e;
      }
    }
  }
}

// The twelve scale bytes read the long way round, as four 32-bit words.
TEST(GgufTypesTest, ThreeBitBlocksHaveSixBitScales) {
  Bytes block;
  for (unsigned i = 0; i < 32; ++i) block.push_back(static_cast<uint8_t>(i * 91 + 5));
  for (unsigned i = 0; i < 64; ++i) block.push_back(static_cast<uint8_t>(i * 53 + 1));
  Bytes packed;
  for (unsigned i = 0; i < 12; ++i) packed.push_back(static_cast<uint8_t>(i * 77 + 13));
  block.insert(block.end(), packed.begin(), packed.end());
  putHalf(block, 0.5F);
  uint32_t words[4] = {};
  for (size_t i = 0; i < 12; ++i) words[i / 4] |= static_cast<uint32_t>(packed[i]) << (i % 4 * 8);
  const uint32_t upper = words[2];
  words[2] = (words[0] >> 4 & 0x0F0F0F0F) | (upper >> 4 & 0x03030303) << 4;
  words[3] = (words[1] >> 4 & 0x0F0F0F0F) | (upper >> 6 & 0x03030303) << 4;
  words[0] = (words[0] & 0x0F0F0F0F) | (upper & 0x03030303) << 4;
  words[1] = (words[1] & 0x0F0F0F0F) | (upper >> 2 & 0x03030303) << 4;
  const std::vector<float> y = widened(GgufType::Q3_K, block);
  for (size_t e = 0; e < 256; ++e) {
    const int scale = static_cast<int>(words[e / 64] >> (e / 16 % 4 * 8) & 0xFF) - 32;
    const unsigned low = block[32 + e / 128 * 32 + e % 32] >> (e % 128 / 32 * 2) & 3;
    const int code = static_cast<int>(low) - ((block[e % 32] >> (e / 32) & 1) != 0 ? 0 : 4);
    EXPECT_EQ(y[e], static_cast<float>(code * scale) * 0.5F) << e;
  }
}

TEST(GgufTypesTest, UnevenFourBitCodesStandForATable) {
  const std::vector<float> table = {-127, -104, -83, -65, -49, -35, -22, -10,
                                    1,    13,   25,  38,  53,  69,  89,  113};
  Bytes block;
  putHalf(block, 2.0F);
  for (unsigned k = 0; k < 16; ++k) block.push_back(static_cast<uint8_t>(k | (15 - k) << 4));
  const std::vector<float> y = widened(GgufType::IQ4_NL, block);
  for (size_t k = 0; k < 16; ++k) {
    EXPECT_EQ(y[k], 2 * table[k]);
    EXPECT_EQ(y[k + 16], 2 * table[15 - k]);
  }
  Bytes large;
  putHalf(large, 0.5F);
  large.insert(large.end(), {0xE4, 0x1B});              // upper bits: 0, 1, 2, 3, 3, 2, 1, 0
  large.insert(large.end(), {0x10, 0x32, 0x54, 0x76});  // lower bits: 0 to 7
  for (unsigned i = 0; i < 128; ++i) large.push_back(static_cast<uint8_t>(i * 29));
  const std::vector<float> z = widened(GgufType::IQ4_XS, large);
  const int upper[] = {0, 1, 2, 3, 3, 2, 1, 0};
  for (size_t e = 0; e < 256; ++e) {
    const size_t j = e / 32;
    const int scale = (static_cast<int>(j) | upper[j] << 4) - 32;
    const unsigned byte = static_cast<uint8_t>((16 * j + e % 16) * 29);
    const unsigned code = e % 32 < 16 ? byte & 15 : byte >> 4;
    EXPECT_EQ(z[e], table[code] * static_cast<float>(scale) * 0.5F) << e;
  }
}

TEST(GgufTypesTest, UnknownTypesWriteNothing) {
  std::vector<float> y(256, 7.0F);
  widenGguf(static_cast<GgufType>(16), y.data(), y.data(), 256);
  EXPECT_THAT(y, testing::Each(7.0F));
}

}  // namespace
}  // namespace zemtest
