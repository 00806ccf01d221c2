// SPDX-License-Identifier: Apache-2.0
#include "kiv/quant/row_codec.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "gtest/gtest.h"

namespace zemtest {

using namespace kiv;

namespace {

constexpr DType kTypes[] = {DType::F32,  DType::BF16, DType::Q8_0,
                            DType::Q4_K, DType::Q5_K, DType::Q6_K};

std::vector<float> wave(size_t n) {
  std::vector<float> x(n);
  for (size_t i = 0; i < n; ++i) x[i] = std::sin(static_cast<float>(i) * 0.37F);
  return x;
}

std::vector<uint8_t> encodedRow(DType type, const std::vector<float>& x) {
  std::vector<uint8_t> bytes(dtypeBytes(type, x.size()));
  encodeRow(type, x.data(), x.size(), bytes.data());
  return bytes;
}

TEST(RowCodecTest, EveryTypeComesBackNearby) {
  const std::vector<float> x = wave(512);
  for (const DType type : kTypes) {
    ASSERT_TRUE(hasRowCodec(type));
    const std::vector<uint8_t> bytes = encodedRow(type, x);
    EXPECT_TRUE(rowIsFinite(type, bytes.data(), bytes.size()));
    std::vector<float> y(x.size());
    decodeRow(type, bytes.data(), y.size(), y.data());
    const float step = type == DType::F32 ? 0.0F : type == DType::Q4_K ? 0.09F : 0.05F;
    for (size_t i = 0; i < x.size(); ++i) EXPECT_NEAR(y[i], x[i], step) << dtypeName(type);
  }
}

TEST(RowCodecTest, TypesWithoutAnEncoderAreKnown) {
  for (const DType type : {DType::F16, DType::Q4_0, DType::Q8_K, DType::Q5_0, DType::Q5_1}) {
    EXPECT_FALSE(hasRowCodec(type)) << dtypeName(type);
  }
}

TEST(RowCodecTest, Bf16RoundsToNearestAndTiesToEven) {
  const std::vector<float> x = {1.0F, 1.00390625F, 1.01171875F, 1.00390637F, -1.00390637F};
  std::vector<float> y(x.size());
  decodeRow(DType::BF16, encodedRow(DType::BF16, x).data(), y.size(), y.data());
  EXPECT_EQ(y, (std::vector<float>{1.0F, 1.0F, 1.015625F, 1.0078125F, -1.0078125F}));
}

TEST(RowCodecTest, Bf16KeepsNanAndInfinity) {
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  const std::vector<float> x = {std::numeric_limits<float>::quiet_NaN(), kInfinity, 3.4e38F};
  std::vector<float> y(x.size());
  decodeRow(DType::BF16, encodedRow(DType::BF16, x).data(), y.size(), y.data());
  EXPECT_TRUE(std::isnan(y[0]));
  EXPECT_EQ(y[1], kInfinity);
  EXPECT_EQ(y[2], kInfinity);  // beyond the largest
}

TEST(RowCodecTest, InfiniteScalesAndElementsAreSeen) {
  for (const DType type : kTypes) {
    for (const size_t at : {0U, 255U, 256U, 511U}) {
      std::vector<float> x = wave(512);
      x[at] = std::numeric_limits<float>::infinity();
      const std::vector<uint8_t> bytes = encodedRow(type, x);
      EXPECT_FALSE(rowIsFinite(type, bytes.data(), bytes.size())) << dtypeName(type) << at;
    }
  }
}

TEST(RowCodecTest, ScalesBeyondHalfPrecisionAreSeen) {
  for (const DType type : {DType::Q8_0, DType::Q4_K, DType::Q5_K, DType::Q6_K}) {
    std::vector<float> x = wave(256);
    for (float& value : x) value *= 1e9F;
    const std::vector<uint8_t> bytes = encodedRow(type, x);
    EXPECT_FALSE(rowIsFinite(type, bytes.data(), bytes.size())) << dtypeName(type);
  }
}

TEST(RowCodecTest, NothingIsFinite) {
  for (const DType type : kTypes) EXPECT_TRUE(rowIsFinite(type, nullptr, 0));
}

}  // namespace
}  // namespace zemtest
