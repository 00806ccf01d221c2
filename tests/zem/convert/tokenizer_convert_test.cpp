// SPDX-License-Identifier: Apache-2.0
// Published vocabularies become the text they stand for.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "console/terminal.h"
#include "convert/convert_tokenizer.h"
#include "convert/gguf/gguf_tokenizer.h"
#include "convert/json_tokenizer.h"
#include "kiv/text/byte_level.h"
#include "support/published_model.h"
#include "support/temp_folder.h"

namespace zemtool {
namespace {

using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr char kSpace[] = "\u2581";

kiv::Tokenizer loaded(kiv::TokenizerData data) {
  kiv::Tokenizer tokenizer;
  EXPECT_TRUE(tokenizer.load(std::move(data)).ok());
  return tokenizer;
}

std::vector<int32_t> encoded(const kiv::Tokenizer& tokenizer, const std::string& text) {
  std::vector<int32_t> ids;
  EXPECT_TRUE(tokenizer.encode(text, ids, false).ok());
  return ids;
}

std::string throughTokens(const kiv::Tokenizer& tokenizer, const std::string& text) {
  std::string decoded;
  EXPECT_TRUE(tokenizer.decode(encoded(tokenizer, text), decoded).ok());
  return decoded;
}

// ---- Rules, on vocabularies made for them ----

SourceToken ordinary(const std::string& bytes) {
  return {zemtest::spelled(bytes), SourceTokenKind::Ordinary};
}

SourceMerge merge(const std::string& left, const std::string& right) {
  return {zemtest::spelled(left), zemtest::spelled(right)};
}

TEST(ConvertTokenizerTest, TokensBecomeText) {
  SourceTokenizer source;
  source.tokens = {ordinary("a"),
                   ordinary(" the"),
                   ordinary("\n\n"),
                   ordinary("\u4E2D"),
                   ordinary("\xE4\xB8"),
                   {"<think>", SourceTokenKind::Added},
                   {},
                   {"<unk>", SourceTokenKind::Unknown}};
  TokenizerCounts counts;
  const kiv::TokenizerData data = convertTokenizer(source, 10, counts);
  EXPECT_THAT(data.tokens, ElementsAre("a", std::string(kSpace) + "the", "\n\n", "\u4E2D",
                                       "<0xE4><0xB8>", "<think>", "", "<unk>", "", ""));
  EXPECT_THAT(data.tokenTypes, ElementsAre(1, 1, 1, 1, 1, 3, 1, 2, 1, 1));
  EXPECT_EQ(counts.tokens, 7U);
  EXPECT_EQ(counts.added, 1U);
  EXPECT_EQ(counts.asBytes, 1U);
  EXPECT_EQ(counts.filled, 3U);
  EXPECT_THAT(data.scores, IsEmpty());
}

TEST(ConvertTokenizerTest, AddedTokensKeepTheirText) {
  SourceTokenizer source;
  source.tokens = {{"\u0120 a\u2581", SourceTokenKind::Added}};
  TokenizerCounts counts;
  EXPECT_EQ(convertTokenizer(source, 1, counts).tokens[0], "\u0120 a\u2581");
}

TEST(ConvertTokenizerTest, MergesOfWholeTextStayInOrder) {
  SourceTokenizer source;
  source.merges = {merge(" ", "t"),         merge("\xC3", "\xA9"),  merge("h", "e"),
                   merge("\u00E9", "t"),    merge("a", "\xE4\xB8"), merge("\xE4\xB8", "a"),
                   merge("\u2581", "a"),    {"\u4E2D", "a"},        {"", "a"},
                   merge(" \u00E9", "\n x")};
  TokenizerCounts counts;
  const kiv::TokenizerData data = convertTokenizer(source, 1, counts);
  EXPECT_THAT(data.merges, ElementsAre("\u2581 t", "h e", "\u00E9 t", "\u2581\u00E9 \n\u2581x"));
  EXPECT_EQ(counts.merges, 10U);
  EXPECT_EQ(counts.droppedMerges, 6U);
}

// Otherwise the vocabulary would be taken for one that still spells bytes.
TEST(ConvertTokenizerTest, AFirstMergeOfTheLetterThatSpellsSpacesDoesNotMislead) {
  SourceTokenizer source;
  source.tokens = {ordinary("\u0120"), ordinary("a"), ordinary("\u0120a"), ordinary(" ")};
  source.merges = {merge("\u0120", "a")};
  TokenizerCounts counts;
  const kiv::Tokenizer tokenizer = loaded(convertTokenizer(source, 4, counts));
  EXPECT_THAT(encoded(tokenizer, "\u0120a a"), ElementsAre(2, 3, 1));
  EXPECT_EQ(throughTokens(tokenizer, "\u0120a a"), "\u0120a a");
}

TEST(ConvertTokenizerTest, TheEndOfTextIsTheTokenOfThatName) {
  SourceTokenizer source;
  source.eosId = 0;
  source.padId = 1;
  source.tokens = {ordinary("a"), ordinary("b"), {"<|endoftext|>", SourceTokenKind::Added}};
  TokenizerCounts counts;
  kiv::TokenizerData data = convertTokenizer(source, 3, counts);
  EXPECT_EQ(data.eosId, 2);
  EXPECT_EQ(data.padId, 1);
  EXPECT_EQ(data.bosId, -1);
  EXPECT_EQ(data.unkId, -1);
  EXPECT_FALSE(data.addBos);
  source = {};
  source.eosId = 0;
  source.bosId = 1;
  source.tokens = {ordinary("a"), ordinary("b")};
  data = convertTokenizer(source, 3, counts = {});
  EXPECT_EQ(data.eosId, 0);
  EXPECT_EQ(data.bosId, 1);
  EXPECT_TRUE(data.addBos);
}

// ---- tokenizer.json ----

class JsonTokenizerTest : public testing::Test {
 protected:
  SourceTokenizer read(uint64_t rows = 300) {
    folder_.write("tokenizer.json", std::string_view(tokenizer_.dump()));
    if (!config_.is_null()) {
      folder_.write("tokenizer_config.json", std::string_view(config_.dump()));
    }
    return readJsonTokenizer(folder_.path("."), rows);
  }

  std::string refusal(uint64_t rows = 300) {
    try {
      read(rows);
    } catch (const Failure& failure) {
      return failure.what();
    }
    return "";
  }
  std::string where(const std::string& file = "tokenizer.json") const {
    return folder_.path("./" + file) + ": ";
  }

  zemtest::TempFolder folder_;
  json tokenizer_ = zemtest::byteLevelTokenizer();
  json config_;
};

TEST_F(JsonTokenizerTest, TextSurvivesTheWholeWay) {
  SourceTokenizer source = read();
  TokenizerCounts counts;
  const kiv::Tokenizer tokenizer = loaded(convertTokenizer(source, 300, counts));
  const std::string text = "<|im_start|>user\nthe heat\tcaf\u00E9t\n\n<think>\r\n<|im_end|>";
  EXPECT_EQ(throughTokens(tokenizer, text), text);
  EXPECT_THAT(encoded(tokenizer, " the"), ElementsAre(258));
  EXPECT_THAT(encoded(tokenizer, "\n\n"), ElementsAre(10, 10));  // each by itself, always
  EXPECT_EQ(tokenizer.eos(), 270);
  EXPECT_EQ(tokenizer.tokenToId("<think>"), 273);
  EXPECT_EQ(counts.merges, 9U);
  EXPECT_EQ(counts.droppedMerges, 4U);
  EXPECT_EQ(source.asset, folder_.read("tokenizer.json"));
  EXPECT_EQ(source.assetName, "tokenizer.json");
}

TEST_F(JsonTokenizerTest, MergesMayBePairs) {
  const SourceTokenizer before = read();
  for (json& rule : tokenizer_["model"]["merges"]) {
    const auto text = rule.get<std::string>();
    const size_t space = text.find(' ');
    rule = {text.substr(0, space), text.substr(space + 1)};
  }
  const SourceTokenizer after = read();
  ASSERT_EQ(after.merges.size(), before.merges.size());
  for (size_t i = 0; i < after.merges.size(); ++i) {
    EXPECT_EQ(after.merges[i].left, before.merges[i].left);
    EXPECT_EQ(after.merges[i].right, before.merges[i].right);
  }
}

TEST_F(JsonTokenizerTest, ConfiguredIdsAreFoundByText) {
  config_ = {{"bos_token", {{"content", "<|im_start|>"}}},
             {"eos_token", "<|im_end|>"},
             {"pad_token", "<|endoftext|>"}};
  SourceTokenizer source = read();
  EXPECT_EQ(source.bosId, 271);
  EXPECT_EQ(source.eosId, 272);
  EXPECT_EQ(source.padId, 270);
  config_["add_bos_token"] = false;
  EXPECT_EQ(read().bosId, -1);
  config_["bos_token"] = nullptr;
  config_["add_bos_token"] = true;
  EXPECT_EQ(read().bosId, -1);
  config_["bos_token"] = "<nowhere>";
  EXPECT_EQ(read().bosId, -1);
}

TEST_F(JsonTokenizerTest, AddedTokensOfTheConfigurationCountToo) {
  config_ = {{"added_tokens_decoder", {{"280", {{"content", "<x>"}}}}}};
  const SourceTokenizer source = read();
  EXPECT_EQ(source.tokens.at(280).text, "<x>");
  EXPECT_EQ(source.tokens[280].kind, SourceTokenKind::Added);
  EXPECT_EQ(source.tokens[279].kind, SourceTokenKind::Absent);
}

TEST_F(JsonTokenizerTest, ChatTemplatesAreFoundWhereTheyAre) {
  EXPECT_EQ(read().chatTemplate, "");
  folder_.write("chat_template.json", std::string_view(R"({"chat_template": "C"})"));
  EXPECT_EQ(read().chatTemplate, "C");
  folder_.write("chat_template.jinja", std::string_view("B\n"));
  EXPECT_EQ(read().chatTemplate, "B\n");
  config_ = {{"chat_template", "A"}};
  EXPECT_EQ(read().chatTemplate, "A");
  config_["chat_template"] = {{{"name", "tool"}, {"template", "T"}},
                              {{"name", "default"}, {"template", "D"}}};
  EXPECT_EQ(read().chatTemplate, "D");
}

TEST_F(JsonTokenizerTest, WhatIsNoByteLevelVocabularyIsRefused) {
  tokenizer_["model"]["type"] = "Unigram";
  EXPECT_EQ(refusal(), where() + "model.type is not \"BPE\"");
  tokenizer_ = zemtest::byteLevelTokenizer();
  tokenizer_["decoder"]["type"] = "WordPiece";
  EXPECT_EQ(refusal(), "");  // the pre-tokenizer says it
  tokenizer_["pre_tokenizer"] = nullptr;
  EXPECT_THAT(refusal(), HasSubstr("needs a byte-level vocabulary"));
  tokenizer_["decoder"] = {{"type", "Sequence"}, {"decoders", {{{"type", "ByteLevel"}}}}};
  EXPECT_EQ(refusal(), "");
  tokenizer_["model"]["byte_fallback"] = true;
  EXPECT_THAT(refusal(), HasSubstr("byte_fallback is true"));
  tokenizer_["model"].erase("vocab");
  tokenizer_["model"]["byte_fallback"] = false;
  EXPECT_EQ(refusal(), where() + "has no model.vocab");
  tokenizer_.erase("model");
  EXPECT_EQ(refusal(), where() + "has no model");
}

TEST_F(JsonTokenizerTest, IdsThatDoNotFitAreRefused) {
  EXPECT_EQ(refusal(273), where() + "token \"<think>\" has the id 273, the embedding has 273 rows");
  tokenizer_["model"]["vocab"]["zz"] = uint64_t{1} << 60;
  EXPECT_THAT(refusal(), HasSubstr("token \"zz\" has the id 1152921504606846976"));
  tokenizer_["model"]["vocab"]["zz"] = -1;
  EXPECT_EQ(refusal(), where() + "the id of token \"zz\" is not a whole number");
  tokenizer_["model"]["vocab"]["zz"] = 65;
  EXPECT_EQ(refusal(), where() + "tokens \"A\" and \"zz\" have the same id");
  tokenizer_ = zemtest::byteLevelTokenizer();
  tokenizer_["added_tokens"][0]["id"] = 65;
  EXPECT_EQ(refusal(), where() + "the added token \"<|endoftext|>\" has the id of \"A\"");
  tokenizer_["added_tokens"][0].erase("id");
  EXPECT_EQ(refusal(), where() + "an added token lacks its id or content");
  tokenizer_ = zemtest::byteLevelTokenizer();
  config_ = {{"added_tokens_decoder", {{"1x", {{"content", "<x>"}}}}}};
  EXPECT_EQ(refusal(), where("tokenizer_config.json") +
                           "added_tokens_decoder has an entry without id or content");
}

TEST_F(JsonTokenizerTest, BrokenMergesAreRefused) {
  for (const json& rule : {json("one"), json({"a"}), json({"a", 1}), json(7)}) {
    tokenizer_["model"]["merges"] = json::array({rule});
    EXPECT_THAT(refusal(), HasSubstr("merge")) << rule;
  }
  tokenizer_["model"]["merges"] = "none";
  EXPECT_EQ(refusal(), where() + "model.merges is not a list");
}

TEST_F(JsonTokenizerTest, AMissingFileIsNamed) {
  try {
    readJsonTokenizer(folder_.path("."), 10);
    FAIL() << "no refusal";
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.what(), folder_.path(".") + ": has no tokenizer.json");
  }
}

// ---- A real vocabulary ----

class RealVocabularyTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    kiv::GgufFile gguf;
    ASSERT_TRUE(gguf.open(ZEM_TEST_DATA "/vocab-gpt2.gguf").ok());
    SourceTokenizer source = readGgufTokenizer(gguf, 50304);
    spellings_ = new std::vector<SourceToken>(source.tokens);
    tokenizer_ = new kiv::Tokenizer(loaded(convertTokenizer(source, 50304, counts_)));
  }
  static void TearDownTestSuite() {
    delete tokenizer_;
    delete spellings_;
  }

  struct Survivors {
    size_t characters = 0;
    size_t back = 0;
    std::string rare;  // those beyond ASCII that came back
  };

  // Characters are dropped or come back; nothing else may happen to them.
  static Survivors survivors(const std::string& text) {
    const std::string decoded = throughTokens(*tokenizer_, text);
    Survivors found;
    size_t at = 0;
    for (size_t i = 0; i < text.size();) {
      size_t length = 1;
      while (i + length < text.size() && (static_cast<uint8_t>(text[i + length]) & 0xC0) == 0x80) {
        ++length;
      }
      ++found.characters;
      if (decoded.compare(at, length, text, i, length) == 0) {
        ++found.back;
        if (length > 1) found.rare.append(text, i, length);
        at += length;
      }
      i += length;
    }
    EXPECT_EQ(at, decoded.size()) << "something came back that was not there";
    return found;
  }

  static kiv::Tokenizer* tokenizer_;
  static std::vector<SourceToken>* spellings_;
  static TokenizerCounts counts_;
};

kiv::Tokenizer* RealVocabularyTest::tokenizer_ = nullptr;
std::vector<SourceToken>* RealVocabularyTest::spellings_ = nullptr;
TokenizerCounts RealVocabularyTest::counts_;

TEST_F(RealVocabularyTest, CountsAreThoseOfTheVocabulary) {
  EXPECT_EQ(counts_.tokens, 50257U);
  EXPECT_EQ(counts_.added, 1U);
  EXPECT_EQ(counts_.filled, 47U);
  EXPECT_EQ(counts_.merges, 50000U);
  EXPECT_EQ(counts_.asBytes, 344U);
  EXPECT_EQ(counts_.droppedMerges, 585U);
  EXPECT_EQ(tokenizer_->eos(), 50256);
  EXPECT_EQ(tokenizer_->bos(), 50256);  // configured, and not switched off
}

TEST_F(RealVocabularyTest, EveryTokenDecodesToItsBytes) {
  for (size_t id = 0; id < spellings_->size(); ++id) {
    const SourceToken& token = (*spellings_)[id];
    std::string bytes = token.text;
    if (token.kind == SourceTokenKind::Ordinary) {
      ASSERT_TRUE(kiv::byteLevelToBytes(token.text, bytes));
    }
    std::string decoded;
    ASSERT_TRUE(tokenizer_->decode({static_cast<int32_t>(id)}, decoded).ok());
    ASSERT_EQ(decoded, bytes) << id;
  }
}

TEST_F(RealVocabularyTest, AnEnglishPageComesBackWhole) {
  const std::string page =
      "The lighthouse keeper's log for the winter of 1911 runs to forty-three pages, and most of\n"
      "them say nothing at all: \"Wind NW, sea heavy, lamp trimmed at dusk.\" Then, on the ninth "
      "of\n"
      "January, he writes that he couldn't sleep; that he'd heard a piano.\n"
      "\n"
      "There was no piano on the island, of course. There wasn't even a second chair. But the "
      "entry\n"
      "is underlined twice (in a different ink), and the pages after it are short -- sometimes "
      "only\n"
      "a word or two. \"Again,\" says one. \"Closer,\" says another. By February he has stopped\n"
      "recording the weather altogether, & the supply boat's captain, who'd known him for 12 "
      "years,\n"
      "noted in his own book: \"K. in good spirits; asks for sheet music.\"\n"
      "\n"
      "  1. Who tuned it?\n"
      "  2. What did it cost: $40? 15%? Nothing?\n"
      "\n"
      "\t-- from \"The Keeper\", ch. 3, p. 77\n";
  const Survivors found = survivors(page);
  EXPECT_EQ(found.back, found.characters);
  EXPECT_LT(encoded(*tokenizer_, page).size(), page.size() / 2);  // words, not letters
}

TEST_F(RealVocabularyTest, APageOfSourceCodeComesBackWhole) {
  const std::string page =
      "#include <vector>\n"
      "\n"
      "// Sums what is above `limit`; O(n).\r\n"
      "template <typename T>\n"
      "T sumAbove(const std::vector<T>& values, T limit) {\n"
      "    T sum{};\n"
      "    for (size_t i = 0; i < values.size(); ++i) {\n"
      "\t\tif (values[i] > limit && !(values[i] != values[i])) {\n"
      "            sum += values[i] * 0x1F ^ ~0u;   // two  spaces,  three   spaces\n"
      "\t\t}\n"
      "    }\n"
      "    return sum % 1'000'003;\n"
      "}\n"
      "\n"
      "\n"
      "def f(x): return {'a': [1, 2.5e-3, None], \"b\\n\": lambda y: x @ y | 7}\n"
      "SELECT * FROM t WHERE name LIKE '%_x' AND id <> 4; -- <|not special|>\n"
      "$ grep -rn \"NaN\\b\" src/ | awk '{print $1}' > out.txt 2>&1\n";
  const Survivors found = survivors(page);
  EXPECT_EQ(found.back, found.characters);
}

// This vocabulary has few Chinese characters as tokens of their own; the others
// are pieces of bytes that encoding cannot put together.
TEST_F(RealVocabularyTest, OfAChinesePageTheCharactersWithATokenComeBack) {
  const std::string page =
      "北京的冬天很冷，但是人们喜欢在早上去公园。老人们打太极拳，孩子们在雪地里玩。\n"
      "我今天学了三个新的中文字，明天还要学更多。你喜欢喝茶还是喝咖啡？\n"
      "\n"
      "图书馆里有很多关于历史和科学的书。她每个星期都去那里借书，然后坐在窗边读到晚上。\n"
      "“时间过得真快！”他说。一九八五年，这座城市还没有地铁；现在已经有二十多条线了。\n";
  const Survivors found = survivors(page);
  EXPECT_EQ(found.characters, 155U);
  EXPECT_EQ(found.back, 29U);
  EXPECT_EQ(found.rare, "的天是人上。人子。天三的中天。是的。上。。一五。");
}

TEST_F(RealVocabularyTest, OfEmojiThoseWithATokenComeBack) {
  // Counting the width of these characters is not for layout tools.
  // clang-format off
  const std::string page =
      "Good morning! 😀😃😄 ☀️ Coffee ☕ first, then work 💻📈.\n"
      "❤️ 👍🏽 👩‍👩‍👧‍👦 🇩🇪 🏳️‍🌈 ✅ ❌ ⚠️ → ★ ☆ ♥ ♪ ™ ©\n";
  // clang-format on
  const Survivors found = survivors(page);
  EXPECT_EQ(found.characters, 94U);
  EXPECT_EQ(found.back, 68U);
  EXPECT_EQ(found.rare, "\uFE0F\uFE0F\uFE0F\uFE0F→★☆♥™©");
}

// ---- The metadata of GGUF files ----

class GgufTokenizerTest : public testing::Test {
 protected:
  std::string refusal(const zemtest::GgufBuilder& builder, uint64_t rows = 300) {
    kiv::GgufFile gguf;
    EXPECT_EQ(gguf.open(folder_.write("m.gguf", builder.build())).message(), "");
    try {
      result_ = readGgufTokenizer(gguf, rows);
    } catch (const Failure& failure) {
      return failure.what();
    }
    return "";
  }
  std::string where() const { return folder_.path("m.gguf") + ": "; }

  zemtest::TempFolder folder_;
  SourceTokenizer result_;
};

TEST_F(GgufTokenizerTest, TheSameVocabularyGivesTheSameTables) {
  ASSERT_EQ(refusal(zemtest::supportedGguf(8, 12)), "");
  folder_.write("tokenizer.json", std::string_view(zemtest::byteLevelTokenizer().dump()));
  folder_.write("tokenizer_config.json", std::string_view(R"({"chat_template": "chatml"})"));
  SourceTokenizer other = readJsonTokenizer(folder_.path("."), 300);
  TokenizerCounts counts;
  const kiv::TokenizerData a = convertTokenizer(result_, 300, counts);
  const kiv::TokenizerData b = convertTokenizer(other, 300, counts);
  EXPECT_EQ(a.tokens, b.tokens);
  EXPECT_EQ(a.tokenTypes, b.tokenTypes);
  EXPECT_EQ(a.merges, b.merges);
  EXPECT_EQ(a.eosId, b.eosId);
  EXPECT_EQ(a.bosId, -1);
  EXPECT_EQ(a.chatTemplate, "chatml");
  EXPECT_EQ(a.padId, 270);
}

TEST_F(GgufTokenizerTest, TheAssetIsAFileWithTheSameEntries) {
  ASSERT_EQ(refusal(zemtest::supportedGguf(8, 12)), "");
  kiv::GgufFile source;
  ASSERT_TRUE(source.open(folder_.path("m.gguf")).ok());
  kiv::GgufFile asset;
  ASSERT_EQ(asset.open(folder_.write("asset.gguf", std::string_view(result_.asset))).message(), "");
  EXPECT_TRUE(asset.tensors().empty());
  EXPECT_EQ(asset.values().size(), 9U);
  for (const kiv::GgufValue& value : asset.values()) {
    ASSERT_NE(source.find(value.key), nullptr);
    EXPECT_EQ(value.entry, source.find(value.key)->entry);
  }
}

TEST_F(GgufTokenizerTest, TheBeginningIsConfiguredUnlessSwitchedOff) {
  zemtest::GgufBuilder builder = zemtest::supportedGguf(8, 12);
  builder.addU32("tokenizer.ggml.bos_token_id", 271);
  ASSERT_EQ(refusal(builder), "");
  EXPECT_EQ(result_.bosId, -1);
  builder.erase("tokenizer.ggml.add_bos_token");
  ASSERT_EQ(refusal(builder), "");
  EXPECT_EQ(result_.bosId, 271);
}

TEST_F(GgufTokenizerTest, BrokenTablesAreRefusedByKey) {
  const auto without = [](const char* key) {
    zemtest::GgufBuilder builder = zemtest::supportedGguf(8, 12);
    builder.erase(key);
    return builder;
  };
  EXPECT_EQ(refusal(without("tokenizer.ggml.model")),
            where() + "has no metadata 'tokenizer.ggml.model'");
  EXPECT_EQ(refusal(without("tokenizer.ggml.model").addText("tokenizer.ggml.model", "llama")),
            where() + "tokenizer.ggml.model is \"llama\", needs \"gpt2\": a byte-level vocabulary");
  EXPECT_EQ(refusal(without("tokenizer.ggml.tokens")),
            where() + "has no metadata 'tokenizer.ggml.tokens'");
  EXPECT_EQ(refusal(zemtest::supportedGguf(8, 12), 273),
            where() + "tokenizer.ggml.tokens has 274 tokens, the embedding has 273 rows");
  EXPECT_EQ(refusal(without("tokenizer.ggml.token_type").addI32s("tokenizer.ggml.token_type", {1})),
            where() + "tokenizer.ggml.token_type has 1 entries for 274 tokens");
  EXPECT_EQ(refusal(without("tokenizer.ggml.tokens")
                        .addI32s("tokenizer.ggml.tokens", std::vector<int32_t>(274))),
            where() + "tokenizer.ggml.tokens is not a list of texts");
  EXPECT_EQ(refusal(without("tokenizer.ggml.merges").addTexts("tokenizer.ggml.merges", {"ab"})),
            where() + "tokenizer.ggml.merges: \"ab\" has no two sides");
  EXPECT_EQ(refusal(without("tokenizer.ggml.merges").addTexts("tokenizer.ggml.merges", {""})),
            where() + "tokenizer.ggml.merges: \"\" has no two sides");
  EXPECT_EQ(refusal(without("tokenizer.ggml.merges")), "");
}

}  // namespace
}  // namespace zemtool
