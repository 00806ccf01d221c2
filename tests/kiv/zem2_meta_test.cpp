// SPDX-License-Identifier: Apache-2.0
#include <cstring>
#include <limits>
#include <string>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "kiv/zem2_reader.h"
#include "support/container_builder.h"
#include "support/opened_reader.h"
#include "support/status_matchers.h"

namespace {

using kiv::ZEM2Reader;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using zemtest::Bytes;
using zemtest::ContainerBuilder;
using zemtest::IsInvalidFormat;
using zemtest::IsOk;
using zemtest::OpenedReader;
using zemtest::openStatus;
using zemtest::putText;
using zemtest::putU16;
using zemtest::putU32;

kiv::Status openWithMeta(const Bytes& meta) {
  return openStatus(ContainerBuilder().rawMeta(meta).build());
}

ContainerBuilder oneOfEachType() {
  ContainerBuilder b;
  b.addMetaU32("u32", 0xFFFFFFFF).addMetaI32("i32", std::numeric_limits<int32_t>::min());
  b.addMetaF32("f32", -0.5F).addMetaU64("u64", 0x8000000000000001ULL);
  b.addMetaStr("str", std::string("a\0b", 3)).addMetaU32Array("arr", {3, 0, 0xFFFFFFFF});
  return b;
}

TEST(Zem2MetaTest, EachTypeIsReadBack) {
  OpenedReader opened(oneOfEachType().build());
  ASSERT_THAT(opened.status, IsOk());
  const ZEM2Reader& reader = opened.reader;

  uint32_t u32 = 0;
  EXPECT_TRUE(reader.getMetaU32("u32", u32));
  EXPECT_EQ(u32, 0xFFFFFFFFU);
  int32_t i32 = 0;
  EXPECT_TRUE(reader.getMetaI32("i32", i32));
  EXPECT_EQ(i32, std::numeric_limits<int32_t>::min());
  float f32 = 0;
  EXPECT_TRUE(reader.getMetaF32("f32", f32));
  EXPECT_EQ(f32, -0.5F);
  uint64_t u64 = 0;
  EXPECT_TRUE(reader.getMetaU64("u64", u64));
  EXPECT_EQ(u64, 0x8000000000000001ULL);
  std::string str;
  EXPECT_TRUE(reader.getMetaStr("str", str));
  EXPECT_EQ(str, std::string("a\0b", 3));
  const uint32_t* data = nullptr;
  uint64_t count = 0;
  ASSERT_TRUE(reader.getMetaU32Array("arr", data, count));
  EXPECT_THAT(std::vector<uint32_t>(data, data + count), ElementsAre(3, 0, 0xFFFFFFFF));
}

TEST(Zem2MetaTest, EntriesAreCopiedOutInFileOrder) {
  OpenedReader opened(oneOfEachType().build());
  ASSERT_EQ(opened.reader.metaCount(), 6U);
  const char* keys[] = {"u32", "i32", "f32", "u64", "str", "arr"};
  ZEM2Reader::MetaEntryView view;
  for (uint16_t i = 0; i < 6; ++i) {
    ASSERT_TRUE(opened.reader.metaAt(i, view));
    EXPECT_EQ(view.key, keys[i]);
    EXPECT_EQ(view.type, i);
    EXPECT_EQ(view.u32, i == 0 ? 0xFFFFFFFF : 0);
    EXPECT_EQ(view.i32, i == 1 ? std::numeric_limits<int32_t>::min() : 0);
    EXPECT_EQ(view.f32, i == 2 ? -0.5F : 0);
    EXPECT_EQ(view.u64, i == 3 ? 0x8000000000000001ULL : 0);
    EXPECT_EQ(view.str.size(), i == 4 ? 3 : 0);
    EXPECT_EQ(view.arr.size(), i == 5 ? 3 : 0);
  }
}

TEST(Zem2MetaTest, IndexBeyondTheLastEntryIsRefused) {
  OpenedReader opened(oneOfEachType().build());
  ZEM2Reader::MetaEntryView view;
  view.key = "untouched";
  EXPECT_FALSE(opened.reader.metaAt(6, view));
  EXPECT_FALSE(opened.reader.metaAt(std::numeric_limits<size_t>::max(), view));
  EXPECT_EQ(view.key, "untouched");
}

TEST(Zem2MetaTest, NotANumberKeepsItsBits) {
  Bytes meta;
  putU32(meta, 1);
  putU16(meta, 1);
  putText(meta, "n");
  meta.push_back(2);
  putU32(meta, 0x7FA12345);
  OpenedReader opened(ContainerBuilder().rawMeta(meta).build());
  float value = 0;
  ASSERT_TRUE(opened.reader.getMetaF32("n", value));
  uint32_t bits = 0;
  std::memcpy(&bits, &value, sizeof(bits));
  EXPECT_EQ(bits, 0x7FA12345U);
}

TEST(Zem2MetaTest, SectionMustExistAndHoldACount) {
  EXPECT_THAT(openStatus(ContainerBuilder().omit(kiv::zem2::SectionType::Meta).build()),
              IsInvalidFormat("ZEM2: missing meta section"));
  for (size_t size = 0; size < 4; ++size) {
    EXPECT_THAT(openWithMeta(Bytes(size)), IsInvalidFormat("ZEM2: missing meta section")) << size;
  }
  EXPECT_THAT(openWithMeta(Bytes(4)), IsOk());
}

TEST(Zem2MetaTest, BytesBehindTheLastEntryAreIgnored) {
  EXPECT_THAT(openWithMeta({0, 0, 0, 0, 0xFF, 0xFF, 0xFF}), IsOk());
}

TEST(Zem2MetaTest, EmptyStringsAndArraysAreValid) {
  OpenedReader opened(ContainerBuilder().addMetaStr("s", "").addMetaU32Array("a", {}).build());
  ASSERT_THAT(opened.status, IsOk());
  std::string str = "x";
  EXPECT_TRUE(opened.reader.getMetaStr("s", str));
  EXPECT_THAT(str, IsEmpty());
  const uint32_t* data = nullptr;
  uint64_t count = 7;
  EXPECT_TRUE(opened.reader.getMetaU32Array("a", data, count));
  EXPECT_EQ(count, 0U);
}

TEST(Zem2MetaTest, CountBeyondTheEntriesFailsAtTheNextKey) {
  for (uint32_t count : {2U, 1000U, 0xFFFFFFFFU}) {
    Bytes meta;
    putU32(meta, count);
    putU16(meta, 1);
    putText(meta, "k");
    meta.push_back(0);
    putU32(meta, 5);
    EXPECT_THAT(openWithMeta(meta), IsInvalidFormat("ZEM2: bad meta key")) << count;
  }
}

// A section of one entry with key "k" and tag `tag`, up to and including the tag.
Bytes oneEntry(uint8_t tag) {
  Bytes meta;
  putU32(meta, 1);
  putU16(meta, 1);
  putText(meta, "k");
  meta.push_back(tag);
  return meta;
}

TEST(Zem2MetaTest, KeyMustFit) {
  EXPECT_THAT(openWithMeta({1, 0, 0, 0}), IsInvalidFormat("ZEM2: bad meta key"));
  EXPECT_THAT(openWithMeta({1, 0, 0, 0, 1}), IsInvalidFormat("ZEM2: bad meta key"));
  EXPECT_THAT(openWithMeta({1, 0, 0, 0, 1, 0}), IsInvalidFormat("ZEM2: bad meta key"));
  EXPECT_THAT(openWithMeta({1, 0, 0, 0, 0xFF, 0xFF, 'k', 0}),
              IsInvalidFormat("ZEM2: bad meta key"));
}

TEST(Zem2MetaTest, KeyAtTheSectionsEndLacksItsType) {
  EXPECT_THAT(openWithMeta({1, 0, 0, 0, 1, 0, 'k'}), IsInvalidFormat("ZEM2: bad meta type"));
  EXPECT_THAT(openWithMeta({1, 0, 0, 0, 0, 0}), IsInvalidFormat("ZEM2: bad meta type"));
}

TEST(Zem2MetaTest, UnknownTypesAreRefused) {
  for (int tag = 6; tag < 256; ++tag) {
    Bytes meta = oneEntry(static_cast<uint8_t>(tag));
    meta.resize(meta.size() + 32);
    EXPECT_THAT(openWithMeta(meta), IsInvalidFormat("ZEM2: unknown meta type")) << tag;
  }
  EXPECT_THAT(openWithMeta(oneEntry(6)), IsInvalidFormat("ZEM2: unknown meta type"));
}

struct ValueCase {
  const char* name;
  uint8_t tag;
  Bytes value;
  const char* message;
};

class Zem2MetaValueTest : public ::testing::TestWithParam<ValueCase> {};

TEST_P(Zem2MetaValueTest, EveryTruncationHasTheTypesMessage) {
  const ValueCase& c = GetParam();
  for (size_t size = 0; size <= c.value.size(); ++size) {
    Bytes meta = oneEntry(c.tag);
    meta.insert(meta.end(), c.value.begin(), c.value.begin() + static_cast<ptrdiff_t>(size));
    if (size < c.value.size()) {
      EXPECT_THAT(openWithMeta(meta), IsInvalidFormat(c.message)) << size;
    } else {
      EXPECT_THAT(openWithMeta(meta), IsOk());
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Types, Zem2MetaValueTest,
    ::testing::Values(
        ValueCase{"U32", 0, Bytes(4), "ZEM2: bad meta u32"},
        ValueCase{"I32", 1, Bytes(4), "ZEM2: bad meta i32"},
        ValueCase{"F32", 2, Bytes(4), "ZEM2: bad meta f32"},
        ValueCase{"U64", 3, Bytes(8), "ZEM2: bad meta u64"},
        ValueCase{"Str", 4, {3, 0, 0, 0, 'a', 'b', 'c'}, "ZEM2: bad meta str"},
        ValueCase{"U32Array", 5, {2, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0}, "ZEM2: bad meta array"}),
    [](const auto& value) { return value.param.name; });

TEST(Zem2MetaTest, HugeLengthsFailWithoutHugeMemory) {
  for (uint32_t length : {0x40000000U, 0x40000001U, 0x80000000U, 0xFFFFFFFFU}) {
    Bytes str = oneEntry(4);
    putU32(str, length);
    str.resize(str.size() + 64);
    EXPECT_THAT(openWithMeta(str), IsInvalidFormat("ZEM2: bad meta str")) << length;
    Bytes array = oneEntry(5);
    putU32(array, length);  // four times the first two wrap around 32 bits
    array.resize(array.size() + 64);
    EXPECT_THAT(openWithMeta(array), IsInvalidFormat("ZEM2: bad meta array")) << length;
  }
}

TEST(Zem2MetaTest, DuplicateKeysAreToldApartByType) {
  OpenedReader opened(
      ContainerBuilder().addMetaU32("x", 1).addMetaStr("x", "two").addMetaU32("x", 3).build());
  ASSERT_EQ(opened.reader.metaCount(), 3U);
  uint32_t u32 = 0;
  EXPECT_TRUE(opened.reader.getMetaU32("x", u32));
  EXPECT_EQ(u32, 1U);
  std::string str;
  EXPECT_TRUE(opened.reader.getMetaStr("x", str));
  EXPECT_EQ(str, "two");
  uint64_t u64 = 77;
  EXPECT_FALSE(opened.reader.getMetaU64("x", u64));
  EXPECT_EQ(u64, 77U);
}

TEST(Zem2MetaTest, MissesLeaveTheOutputAlone) {
  OpenedReader opened(oneOfEachType().build());
  uint32_t u32 = 11;
  int32_t i32 = 12;
  float f32 = 13;
  uint64_t u64 = 14;
  std::string str = "15";
  const uint32_t* data = &u32;
  uint64_t count = 16;
  for (const char* key : {"", "nothing", "u3", "u322", "U32", static_cast<const char*>(nullptr)}) {
    EXPECT_FALSE(opened.reader.getMetaU32(key, u32));
    EXPECT_FALSE(opened.reader.getMetaI32(key, i32));
    EXPECT_FALSE(opened.reader.getMetaF32(key, f32));
    EXPECT_FALSE(opened.reader.getMetaU64(key, u64));
    EXPECT_FALSE(opened.reader.getMetaStr(key, str));
    EXPECT_FALSE(opened.reader.getMetaU32Array(key, data, count));
  }
  EXPECT_EQ(u32, 11U);
  EXPECT_EQ(i32, 12);
  EXPECT_EQ(f32, 13);
  EXPECT_EQ(u64, 14U);
  EXPECT_EQ(str, "15");
  EXPECT_EQ(data, &u32);
  EXPECT_EQ(count, 16U);
}

TEST(Zem2MetaTest, NoTypeStandsInForAnother) {
  OpenedReader opened(ContainerBuilder().addMetaI32("n", 5).build());
  uint32_t u32 = 0;
  uint64_t u64 = 0;
  float f32 = 0;
  EXPECT_FALSE(opened.reader.getMetaU32("n", u32));
  EXPECT_FALSE(opened.reader.getMetaU64("n", u64));
  EXPECT_FALSE(opened.reader.getMetaF32("n", f32));
}

TEST(Zem2MetaTest, KeysMayBeEmptyLongOrAnyBytes) {
  const std::string longest(65535, 'k');
  OpenedReader opened(ContainerBuilder()
                          .addMetaU32("", 1)
                          .addMetaU32(longest, 2)
                          .addMetaU32("\xFF\x80", 3)
                          .addMetaU32(std::string_view("a\0b", 3), 4)
                          .build());
  ASSERT_THAT(opened.status, IsOk());
  uint32_t value = 0;
  EXPECT_TRUE(opened.reader.getMetaU32("", value));
  EXPECT_EQ(value, 1U);
  EXPECT_TRUE(opened.reader.getMetaU32(longest.c_str(), value));
  EXPECT_EQ(value, 2U);
  EXPECT_TRUE(opened.reader.getMetaU32("\xFF\x80", value));
  EXPECT_EQ(value, 3U);
  // A key with a zero byte has no spelling as a C string.
  EXPECT_FALSE(opened.reader.getMetaU32("a", value));
}

TEST(Zem2MetaTest, ArrayStorageBelongsToTheReader) {
  OpenedReader opened(ContainerBuilder().addMetaU32Array("a", {1, 2}).build());
  const uint32_t* first = nullptr;
  const uint32_t* second = nullptr;
  uint64_t count = 0;
  ASSERT_TRUE(opened.reader.getMetaU32Array("a", first, count));
  ASSERT_TRUE(opened.reader.getMetaU32Array("a", second, count));
  EXPECT_EQ(first, second);
}

TEST(Zem2MetaTest, ParsingAgainReplacesTheEntries) {
  OpenedReader opened(oneOfEachType().build());
  EXPECT_THAT(opened.reader.parseMeta(), IsOk());
  EXPECT_EQ(opened.reader.metaCount(), 6U);
}

TEST(Zem2MetaTest, ClosedReaderHasNoSectionToParse) {
  EXPECT_THAT(ZEM2Reader().parseMeta(), IsInvalidFormat("ZEM2: missing meta section"));
}

}  // namespace
