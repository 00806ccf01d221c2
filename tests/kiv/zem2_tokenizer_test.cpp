// SPDX-License-Identifier: Apache-2.0
#include <cstring>
#include <string>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "kiv/zem2_reader.h"
#include "support/container_builder.h"
#include "support/opened_reader.h"
#include "support/status_matchers.h"

namespace {

using kiv::TokenizerData;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using zemtest::Bytes;
using zemtest::ContainerBuilder;
using zemtest::IsOk;
using zemtest::OpenedReader;
using zemtest::putString;
using zemtest::putText;
using zemtest::putU32;

constexpr uint32_t kLimit = 67108864;

bool readTokenizer(const Bytes& payload, TokenizerData& out) {
  OpenedReader opened(ContainerBuilder().rawTokenizer(payload).build());
  EXPECT_THAT(opened.status, IsOk());
  return opened.reader.readTokenizer(out);
}

bool readable(const Bytes& payload) {
  TokenizerData ignored;
  return readTokenizer(payload, ignored);
}

TokenizerData example() {
  TokenizerData data;
  data.chatTemplate = "{{ messages }}";
  data.tokens = {"a", "", "\xE2\x96\x81", std::string("\0", 1)};
  data.scores = {0.5F, -1.0F, 0.0F};
  data.tokenTypes = {1, 3, -7};
  data.merges = {"a b", ""};
  data.bosId = 1;
  data.eosId = -1;
  data.unkId = 2147483647;
  data.padId = -2147483647 - 1;
  data.addBos = true;
  return data;
}

TEST(Zem2TokenizerTest, EveryFieldIsReadBack) {
  TokenizerData out;
  ASSERT_TRUE(readTokenizer(zemtest::tokenizerBytes(example()), out));
  EXPECT_EQ(out.chatTemplate, "{{ messages }}");
  EXPECT_EQ(out.tokens, example().tokens);
  EXPECT_THAT(out.scores, ElementsAre(0.5F, -1.0F, 0.0F));
  EXPECT_THAT(out.tokenTypes, ElementsAre(1, 3, -7));
  EXPECT_EQ(out.merges, example().merges);
  EXPECT_EQ(out.bosId, 1);
  EXPECT_EQ(out.eosId, -1);
  EXPECT_EQ(out.unkId, 2147483647);
  EXPECT_EQ(out.padId, -2147483647 - 1);
  EXPECT_TRUE(out.addBos);
}

TEST(Zem2TokenizerTest, EmptyTablesAndTemplateAreValid) {
  TokenizerData out = example();
  ASSERT_TRUE(readTokenizer(zemtest::tokenizerBytes({}), out));
  EXPECT_THAT(out.chatTemplate, IsEmpty());
  EXPECT_THAT(out.tokens, IsEmpty());
  EXPECT_THAT(out.scores, IsEmpty());
  EXPECT_THAT(out.tokenTypes, IsEmpty());
  EXPECT_THAT(out.merges, IsEmpty());
  EXPECT_FALSE(out.addBos);
}

TEST(Zem2TokenizerTest, AnyNonzeroByteSetsAddBos) {
  Bytes payload = zemtest::tokenizerBytes(example());
  for (int value = 0; value < 256; ++value) {
    payload.back() = static_cast<uint8_t>(value);
    TokenizerData out;
    ASSERT_TRUE(readTokenizer(payload, out));
    EXPECT_EQ(out.addBos, value != 0) << value;
  }
}

TEST(Zem2TokenizerTest, BytesBehindTheLastFieldAreIgnored) {
  Bytes payload = zemtest::tokenizerBytes(example());
  putText(payload, "and more");
  EXPECT_TRUE(readable(payload));
}

TEST(Zem2TokenizerTest, EveryTruncationIsRefused) {
  const Bytes whole = zemtest::tokenizerBytes(example());
  for (size_t size = 0; size < whole.size(); ++size) {
    EXPECT_FALSE(readable(Bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size))))
        << size << " of " << whole.size();
  }
  EXPECT_TRUE(readable(whole));
}

TEST(Zem2TokenizerTest, BytesBehindAShortSectionAreNotRead) {
  Bytes file = ContainerBuilder().tokenizer(example()).build();
  const size_t i = zemtest::sectionIndex(file, kiv::zem2::SectionType::Tokenizer);
  const uint64_t whole = zemtest::get(file, i, zemtest::section::size);
  for (uint64_t size = 0; size <= whole; ++size) {
    zemtest::set(file, i, zemtest::section::size, size);
    zemtest::reseal(file);
    OpenedReader opened(file);
    TokenizerData out;
    EXPECT_EQ(opened.reader.readTokenizer(out), size == whole) << size;
  }
}

TEST(Zem2TokenizerTest, AddBosIsMandatory) {
  Bytes payload = zemtest::tokenizerBytes(example());
  payload.pop_back();
  TokenizerData out;
  EXPECT_FALSE(readTokenizer(payload, out));
  EXPECT_EQ(out.padId, example().padId);  // read before the break
  EXPECT_FALSE(out.addBos);
}

TEST(Zem2TokenizerTest, SectionAndMagicAreMandatory) {
  OpenedReader opened(ContainerBuilder().noTokenizer().build());
  TokenizerData out;
  EXPECT_FALSE(opened.reader.readTokenizer(out));
  for (size_t i = 0; i < 4; ++i) {
    Bytes payload = zemtest::tokenizerBytes(example());
    payload[i] ^= 0x20;
    EXPECT_FALSE(readable(payload)) << i;
  }
}

// A payload whose tables before number `table` (tokens, scores, types, merges)
// are empty; that one claims `count` entries and holds two: 8 zero bytes, which
// are two empty strings, zeros or 0.0.
Bytes claiming(int table, uint32_t count) {
  Bytes payload;
  putText(payload, "TKNZ");
  putString(payload, "");
  for (int i = 0; i < table; ++i) putU32(payload, 0);
  putU32(payload, count);
  payload.resize(payload.size() + 8);
  return payload;
}

size_t entriesOf(const TokenizerData& data, int table) {
  const size_t sizes[] = {data.tokens.size(), data.scores.size(), data.tokenTypes.size(),
                          data.merges.size()};
  return sizes[table];
}

class Zem2TokenizerTableTest : public ::testing::TestWithParam<int> {};

// Both counts fail, since the section is short. The one within the limit got as
// far as reading entries; the other was refused before the first.
TEST_P(Zem2TokenizerTableTest, CountsUpToTheLimitAreAccepted) {
  TokenizerData within;
  EXPECT_FALSE(readTokenizer(claiming(GetParam(), kLimit), within));
  EXPECT_EQ(entriesOf(within, GetParam()), 2U);

  for (uint32_t count : {kLimit + 1, 0xFFFFFFFFU}) {
    TokenizerData beyond;
    EXPECT_FALSE(readTokenizer(claiming(GetParam(), count), beyond));
    EXPECT_EQ(entriesOf(beyond, GetParam()), 0U) << count;
  }
}

TEST_P(Zem2TokenizerTableTest, ClaimedCountsReserveNoMoreThanTheSectionCouldHold) {
  TokenizerData out;
  EXPECT_FALSE(readTokenizer(claiming(GetParam(), kLimit), out));
  EXPECT_LE(out.tokens.capacity() + out.scores.capacity() + out.tokenTypes.capacity() +
                out.merges.capacity(),
            8U);
}

std::string tableName(const ::testing::TestParamInfo<int>& table) {
  static constexpr const char* kNames[] = {"Tokens", "Scores", "Types", "Merges"};
  return kNames[table.param];
}

INSTANTIATE_TEST_SUITE_P(Tables, Zem2TokenizerTableTest, ::testing::Range(0, 4), tableName);

TEST(Zem2TokenizerTest, HugeStringLengthsAreRefused) {
  for (uint32_t length : {9U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
    Bytes chatTemplate;
    putText(chatTemplate, "TKNZ");
    putU32(chatTemplate, length);
    chatTemplate.resize(chatTemplate.size() + 8);
    EXPECT_FALSE(readable(chatTemplate)) << length;

    Bytes token;
    putText(token, "TKNZ");
    putString(token, "");
    putU32(token, 1);
    putU32(token, length);
    token.resize(token.size() + 8);
    EXPECT_FALSE(readable(token)) << length;
  }
}

TEST(Zem2TokenizerTest, ScoresKeepTheirBits) {
  Bytes payload;
  putText(payload, "TKNZ");
  putString(payload, "");
  putU32(payload, 0);
  putU32(payload, 1);
  putU32(payload, 0xFFA54321);  // a signalling NaN
  payload.resize(payload.size() + 8 + 16 + 1);
  TokenizerData out;
  ASSERT_TRUE(readTokenizer(payload, out));
  uint32_t bits = 0;
  std::memcpy(&bits, out.scores.data(), sizeof(bits));
  EXPECT_EQ(bits, 0xFFA54321U);
}

TEST(Zem2TokenizerTest, ReadingTwiceGivesTheSameTables) {
  OpenedReader opened(ContainerBuilder().tokenizer(example()).build());
  TokenizerData out;
  ASSERT_TRUE(opened.reader.readTokenizer(out));
  ASSERT_TRUE(opened.reader.readTokenizer(out));
  EXPECT_EQ(out.tokens, example().tokens);
  EXPECT_EQ(out.merges, example().merges);
}

TEST(Zem2TokenizerTest, LargeVocabularyIsReadWhole) {
  TokenizerData data;
  for (int i = 0; i < 250000; ++i) data.tokens.push_back("token" + std::to_string(i));
  data.scores.assign(data.tokens.size(), 1.0F);
  data.tokenTypes.assign(data.tokens.size(), 1);
  data.merges = data.tokens;
  TokenizerData out;
  ASSERT_TRUE(readTokenizer(zemtest::tokenizerBytes(data), out));
  EXPECT_EQ(out.tokens, data.tokens);
  EXPECT_EQ(out.merges, data.merges);
  EXPECT_EQ(out.tokenTypes, data.tokenTypes);
}

}  // namespace
