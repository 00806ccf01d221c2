// SPDX-License-Identifier: Apache-2.0
#include "kiv/tensor.h"

#include <gtest/gtest.h>

#include <limits>

#include "kiv/quant.h"

namespace zemtest {

using namespace kiv;

namespace {

constexpr uint64_t kMaxCount = std::numeric_limits<uint64_t>::max();

struct Layout {
  DType type;
  uint16_t code;
  const char* name;
  uint64_t elements;
  uint64_t bytes;
};

constexpr Layout kLayouts[] = {
    {DType::F32, 0, "F32", 1, 4},       {DType::F16, 1, "F16", 1, 2},
    {DType::BF16, 2, "BF16", 1, 2},     {DType::Q4_0, 3, "Q4_0", 32, 18},
    {DType::Q8_0, 4, "Q8_0", 32, 34},   {DType::Q4_K, 5, "Q4_K", 256, 144},
    {DType::Q5_K, 6, "Q5_K", 256, 176}, {DType::Q6_K, 7, "Q6_K", 256, 210},
    {DType::Q8_K, 8, "Q8_K", 256, 290}, {DType::Q5_0, 9, "Q5_0", 0, 0},
    {DType::Q5_1, 10, "Q5_1", 0, 0},
};

TEST(DTypeTest, EveryTypeHasItsCodeNameAndBlock) {
  for (const Layout& layout : kLayouts) {
    EXPECT_EQ(static_cast<uint16_t>(layout.type), layout.code) << layout.name;
    EXPECT_STREQ(dtypeName(layout.type), layout.name);
    EXPECT_EQ(dtypeBlockSize(layout.type), layout.elements) << layout.name;
    EXPECT_EQ(dtypeBytes(layout.type, layout.elements), layout.bytes) << layout.name;
  }
}

TEST(DTypeTest, PartialBlocksCountWhole) {
  for (const Layout& layout : kLayouts) {
    if (layout.elements == 0) continue;
    for (uint64_t n = 0; n < 1100; ++n) {
      const uint64_t blocks = (n + layout.elements - 1) / layout.elements;
      EXPECT_EQ(dtypeBytes(layout.type, n), blocks * layout.bytes) << layout.name << " " << n;
    }
  }
}

TEST(DTypeTest, TypesWithoutALayoutHaveNoBytes) {
  EXPECT_EQ(dtypeBytes(DType::Q5_0, 320), 0U);
  EXPECT_EQ(dtypeBytes(DType::Q5_1, 320), 0U);
}

TEST(DTypeTest, UnknownCodesAreAQuestionMarkWithoutLayout) {
  for (uint32_t code = 11; code < 65536; ++code) {
    const auto type = static_cast<DType>(code);
    ASSERT_STREQ(dtypeName(type), "?") << code;
    ASSERT_EQ(dtypeBytes(type, 256), 0U) << code;
    ASSERT_EQ(dtypeBlockSize(type), 0U) << code;
  }
}

TEST(DTypeTest, SizesBeyond64BitsAreZero) {
  EXPECT_EQ(dtypeBytes(DType::F32, kMaxCount / 4), kMaxCount - 3);
  EXPECT_EQ(dtypeBytes(DType::F32, kMaxCount / 4 + 1), 0U);
  EXPECT_EQ(dtypeBytes(DType::F16, kMaxCount / 2 + 1), 0U);
  EXPECT_EQ(dtypeBytes(DType::BF16, kMaxCount), 0U);
  EXPECT_EQ(dtypeBytes(DType::Q8_0, kMaxCount), 0U);
  EXPECT_EQ(dtypeBytes(DType::Q8_K, kMaxCount), 0U);
  EXPECT_EQ(dtypeBytes(DType::Q8_K, kMaxCount / 290 * 256), kMaxCount / 290 * 290);
  EXPECT_EQ(dtypeBytes(DType::Q4_K, kMaxCount), uint64_t{144} << 56);
}

TEST(DTypeTest, AgreesWithTheSizesOfTheBlockFormats) {
  constexpr std::pair<DType, QuantType> kSame[] = {
      {DType::F32, QuantType::F32},   {DType::F16, QuantType::F16},
      {DType::BF16, QuantType::BF16}, {DType::Q4_0, QuantType::Q4_0},
      {DType::Q8_0, QuantType::Q8_0}, {DType::Q4_K, QuantType::Q4_K},
      {DType::Q5_K, QuantType::Q5_K}, {DType::Q6_K, QuantType::Q6_K},
  };
  for (const auto& [dtype, quantType] : kSame) {
    EXPECT_STREQ(dtypeName(dtype), quantTypeName(quantType));
    for (const uint64_t n : {uint64_t{0}, uint64_t{1}, uint64_t{257}, kMaxCount / 4, kMaxCount}) {
      EXPECT_EQ(dtypeBytes(dtype, n), quant::quantizedBytes(quantType, n)) << dtypeName(dtype);
    }
  }
}

TEST(TensorViewTest, AFreshViewIsEmpty) {
  const TensorView view;
  EXPECT_EQ(view.data, nullptr);
  EXPECT_EQ(view.size, 0U);
  EXPECT_EQ(view.ndim, 0);
  for (const uint64_t extent : view.shape) EXPECT_EQ(extent, 0U);
  EXPECT_EQ(view.quant.blockSize, 0);
  EXPECT_EQ(view.quant.bytesPerBlock, 0U);
  EXPECT_TRUE(view.name.empty());
}

}  // namespace
}  // namespace zemtest
