// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <limits>
#include <string>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "kiv/zem2_reader.h"
#include "support/container_builder.h"
#include "support/opened_reader.h"
#include "support/status_matchers.h"

namespace {

using kiv::DType;
using ::testing::Each;
using ::testing::ElementsAre;
using zemtest::Bytes;
using zemtest::ContainerBuilder;
using zemtest::IsOk;
using zemtest::OpenedReader;
using zemtest::set;

std::string nameOf(const kiv::zem2::TensorEntry* entry) {
  return entry == nullptr ? "(none)" : std::string(entry->name, entry->nameLen);
}

void expectAllZero(const kiv::zem2::TensorView& view) {
  EXPECT_EQ(view.ptr, nullptr);
  EXPECT_EQ(view.size, 0U);
  EXPECT_EQ(view.dtype, 0U);
  EXPECT_EQ(view.ndim, 0U);
  EXPECT_THAT(view.shape, Each(0U));
  EXPECT_EQ(view.quantType, 0U);
  EXPECT_EQ(view.blockSize, 0U);
  EXPECT_EQ(view.bytesPerBlock, 0U);
}

TEST(Zem2TensorsTest, ViewsShowTheEntryAndPointAtTheBytes) {
  OpenedReader opened(ContainerBuilder()
                          .addTensor("m", DType::Q8_0, {32, 2}, Bytes(68, 0xAB))
                          .addTensor("a", DType::F32, {1}, {1, 2, 3, 4})
                          .quantInfo()
                          .build());
  ASSERT_THAT(opened.status, IsOk());
  const auto view = opened.reader.tensorView("m");
  EXPECT_EQ(view.ptr, opened.reader.weightBase() + 64);
  EXPECT_EQ(view.ptr[67], 0xAB);
  EXPECT_EQ(view.size, 68U);
  EXPECT_EQ(view.dtype, 4U);
  EXPECT_EQ(view.ndim, 2U);
  EXPECT_THAT(view.shape, ElementsAre(32, 2, 0, 0));
  EXPECT_EQ(view.quantType, 4U);
  EXPECT_EQ(view.blockSize, 32U);
  EXPECT_EQ(view.bytesPerBlock, 34U);

  const auto byPosition = opened.reader.tensorView(size_t{1});
  EXPECT_EQ(byPosition.ptr, view.ptr);
  EXPECT_EQ(opened.reader.tensorView(size_t{0}).size, 4U);
}

TEST(Zem2TensorsTest, AliasesShareTheirBytes) {
  OpenedReader opened(ContainerBuilder()
                          .addTensor("b", DType::F32, {1}, {1, 2, 3, 4})
                          .addTensorAlias("a", DType::F32, {1}, "b")
                          .build());
  EXPECT_EQ(opened.reader.tensorView("a").ptr, opened.reader.tensorView("b").ptr);
  EXPECT_EQ(opened.reader.weightSize(), 4U);
}

TEST(Zem2TensorsTest, MissesGiveNullAndAnAllZeroView) {
  OpenedReader opened(
      ContainerBuilder().addTensor("m", DType::F32, {1}, Bytes(4, 1)).quantInfo().build());
  for (const char* name : {"", "l", "n", "mm", "M", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(opened.reader.findTensor(name), nullptr);
    expectAllZero(opened.reader.tensorView(name));
  }
  expectAllZero(opened.reader.tensorView(opened.reader.tensorCount()));
  expectAllZero(opened.reader.tensorView(std::numeric_limits<size_t>::max()));
}

TEST(Zem2TensorsTest, EveryTensorIsFoundInIndexesOfEverySize) {
  for (int count = 1; count <= 40; ++count) {
    ContainerBuilder builder;
    for (int i = 0; i < count; ++i) {
      builder.addTensor("t" + std::to_string(i), DType::F32, {}, {});
    }
    OpenedReader opened(builder.build());
    ASSERT_THAT(opened.status, IsOk());
    for (int i = 0; i < count; ++i) {
      const std::string name = "t" + std::to_string(i);
      EXPECT_EQ(nameOf(opened.reader.findTensor(name.c_str())), name);
      EXPECT_EQ(opened.reader.findTensor((name + "?").c_str()), nullptr);
    }
  }
}

TEST(Zem2TensorsTest, NamesAreOrderedAsUnsignedBytes) {
  OpenedReader opened(ContainerBuilder()
                          .addTensor("\xC3\xA4", DType::F32, {}, {})
                          .addTensor("z", DType::F32, {}, {})
                          .addTensor("A", DType::F32, {}, {})
                          .addTensor("", DType::F32, {}, {})
                          .build());
  for (const char* name : {"", "A", "z", "\xC3\xA4"}) {
    EXPECT_EQ(nameOf(opened.reader.findTensor(name)), name);
  }
}

TEST(Zem2TensorsTest, FullLengthNameNeedsNoTerminatorAndLongerQueriesFindItToo) {
  const std::string name(64, 'n');
  OpenedReader opened(ContainerBuilder()
                          .addTensor(name, DType::F32, {7}, Bytes(28))
                          .addTensor("o", DType::F32, {}, {})
                          .build());
  ASSERT_THAT(opened.status, IsOk());
  EXPECT_EQ(nameOf(opened.reader.findTensor(name.c_str())), name);
  EXPECT_EQ(nameOf(opened.reader.findTensor((name + "tail").c_str())), name);
  EXPECT_EQ(opened.reader.findTensor(name.substr(0, 63).c_str()), nullptr);
  EXPECT_EQ(opened.reader.tensorView((name + "tail").c_str()).shape[0], 7U);
}

TEST(Zem2TensorsTest, UnsortedIndexHidesTensorsButIsSafe) {
  Bytes file = ContainerBuilder()
                   .addTensor("a", DType::F32, {}, {})
                   .addTensor("b", DType::F32, {}, {})
                   .addTensor("c", DType::F32, {}, {})
                   .build();
  const auto at = [&](size_t i) {
    return file.begin() + static_cast<ptrdiff_t>(zemtest::tensorOffset(file, i));
  };
  std::swap_ranges(at(0), at(1), at(1));  // b a c
  OpenedReader opened(file);
  ASSERT_THAT(opened.status, IsOk());
  EXPECT_EQ(opened.reader.findTensor("a"), nullptr);
  EXPECT_EQ(opened.reader.findTensor("b"), nullptr);
  EXPECT_EQ(nameOf(opened.reader.findTensor("c")), "c");
}

TEST(Zem2TensorsTest, WithoutQuantInfoBlockFieldsAreZero) {
  OpenedReader opened(ContainerBuilder().addTensor("q", DType::Q4_K, {256}, Bytes(144)).build());
  EXPECT_EQ(opened.reader.quantInfoCount(), 0U);
  const auto view = opened.reader.tensorView("q");
  EXPECT_EQ(view.dtype, 5U);
  EXPECT_EQ(view.quantType, 0U);
  EXPECT_EQ(view.blockSize, 0U);
  EXPECT_EQ(view.bytesPerBlock, 0U);
}

// A QuantInfo payload of `size` bytes 0, 1, 2, ...
Bytes countingBytes(size_t size) {
  Bytes bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(i);
  return bytes;
}

TEST(Zem2TensorsTest, QuantInfoIsCopiedInWholeEntries) {
  OpenedReader opened(ContainerBuilder()
                          .addTensor("a", DType::F32, {}, {})
                          .addSection(kiv::zem2::SectionType::QuantInfo, countingBytes(3 * 32 - 1))
                          .build());
  ASSERT_THAT(opened.status, IsOk());
  ASSERT_EQ(opened.reader.quantInfoCount(), 2U);
  const kiv::zem2::QuantEntry entry = opened.reader.quantEntry(1);
  EXPECT_EQ(uint16_t{entry.quantType}, 0x2120);
  EXPECT_EQ(uint16_t{entry.blockSize}, 0x2322);
  EXPECT_EQ(uint32_t{entry.bytesPerBlock}, 0x27262524U);
  EXPECT_EQ(uint32_t{entry.scaleBytes}, 0x2B2A2928U);
  EXPECT_EQ(uint32_t{entry.scaleOffset}, 0x2F2E2D2CU);
  EXPECT_EQ(uint32_t{entry.zeroOffset}, 0x33323130U);
  EXPECT_EQ(uint32_t{entry.flags}, 0x37363534U);
  EXPECT_EQ(uint64_t{entry.reserved}, 0x3F3E3D3C3B3A3938U);
  EXPECT_EQ(opened.reader.tensorView("a").blockSize, 0x0302U);

  EXPECT_THAT(opened.reader.parseQuantInfo(), IsOk());
  EXPECT_EQ(opened.reader.quantInfoCount(), 2U);
}

TEST(Zem2TensorsTest, NoMoreThanFourExtentsAreCopied) {
  for (const uint64_t ndim : {5U, 6U, 255U, 65535U}) {
    Bytes file = ContainerBuilder().addTensor("a", DType::F32, {1, 2, 3, 4}, Bytes(96)).build();
    set(file, 0, zemtest::tensor::ndim, ndim);
    OpenedReader opened(file);
    const auto view = opened.reader.tensorView("a");
    EXPECT_EQ(view.ndim, ndim);
    EXPECT_THAT(view.shape, ElementsAre(1, 2, 3, 4));
    EXPECT_EQ(view.quantType, 0U);
  }
}

TEST(Zem2TensorsTest, UnusedExtentsAreNotCopied) {
  Bytes file = ContainerBuilder().addTensor("a", DType::F32, {1, 2, 3, 4}, Bytes(96)).build();
  for (uint64_t ndim = 0; ndim <= 4; ++ndim) {
    set(file, 0, zemtest::tensor::ndim, ndim);
    OpenedReader opened(file);
    const auto view = opened.reader.tensorView("a");
    for (uint64_t d = 0; d < 4; ++d) EXPECT_EQ(view.shape[d], d < ndim ? d + 1 : 0);
  }
}

TEST(Zem2TensorsTest, PlacesOutsideTheSectionAreShownAsTheyAre) {
  const Bytes intact = ContainerBuilder().addTensor("a", DType::F32, {1}, Bytes(4)).build();
  for (uint64_t offset : {uint64_t{1} << 40, uint64_t{1} << 63, ~uint64_t{0}}) {
    Bytes file = intact;
    set(file, 0, zemtest::tensor::offset, offset);
    set(file, 0, zemtest::tensor::size, ~uint64_t{0});
    OpenedReader opened(file);
    ASSERT_THAT(opened.status, IsOk());
    const auto view = opened.reader.tensorView("a");
    EXPECT_EQ(reinterpret_cast<uintptr_t>(view.ptr),
              reinterpret_cast<uintptr_t>(opened.reader.weightBase()) + offset);
    EXPECT_EQ(view.size, std::numeric_limits<size_t>::max());
  }
}

TEST(Zem2TensorsTest, RawViewKeepsUnknownTypeCodes) {
  OpenedReader opened(
      ContainerBuilder().addTensor("a", static_cast<DType>(40), {1}, Bytes(4)).build());
  EXPECT_EQ(opened.reader.tensorView("a").dtype, 40U);
}

TEST(Zem2TensorsTest, SearchDoesNotReadNameLengths) {
  Bytes file = ContainerBuilder().addTensor("abc", DType::F32, {}, {}).build();
  set(file, 0, zemtest::tensor::nameLen, 0xFFFF);
  OpenedReader opened(file);
  EXPECT_NE(opened.reader.findTensor("abc"), nullptr);
}

}  // namespace
