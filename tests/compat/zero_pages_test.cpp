// SPDX-License-Identifier: Apache-2.0
#include "compat/zero_pages.h"

#include <algorithm>
#include <cstdint>
#include <fstream>

#include "gtest/gtest.h"
#include "support/platform.h"

namespace {

using compat::PageUse;

struct Block {
  Block(size_t size, PageUse use)
      : bytes(size), data(static_cast<uint8_t*>(compat::allocateZeroPages(size, use))) {}
  ~Block() { compat::freeZeroPages(data, bytes); }
  Block(const Block&) = delete;
  Block& operator=(const Block&) = delete;

  bool isZero() const {
    return std::all_of(data, data + bytes, [](uint8_t byte) { return byte == 0; });
  }
  void clear() const { compat::clearZeroPages(data, bytes); }

  size_t bytes;
  uint8_t* data;
};

class ZeroPagesTest : public testing::TestWithParam<PageUse> {};

INSTANTIATE_TEST_SUITE_P(Uses, ZeroPagesTest, testing::Values(PageUse::Sparse, PageUse::Dense),
                         [](const testing::TestParamInfo<PageUse>& use) {
                           return use.param == PageUse::Dense ? "Dense" : "Sparse";
                         });

TEST_P(ZeroPagesTest, NoBytesAreNoBlock) {
  EXPECT_EQ(compat::allocateZeroPages(0, GetParam()), nullptr);
  compat::freeZeroPages(nullptr, 0);
  compat::freeZeroPages(nullptr, 5);
  compat::clearZeroPages(nullptr, 5);
}

TEST_P(ZeroPagesTest, MoreThanThereIsIsNull) {
  EXPECT_EQ(compat::allocateZeroPages(size_t{1} << 62, GetParam()), nullptr);
  EXPECT_EQ(compat::allocateZeroPages(~size_t{0}, GetParam()), nullptr);
}

TEST_P(ZeroPagesTest, BlocksBeginAsZerosOnAPage) {
  for (const size_t bytes :
       {size_t{1}, size_t{4095}, size_t{4096}, size_t{4097}, size_t{1} << 20, (size_t{2} << 20) - 1,
        size_t{2} << 20, (size_t{2} << 20) + 1, size_t{7} << 20}) {
    const Block block(bytes, GetParam());
    ASSERT_NE(block.data, nullptr) << bytes;
    EXPECT_EQ(reinterpret_cast<uintptr_t>(block.data) % 4096, 0U);
    EXPECT_TRUE(block.isZero()) << bytes;
  }
}

TEST_P(ZeroPagesTest, ClearingMakesEveryByteZeroAgain) {
  for (const size_t bytes : {size_t{1}, size_t{4097}, size_t{5} << 20}) {
    const Block block(bytes, GetParam());
    ASSERT_NE(block.data, nullptr);
    for (int round = 0; round < 3; ++round) {
      std::fill_n(block.data, bytes, uint8_t{0xA5});
      block.clear();
      EXPECT_TRUE(block.isZero()) << bytes << " in round " << round;
    }
  }
}

TEST_P(ZeroPagesTest, ScatteredPagesAreCleared) {
  const Block block(size_t{64} << 20, GetParam());
  ASSERT_NE(block.data, nullptr);
  for (int round = 0; round < 2; ++round) {
    for (size_t at = 17; at < block.bytes; at += 3 * 4096 + 1) block.data[at] = 1;
    block.data[0] = 1;
    block.data[block.bytes - 1] = 1;
    block.clear();
    EXPECT_TRUE(block.isZero());
  }
}

// The memory of this process that is in use, in bytes.
size_t residentBytes() {
  size_t all = 0;
  size_t pages = 0;
  std::ifstream("/proc/self/statm") >> all >> pages;
  return pages * 4096;
}

TEST_P(ZeroPagesTest, ClearingAnUntouchedBlockUsesNoMemory) {
  ZEM_SKIP_ON_WINDOWS("/proc, where a process finds its memory in use");
  const size_t before = residentBytes();
  ASSERT_GT(before, 0U);
  const Block block(size_t{1} << 30, GetParam());
  ASSERT_NE(block.data, nullptr);
  for (int i = 0; i < 100; ++i) block.clear();
  EXPECT_LT(residentBytes(), before + block.bytes / 16);
  std::fill_n(block.data, block.bytes / 4, uint8_t{1});
  EXPECT_GT(residentBytes(), before + block.bytes / 8) << "the measure itself";
}

}  // namespace
