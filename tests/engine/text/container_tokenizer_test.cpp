// SPDX-License-Identifier: Apache-2.0
#include "engine/text/container_tokenizer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "engine/text/byte_vocabulary.h"
#include "engine/text/encoded_text.h"
#include "engine/text/gguf_bytes.h"
#include "support/container_builder.h"
#include "support/opened_reader.h"
#include "support/status_matchers.h"

namespace zem::text {
namespace {

using test::ByteVocabulary;
using test::encoded;
using test::lengthAnd;
using test::number;
using zemtest::Bytes;
using zemtest::ContainerBuilder;
using zemtest::IsInvalidFormat;
using zemtest::IsOk;
using zemtest::OpenedReader;

constexpr auto kAsset = kiv::zem2::SectionType::Asset;

Bytes contentOf(const std::string& text) { return {text.begin(), text.end()}; }

ContainerBuilder containerOf(const std::string& name, const std::string& asset) {
  ContainerBuilder builder;
  builder.addMetaStr("tokenizer.source.section", "Asset").addMetaStr("tokenizer.source.name", name);
  builder.addMetaU64("tokenizer.source.bytes", asset.size());
  builder.addSection(kAsset, contentOf(asset));
  return builder;
}

// The tokenizer's entries of a GGUF file: bytes, one merge, one control token.
std::string ggufAsset() {
  std::string tokens;
  std::string types;
  for (int byte = 0; byte < 256; ++byte) {
    tokens += lengthAnd(test::spelled(std::string(1, static_cast<char>(byte))));
    types += number(1, 4);
  }
  tokens += lengthAnd("ab") + lengthAnd("<|end|>");
  types += number(1, 4) + number(3, 4);
  const auto list = [](const char* key, uint64_t type, uint64_t count, const std::string& payload) {
    return lengthAnd(key) + number(9, 4) + number(type, 4) + number(count, 8) + payload;
  };
  return "GGUF" + number(3, 4) + number(0, 8) + number(6, 8) + lengthAnd("tokenizer.ggml.model") +
         number(8, 4) + lengthAnd("gpt2") + lengthAnd("tokenizer.ggml.pre") + number(8, 4) +
         lengthAnd("qwen35") + lengthAnd("tokenizer.ggml.add_bos_token") + number(7, 4) +
         number(0, 1) + list("tokenizer.ggml.tokens", 8, 258, tokens) +
         list("tokenizer.ggml.token_type", 5, 258, types) +
         list("tokenizer.ggml.merges", 8, 1, lengthAnd("a b"));
}

TEST(ContainerTokenizerTest, TokenizerJsonIsLoaded) {
  ByteVocabulary vocabulary;
  vocabulary.merge("a", "b");
  const OpenedReader opened(containerOf("tokenizer.json", vocabulary.text()).build());
  std::optional<Tokenizer> tokenizer;
  ASSERT_THAT(loadTokenizer(opened.reader, tokenizer), IsOk());
  ASSERT_TRUE(tokenizer.has_value());
  EXPECT_THAT(encoded(*tokenizer, "abc"), ::testing::ElementsAre(256, 'c'));
}

TEST(ContainerTokenizerTest, ControlTokensThatTheSourceDoesNotListAreAdded) {
  ByteVocabulary vocabulary;
  const int32_t think = vocabulary.add("<think>", false);
  kiv::TokenizerData data;
  data.tokens.assign(300, "");
  data.tokenTypes.assign(300, 1);
  data.tokens[static_cast<size_t>(think)] = "<think>";
  data.tokens[280] = "<|audio|>";
  data.tokenTypes[static_cast<size_t>(think)] = data.tokenTypes[280] = kiv::kTokenTypeControl;
  const OpenedReader opened(
      containerOf("tokenizer.json", vocabulary.text()).tokenizer(data).build());
  std::optional<Tokenizer> tokenizer;
  ASSERT_THAT(loadTokenizer(opened.reader, tokenizer), IsOk());
  EXPECT_THAT(encoded(*tokenizer, "<|audio|><think>"), ::testing::ElementsAre(280, think));
  EXPECT_TRUE(tokenizer->isSpecial(280));
  EXPECT_FALSE(tokenizer->isSpecial(think));
}

TEST(ContainerTokenizerTest, GgufEntriesAreLoaded) {
  const OpenedReader opened(containerOf("tokenizer.gguf", ggufAsset()).build());
  std::optional<Tokenizer> tokenizer;
  ASSERT_THAT(loadTokenizer(opened.reader, tokenizer), IsOk());
  ASSERT_TRUE(tokenizer.has_value());
  EXPECT_THAT(encoded(*tokenizer, "ab<|end|>c"), ::testing::ElementsAre(256, 257, 'c'));
}

TEST(ContainerTokenizerTest, EveryPrefixOfGgufEntriesIsRefused) {
  const std::string whole = ggufAsset();
  for (size_t size = 0; size < whole.size(); size += size < 200 ? 1 : 97) {
    const OpenedReader opened(containerOf("tokenizer.gguf", whole.substr(0, size)).build());
    std::optional<Tokenizer> tokenizer;
    ASSERT_FALSE(loadTokenizer(opened.reader, tokenizer).ok()) << size;
    ASSERT_FALSE(tokenizer.has_value());
  }
}

TEST(ContainerTokenizerTest, ContainersWithoutASourceHaveNone) {
  std::optional<Tokenizer> tokenizer = Tokenizer();
  const OpenedReader without(ContainerBuilder().build());
  EXPECT_THAT(loadTokenizer(without.reader, tokenizer), IsOk());
  EXPECT_FALSE(tokenizer.has_value());

  ContainerBuilder otherAsset;  // an asset that is not called a tokenizer
  otherAsset.addSection(kAsset, contentOf("text"));
  const OpenedReader other(otherAsset.build());
  EXPECT_THAT(loadTokenizer(other.reader, tokenizer), IsOk());
  EXPECT_FALSE(tokenizer.has_value());

  ContainerBuilder noSection;
  noSection.addMetaStr("tokenizer.source.name", "tokenizer.json");
  const OpenedReader missing(noSection.build());
  EXPECT_THAT(loadTokenizer(missing.reader, tokenizer), IsOk());
  EXPECT_FALSE(tokenizer.has_value());
}

TEST(ContainerTokenizerTest, BrokenSourcesAreRefused) {
  std::optional<Tokenizer> tokenizer;
  const OpenedReader unknown(containerOf("spiece.model", "x").build());
  EXPECT_THAT(loadTokenizer(unknown.reader, tokenizer),
              IsInvalidFormat("tokenizer: the source \"spiece.model\" is not known, needs "
                              "\"tokenizer.json\" or \"tokenizer.gguf\""));
  const OpenedReader empty(containerOf("tokenizer.json", "{}").build());
  EXPECT_THAT(loadTokenizer(empty.reader, tokenizer),
              IsInvalidFormat("tokenizer.json: model: missing"));
  const OpenedReader noGguf(containerOf("tokenizer.gguf", "GGUX").build());
  EXPECT_THAT(loadTokenizer(noGguf.reader, tokenizer),
              IsInvalidFormat("tokenizer: not a GGUF file"));

  ContainerBuilder longer;
  longer.addMetaStr("tokenizer.source.name", "tokenizer.json");
  longer.addMetaU64("tokenizer.source.bytes", 5);
  longer.addSection(kAsset, contentOf("{}"));
  const OpenedReader cut(longer.build());
  EXPECT_THAT(loadTokenizer(cut.reader, tokenizer),
              IsInvalidFormat("tokenizer: the source has 5 bytes, but its section 2"));
}

}  // namespace
}  // namespace zem::text
