// SPDX-License-Identifier: Apache-2.0
#include "kiv/dequant.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <vector>

#include "kiv/quant.h"
#include "kiv/quant_k.h"
#include "kiv/quant_testing.h"

namespace zemtest {

using namespace kiv;
using namespace kiv::quant;

namespace {

using zemtest::bitsOf;

// One element of one block, straight from the layout. Each takes the block's
// bytes and the element's place in the block.
float elementQ40(const uint8_t* block, size_t k) {
  const int code = bitsOf(block[2 + k / 2], k % 2 == 0 ? 0 : 4, 4);
  return static_cast<float>(code - 8) * halfValue(halfAt(block));
}

float elementQ80(const uint8_t* block, size_t k) {
  return static_cast<float>(static_cast<int8_t>(block[2 + k])) * halfValue(halfAt(block));
}

// Where element e of Q4_K and Q5_K keeps its low four bits.
int nibbleK(const uint8_t* qs, size_t e) {
  return bitsOf(qs[e / 64 * 32 + e % 32], e % 64 < 32 ? 0 : 4, 4);
}

float affineK(const uint8_t* block, size_t e, int code) {
  const int j = static_cast<int>(e / 32);
  const float scale = static_cast<float>(packedScale(block + 4, j)) * halfValue(halfAt(block));
  const float min = static_cast<float>(packedMin(block + 4, j)) * halfValue(halfAt(block + 2));
  return static_cast<float>(code) * scale - min;
}

float elementQ4K(const uint8_t* block, size_t e) {
  return affineK(block, e, nibbleK(block + 16, e));
}

float elementQ5K(const uint8_t* block, size_t e) {
  const int high = bitsOf(block[16 + e % 32], static_cast<int>(e / 32), 1);
  return affineK(block, e, nibbleK(block + 48, e) + 16 * high);
}

float elementQ6K(const uint8_t* block, size_t e) {
  const size_t half = e / 128;
  const size_t quarter = e % 128 / 32;
  const size_t l = e % 32;
  const int low = bitsOf(block[64 * half + 32 * (quarter % 2) + l], quarter < 2 ? 0 : 4, 4);
  const int high = bitsOf(block[128 + 32 * half + l], static_cast<int>(2 * quarter), 2);
  const auto scale = static_cast<int8_t>(block[192 + e / 16]);
  return static_cast<float>(scale * (16 * high + low - 32)) * halfValue(halfAt(block + 208));
}

struct Format {
  const char* name;
  size_t elements;
  size_t bytes;
  std::vector<size_t> halves;  // offsets of half-precision fields
  void (*dequantise)(const void*, float*, uint64_t);
  float (*element)(const uint8_t*, size_t);
};

const std::vector<Format>& formats() {
  static const std::vector<Format> kFormats = {
      {"Q40", 32, 18, {0}, dequantQ40, elementQ40},
      {"Q80", 32, 34, {0}, dequantQ80, elementQ80},
      {"Q4K", 256, 144, {0, 2}, dequantQ4K, elementQ4K},
      {"Q5K", 256, 176, {0, 2}, dequantQ5K, elementQ5K},
      {"Q6K", 256, 210, {208}, dequantQ6K, elementQ6K},
  };
  return kFormats;
}

size_t blockCount(const Format& format, uint64_t n) {
  return (n + format.elements - 1) / format.elements;
}

// Random bytes in every field; only infinities and NaNs are kept out of the scales.
std::vector<uint8_t> randomBlocks(const Format& format, uint32_t seed, size_t count) {
  std::vector<uint8_t> bytes = randomBytes(seed, format.bytes * count);
  for (size_t b = 0; b < count; ++b) {
    for (const size_t offset : format.halves) {
      uint8_t* half = &bytes[b * format.bytes + offset];
      putHalf(half, finiteHalf(halfAt(half)));
    }
  }
  return bytes;
}

std::vector<float> expand(const Format& format, const std::vector<uint8_t>& blocks, size_t n) {
  std::vector<float> y(n);
  format.dequantise(blocks.data(), y.data(), n);
  return y;
}

class DequantTest : public ::testing::TestWithParam<size_t> {
 protected:
  const Format& format() const { return formats()[GetParam()]; }
};

TEST_P(DequantTest, RandomBlocksMatchTheElementFormula) {
  constexpr size_t kBlocks = 200;
  const std::vector<uint8_t> blocks = randomBlocks(format(), 77, kBlocks);
  const size_t n = kBlocks * format().elements;
  const std::vector<float> y = expand(format(), blocks, n);
  for (size_t i = 0; i < n; ++i) {
    const uint8_t* block = &blocks[i / format().elements * format().bytes];
    const float expected = format().element(block, i % format().elements);
    ASSERT_EQ(std::bit_cast<uint32_t>(y[i]), std::bit_cast<uint32_t>(expected)) << i;
  }
}

TEST_P(DequantTest, EveryBitOfABlockReachesExactlyItsElements) {
  std::vector<uint8_t> block = randomBlocks(format(), 78, 1);
  for (const size_t offset : format().halves) putHalf(&block[offset], 0x3C00);
  for (size_t bit = 0; bit < 8 * format().bytes; ++bit) {
    std::vector<uint8_t> flipped = block;
    flipped[bit / 8] = static_cast<uint8_t>(flipped[bit / 8] ^ (1U << (bit % 8)));
    const std::vector<float> y = expand(format(), flipped, format().elements);
    for (size_t e = 0; e < y.size(); ++e) {
      const float expected = format().element(flipped.data(), e);
      if (std::isnan(expected)) {
        ASSERT_TRUE(std::isnan(y[e])) << bit << " " << e;
      } else {
        ASSERT_EQ(y[e], expected) << bit << " " << e;
      }
    }
  }
}

TEST_P(DequantTest, WritesExactlyTheCountAskedFor) {
  for (const uint64_t n : kCounts) {
    SCOPED_TRACE(n);
    const std::vector<uint8_t> blocks = randomBlocks(format(), 79, blockCount(format(), n));
    constexpr float kUntouched = -12345.0F;
    std::vector<float> y(n + 300, kUntouched);
    format().dequantise(blocks.data(), y.data(), n);
    for (size_t i = 0; i < n; ++i) {
      const uint8_t* block = &blocks[i / format().elements * format().bytes];
      ASSERT_EQ(y[i], format().element(block, i % format().elements)) << i;
    }
    for (size_t i = n; i < y.size(); ++i) ASSERT_EQ(y[i], kUntouched) << i;
  }
}

TEST_P(DequantTest, BlocksMayLieAtAnyAddress) {
  const size_t n = 3 * format().elements - 5;
  const std::vector<uint8_t> blocks = randomBlocks(format(), 80, 3);
  const std::vector<float> expected = expand(format(), blocks, n);
  for (size_t shift = 1; shift < 8; ++shift) {
    std::vector<uint8_t> moved(blocks.size() + shift);
    std::copy(blocks.begin(), blocks.end(), moved.begin() + static_cast<std::ptrdiff_t>(shift));
    std::vector<float> y(n);
    format().dequantise(moved.data() + shift, y.data(), n);
    EXPECT_EQ(bitsOf(y), bitsOf(expected)) << shift;
  }
}

TEST_P(DequantTest, NothingIsReadForNoElements) { format().dequantise(nullptr, nullptr, 0); }

TEST_P(DequantTest, InfiniteAndNanScalesReachTheOutput) {
  std::vector<uint8_t> block(format().bytes, 0xFF);
  for (const size_t offset : format().halves) putHalf(&block[offset], 0x7C00);
  for (const float v : expand(format(), block, format().elements)) EXPECT_FALSE(std::isfinite(v));
  for (const size_t offset : format().halves) putHalf(&block[offset], 0x7E00);
  for (const float v : expand(format(), block, format().elements)) EXPECT_TRUE(std::isnan(v));
}

INSTANTIATE_TEST_SUITE_P(Formats, DequantTest, ::testing::Range(size_t{0}, formats().size()),
                         [](const auto& param) { return formats()[param.param].name; });

// Hand-made blocks: values worked out on paper.

TEST(DequantQ40Test, NeighboursShareAByte) {
  std::vector<uint8_t> block(18, 0x88);
  putHalf(block.data(), 0x3C00);
  block[2] = 0x9F;
  std::vector<float> y(32);
  dequantQ40(block.data(), y.data(), 32);
  EXPECT_EQ(y[0], 7.0F);
  EXPECT_EQ(y[1], 1.0F);
  for (size_t k = 2; k < 32; ++k) EXPECT_EQ(y[k], 0.0F) << k;
}

TEST(DequantQ80Test, CodesAreSigned) {
  std::vector<uint8_t> block(34, 0);
  putHalf(block.data(), 0x3800);  // 0.5
  block[2] = 0x80;
  block[33] = 0x7F;
  std::vector<float> y(32);
  dequantQ80(block.data(), y.data(), 32);
  EXPECT_EQ(y[0], -64.0F);
  EXPECT_EQ(y[31], 63.5F);
}

// A block of Q4_K or Q5_K with d = 1, dmin = 0.5 and, for sub-block j, scale
// 50 + j and minimum 40 + j (both need their upper bits).
std::vector<uint8_t> affineBlock(size_t bytes) {
  std::vector<uint8_t> block(bytes, 0);
  putHalf(&block[0], 0x3C00);
  putHalf(&block[2], 0x3800);
  const uint8_t packed[12] = {
      0b11'110010, 0b11'110011, 0b11'110100, 0b11'110101,  // scales 50-53, tops of 54-57
      0b10'101000, 0b10'101001, 0b10'101010, 0b10'101011,  // minima 40-43, tops of 44-47
      0b1100'0110, 0b1101'0111, 0b1110'1000, 0b1111'1001,  // minima 44-47 over scales 54-57
  };
  std::copy_n(packed, 12, &block[4]);
  return block;
}

TEST(DequantQ4KTest, EachElementHasItsNibbleScaleAndMinimum) {
  for (size_t e = 0; e < 256; ++e) {
    std::vector<uint8_t> block = affineBlock(144);
    block[16 + 32 * (e / 64) + e % 32] = e % 64 < 32 ? 0x0D : 0xD0;
    std::vector<float> y(256);
    dequantQ4K(block.data(), y.data(), 256);
    for (size_t i = 0; i < 256; ++i) {
      const int j = static_cast<int>(i / 32);
      const auto scale = static_cast<float>(50 + j);
      const float min = static_cast<float>(40 + j) / 2;
      EXPECT_EQ(y[i], (i == e ? 13 * scale : 0.0F) - min) << e << " " << i;
    }
  }
}

TEST(DequantQ5KTest, EachElementHasItsFifthBit) {
  for (size_t e = 0; e < 256; ++e) {
    std::vector<uint8_t> block = affineBlock(176);
    block[16 + e % 32] = static_cast<uint8_t>(1U << (e / 32));
    block[48 + 32 * (e / 64) + e % 32] = e % 64 < 32 ? 0x03 : 0x30;
    std::vector<float> y(256);
    dequantQ5K(block.data(), y.data(), 256);
    for (size_t i = 0; i < 256; ++i) {
      const int j = static_cast<int>(i / 32);
      const auto scale = static_cast<float>(50 + j);
      const float min = static_cast<float>(40 + j) / 2;
      EXPECT_EQ(y[i], (i == e ? 19 * scale : 0.0F) - min) << e << " " << i;
    }
  }
}

TEST(DequantQ6KTest, EachElementHasItsSixBitsAndItsScale) {
  for (size_t e = 0; e < 256; ++e) {
    std::vector<uint8_t> block(210, 0);
    for (size_t j = 0; j < 16; ++j) block[192 + j] = static_cast<uint8_t>(j - 8);  // -8 to 7
    putHalf(&block[208], 0x3800);
    const size_t half = e / 128;
    const size_t quarter = e % 128 / 32;
    const size_t low = 64 * half + e % 32 + (quarter == 1 || quarter == 3 ? 32 : 0);
    block[low] = quarter < 2 ? 0x0B : 0xB0;
    block[128 + 32 * half + e % 32] = static_cast<uint8_t>(2U << (2 * quarter));
    std::vector<float> y(256);
    dequantQ6K(block.data(), y.data(), 256);
    for (size_t i = 0; i < 256; ++i) {
      const float scale = static_cast<float>(static_cast<int>(i / 16) - 8);
      EXPECT_EQ(y[i], scale * (i == e ? 43 - 32 : -32) / 2) << e << " " << i;
    }
  }
}

TEST(DequantQ6KTest, ExtremesOfScaleAndCode) {
  std::vector<uint8_t> block(210, 0);
  std::fill_n(&block[192], 16, uint8_t{0x80});  // -128
  putHalf(&block[208], 0x3C00);
  std::vector<float> y(256);
  dequantQ6K(block.data(), y.data(), 256);
  for (const float v : y) EXPECT_EQ(v, 4096.0F);
}

// Q8_K: random codes, scale 1 and 0.5 for the first two blocks, group scales j + 1.
std::vector<uint8_t> blocksQ8K(size_t count) {
  std::vector<uint8_t> blocks = randomBytes(81, 290 * count);
  for (size_t b = 0; b < count; ++b) {
    uint8_t* block = &blocks[290 * b];
    putHalf(block, f32ToF16(1.5F / static_cast<float>(b + 1)));
    for (size_t j = 0; j < 16; ++j) {
      putHalf(block + 258 + 2 * j, f32ToF16(0.3F * static_cast<float>(j + b + 1)));
    }
  }
  return blocks;
}

float elementQ8K(const std::vector<uint8_t>& blocks, size_t i) {
  const uint8_t* block = &blocks[i / 256 * 290];
  const size_t e = i % 256;
  const float scaled =
      static_cast<float>(static_cast<int8_t>(block[2 + e])) * halfValue(halfAt(blocks.data()));
  return scaled * halfValue(halfAt(block + 258 + 2 * (e / 16)));
}

TEST(DequantQ8KTest, TheFirstScaleCountsForEveryBlock) {
  const std::vector<uint8_t> blocks = blocksQ8K(3);
  std::vector<float> y(768);
  dequantQ8K(blocks.data(), y.data(), 768);
  for (size_t i = 0; i < 768; ++i) {
    ASSERT_EQ(std::bit_cast<uint32_t>(y[i]), std::bit_cast<uint32_t>(elementQ8K(blocks, i))) << i;
  }
}

TEST(DequantQ8KTest, OnlyWholeBlocksAreExpanded) {
  constexpr float kUntouched = -12345.0F;
  for (const uint64_t n : kCounts) {
    SCOPED_TRACE(n);
    const size_t whole = n / 256 * 256;
    // No byte of a partial block: reading one would leave the buffer.
    const std::vector<uint8_t> blocks = blocksQ8K(n / 256);
    std::vector<float> y(n + 8, kUntouched);
    dequantQ8K(blocks.data(), y.data(), n);
    for (size_t i = 0; i < whole; ++i) ASSERT_EQ(y[i], elementQ8K(blocks, i)) << i;
    for (size_t i = whole; i < y.size(); ++i) ASSERT_EQ(y[i], kUntouched) << i;
  }
}

TEST(DequantQ8KTest, BlocksMayLieAtAnyAddress) {
  const std::vector<uint8_t> blocks = blocksQ8K(2);
  GuardedBytes moved(blocks.size());
  std::copy(blocks.begin(), blocks.end(), moved.data());
  std::vector<float> y(512);
  dequantQ8K(moved.data(), y.data(), 512);
  for (size_t i = 0; i < 512; ++i) ASSERT_EQ(y[i], elementQ8K(blocks, i)) << i;
}

}  // namespace
}  // namespace zemtest
