// SPDX-License-Identifier: Apache-2.0
#include "kiv/container/byte_cursor.h"

#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "gtest/gtest.h"

namespace {

using kiv::ByteCursor;

// The first `size` of the bytes 01 to 08 in a buffer of exactly that size, so
// that the sanitizer sees a read beyond it.
struct Counting {
  explicit Counting(size_t size)
      : bytes(kBytes, kBytes + size), cursor(bytes.data(), bytes.size()) {}

  static constexpr uint8_t kBytes[] = {1, 2, 3, 4, 5, 6, 7, 8};
  std::vector<uint8_t> bytes;
  ByteCursor cursor;
};

template <typename T>
void expectNeedsExactly(size_t width, T expected) {
  for (size_t size = 0; size < width; ++size) {
    Counting short_(size);
    T value{};
    EXPECT_FALSE(short_.cursor.read(value)) << size << " of " << width;
    EXPECT_EQ(value, T{});
    EXPECT_EQ(short_.cursor.remaining(), size);
  }
  Counting whole(width);
  T value{};
  EXPECT_TRUE(whole.cursor.read(value));
  EXPECT_EQ(value, expected);
  EXPECT_EQ(whole.cursor.remaining(), 0U);
}

TEST(ByteCursorTest, NumbersAreLittleEndianAndNeedAllTheirBytes) {
  expectNeedsExactly<uint8_t>(1, 0x01);
  expectNeedsExactly<uint16_t>(2, 0x0201);
  expectNeedsExactly<uint32_t>(4, 0x04030201);
  expectNeedsExactly<int32_t>(4, 0x04030201);
  expectNeedsExactly<uint64_t>(8, 0x0807060504030201);
}

TEST(ByteCursorTest, SignedAndFloatKeepTheirBits) {
  const uint8_t bytes[] = {0xFE, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0xC0, 0xFF};
  ByteCursor in(bytes, sizeof(bytes));
  int32_t number = 0;
  float nan = 0;
  ASSERT_TRUE(in.read(number));
  ASSERT_TRUE(in.read(nan));
  EXPECT_EQ(number, -2);
  uint32_t bits = 0;
  std::memcpy(&bits, &nan, sizeof(bits));
  EXPECT_EQ(bits, 0xFFC00000U);
}

TEST(ByteCursorTest, ReadsFollowOneAnotherAtOddAddresses) {
  Counting in(7);
  uint8_t first = 0;
  uint32_t second = 0;
  uint16_t third = 0;
  ASSERT_TRUE(in.cursor.read(first));
  ASSERT_TRUE(in.cursor.read(second));
  ASSERT_TRUE(in.cursor.read(third));
  EXPECT_EQ(second, 0x05040302U);
  EXPECT_EQ(third, 0x0706U);
}

TEST(ByteCursorTest, StringsTakeAllOrNothing) {
  Counting in(3);
  std::string out = "before";
  EXPECT_FALSE(in.cursor.read(out, 4));
  EXPECT_FALSE(in.cursor.read(out, std::numeric_limits<uint64_t>::max()));
  EXPECT_EQ(out, "before");
  EXPECT_TRUE(in.cursor.read(out, 3));
  EXPECT_EQ(out, "\x01\x02\x03");
  EXPECT_TRUE(in.cursor.read(out, 0));
  EXPECT_EQ(out, "");
}

TEST(ByteCursorTest, NothingCanBeReadFromNothing) {
  ByteCursor in(nullptr, 0);
  uint8_t value = 7;
  EXPECT_FALSE(in.read(value));
  EXPECT_EQ(value, 7);
}

}  // namespace
