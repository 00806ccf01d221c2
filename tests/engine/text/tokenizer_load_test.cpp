// SPDX-License-Identifier: Apache-2.0
// What is read as a vocabulary, and how the rest is refused.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "engine/text/byte_vocabulary.h"
#include "engine/text/encoded_text.h"
#include "engine/text/gguf_bytes.h"
#include "engine/text/tokenizer.h"
#include "kiv/container/gguf.h"
#include "support/status_matchers.h"

namespace zem::text {
namespace {

using nlohmann::json;
using test::ByteVocabulary;
using test::encoded;
using test::lengthAnd;
using test::number;
using test::spelled;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using zemtest::IsInvalidFormat;
using zemtest::IsOk;
using Ids = std::vector<int32_t>;

kiv::Status load(const std::string& text, Tokenizer& tokenizer) { return tokenizer.loadJson(text); }

kiv::Status statusOf(const std::string& text) {
  Tokenizer tokenizer;
  kiv::Status status = load(text, tokenizer);
  EXPECT_EQ(tokenizer.valid(), status.ok());
  return status;
}

ByteVocabulary small() {
  ByteVocabulary vocabulary({{"a", "b"}, {"ab", "c"}});
  vocabulary.add("<|end|>", true);
  return vocabulary;
}

// The text of the small vocabulary after a change.
std::string changed(const std::function<void(json&)>& change) {
  ByteVocabulary vocabulary = small();
  change(vocabulary.root());
  return vocabulary.text();
}

TEST(TokenizerLoadTest, EverySpellingOfTheSameIsRead) {
  const auto expected = ::testing::ElementsAre(257, 258);
  const std::vector<std::function<void(json&)>> spellings = {
      [](json&) {},
      [](json& root) {
        root["model"]["merges"] = {"a b", "ab c"};
      },
      [](json& root) { root["normalizer"] = nullptr; },
      [](json& root) {
        root["normalizer"] = {{"type", "Sequence"}, {"normalizers", {{{"type", "NFC"}}}}};
      },
      [](json& root) {
        root["normalizer"] = {{"type", "Sequence"}, {"normalizers", json::array()}};
      },
      [](json& root) {
        root["pre_tokenizer"] = {{"type", "ByteLevel"}, {"add_prefix_space", false}};
      },
      [](json& root) {
        root["decoder"] = {{"type", "Sequence"}, {"decoders", {{{"type", "ByteLevel"}}}}};
      },
      [](json& root) { root["model"].erase("type"); },
      [](json& root) {
        root["model"]["dropout"] = nullptr;
        root["model"]["unk_token"] = "unknown";
        root["model"]["continuing_subword_prefix"] = "";
        root["model"]["end_of_word_suffix"] = nullptr;
        root["model"]["byte_fallback"] = false;
        root["model"]["ignore_merges"] = false;
        root["model"]["something_else"] = {1, 2};
      },
      [](json& root) { root.erase("post_processor"); },
      [](json& root) { root["added_tokens"][0]["lstrip"] = false; },
      [](json& root) { root["model"]["vocab"]["<|end|>"] = 258; },
  };
  for (const auto& spelling : spellings) {
    Tokenizer tokenizer;
    const std::string text = changed(spelling);
    ASSERT_THAT(load(text, tokenizer), IsOk()) << text;
    EXPECT_THAT(encoded(tokenizer, "abc<|end|>"), expected) << text;
    Tokenizer escaped;
    ASSERT_THAT(load(json::parse(text).dump(1, '\t', true), escaped), IsOk());
    EXPECT_THAT(encoded(escaped, "abc<|end|>"), expected);
  }
}

struct Refusal {
  std::string message;  // without "tokenizer.json: "
  std::function<void(json&)> change;
};

TEST(TokenizerLoadTest, WhatWouldEncodeDifferentlyIsRefusedByName) {
  const auto model = [](const char* key, const json& value) {
    return [key, value](json& root) { root["model"][key] = value; };
  };
  const auto split = [](const char* key, const json& value) {
    return [key, value](json& root) { root["pre_tokenizer"]["pretokenizers"][0][key] = value; };
  };
  const std::vector<Refusal> refusals = {
      {"model: missing", [](json& root) { root.erase("model"); }},
      {"model: not an object", [](json& root) { root["model"] = 3; }},
      {R"(model.type: "Unigram", needs "BPE")", model("type", "Unigram")},
      {R"(model.dropout: "0.1", needs none)", model("dropout", 0.1)},
      {R"(model.continuing_subword_prefix: "##", needs none)",
       model("continuing_subword_prefix", "##")},
      {R"(model.end_of_word_suffix: "</w>", needs none)", model("end_of_word_suffix", "</w>")},
      {R"(model.byte_fallback: "true", needs false: a byte-level vocabulary)",
       model("byte_fallback", true)},
      {R"(model.ignore_merges: "true", needs false)", model("ignore_merges", true)},
      {"model.vocab: not an object", model("vocab", json::array())},
      {"model.vocab: missing or empty", model("vocab", json::object())},
      {"model.vocab: missing or empty", [](json& root) { root["model"].erase("vocab"); }},
      {R"(model.vocab: "a" has the id 1048576, needs one below 1048576)",
       model("vocab", {{"a", 1048576}})},
      {R"(model.vocab: "a" and "b" have the same id, 5)", model("vocab", {{"a", 5}, {"b", 5}})},
      {"the vocabulary has no token for the byte 33, needs one for every byte of UTF-8",
       [](json& root) { root["model"]["vocab"].erase("!"); }},
      {"model.merges: not a list", model("merges", "a b")},
      {R"(model.merges: entry 1 is "abc", needs two sides and one space)",
       model("merges", {"a b", "abc"})},
      {R"(model.merges: entry 0 is "a b c", needs two sides and one space)",
       model("merges", {"a b c"})},
      {"model.merges: entry 0 has 1 sides, needs 2", model("merges", {{"a"}})},
      {"model.merges: entry 0 has 3 sides, needs 2", model("merges", {{"a", "b", "c"}})},
      {R"(merge 1 joins "x" and "y", but the vocabulary has no token "xy")",
       model("merges", {"a b", "x y"})},
      {R"(merge 0 joins "a" and "qq", but the vocabulary has no token "qq")",
       model("merges", {"a qq"})},
      {R"(normalizer: "NFKC" is not supported, needs "NFC" or none)",
       [](json& root) {
         root["normalizer"] = {{"type", "NFKC"}};
       }},
      {R"(normalizer: "Lowercase" is not supported, needs "NFC" or none)",
       [](json& root) {
         root["normalizer"] = {{"type", "Sequence"},
                               {"normalizers", {{{"type", "NFC"}}, {{"type", "Lowercase"}}}}};
       }},
      {R"(pre_tokenizer: no "ByteLevel", needs a byte-level one)",
       [](json& root) { root["pre_tokenizer"] = nullptr; }},
      {R"(pre_tokenizer: "Whitespace" is not supported here, needs "Split" and "ByteLevel")",
       [](json& root) {
         root["pre_tokenizer"] = {{"type", "Whitespace"}};
       }},
      {R"(pre_tokenizer: the pattern "\p{N}{1,3}" is not supported, needs the model family's or GPT-2's)",
       split("pattern", {{"Regex", "\\p{N}{1,3}"}})},
      {R"(pre_tokenizer: the pattern of "Split" is no "Regex")",
       split("pattern", {{"String", " "}})},
      {R"(pre_tokenizer: "Split" needs behavior "Isolated", not inverted)",
       split("behavior", "Removed")},
      {R"(pre_tokenizer: "Split" needs behavior "Isolated", not inverted)", split("invert", true)},
      {"pre_tokenizer: add_prefix_space is true, needs false",
       [](json& root) { root["pre_tokenizer"]["pretokenizers"][1]["add_prefix_space"] = true; }},
      {"pre_tokenizer: two patterns, needs one",
       [](json& root) { root["pre_tokenizer"]["pretokenizers"][1]["use_regex"] = true; }},
      {"pre_tokenizer: no pattern, needs a known one",
       [](json& root) { root["pre_tokenizer"]["pretokenizers"].erase(0); }},
      {R"(decoder: none, needs "ByteLevel")", [](json& root) { root["decoder"] = nullptr; }},
      {R"(decoder: "Metaspace", needs "ByteLevel")",
       [](json& root) {
         root["decoder"] = {{"type", "Metaspace"}};
       }},
      {"added_tokens: not a list",
       [](json& root) {
         root["added_tokens"] = {{"id", 3}};
       }},
      {"added_tokens: entry 0 lacks its id or content",
       [](json& root) { root["added_tokens"][0].erase("id"); }},
      {"added_tokens: entry 0 lacks its id or content",
       [](json& root) { root["added_tokens"][0]["content"] = 3; }},
      {"added_tokens: entry 0 has the id 99999999, needs one below 1048576",
       [](json& root) { root["added_tokens"][0]["id"] = 99999999; }},
      {"added_tokens: entry 0: lstrip is true, needs false",
       [](json& root) { root["added_tokens"][0]["lstrip"] = true; }},
      {"added_tokens: entry 0: single_word is true, needs false",
       [](json& root) { root["added_tokens"][0]["single_word"] = true; }},
      {R"(the added token "<|end|>" has the id of "a", 97)",
       [](json& root) { root["added_tokens"][0]["id"] = 97; }},
      {R"(the added token "a" has the id 258, in the vocabulary it has 97)",
       [](json& root) { root["added_tokens"][0]["content"] = "a"; }},
      {R"(the added tokens "<|end|>" and "<|other|>" have the same id, 258)",
       [](json& root) {
         root["added_tokens"].push_back({{"id", 258}, {"content", "<|other|>"}});
       }},
  };
  for (const auto& [message, change] : refusals) {
    EXPECT_THAT(statusOf(changed(change)), IsInvalidFormat("tokenizer.json: " + message));
  }
}

TEST(TokenizerLoadTest, WhatIsNoJsonIsRefused) {
  EXPECT_THAT(statusOf(""), IsInvalidFormat("tokenizer.json: byte 0: expected a JSON object"));
  EXPECT_THAT(statusOf("[]"), IsInvalidFormat("tokenizer.json: byte 0: expected a JSON object"));
  EXPECT_THAT(statusOf("{}"), IsInvalidFormat("tokenizer.json: model: missing"));
  EXPECT_THAT(statusOf(small().text() + "x"),
              ::testing::Property(&kiv::Status::message, HasSubstr("more behind the end")));
  EXPECT_THAT(statusOf("{\"a\":\"\xFF\"}"), IsInvalidFormat("tokenizer.json: byte 6: not UTF-8"));
  EXPECT_THAT(statusOf(R"({"version":1,"version":2})"),
              IsInvalidFormat(R"(tokenizer.json: "version" occurs twice)"));
  EXPECT_THAT(statusOf(R"({"model":{"type":"BPE","type":"BPE"}})"),
              IsInvalidFormat(R"(tokenizer.json: model: "type" occurs twice)"));
  EXPECT_THAT(statusOf(R"({"model":{"vocab":{"a":-1}}})"),
              IsInvalidFormat("tokenizer.json: byte 23: expected a whole number"));
}

TEST(TokenizerLoadTest, TokensThatOccurTwiceAreRefused) {
  std::string text = small().text();
  text.replace(text.find("\"a\":97"), 6, R"("a":97,"\u0061":300)");
  EXPECT_THAT(statusOf(text), IsInvalidFormat(R"(tokenizer.json: the token "a" occurs twice)"));
}

TEST(TokenizerLoadTest, EveryPrefixIsRefused) {
  const std::string text = small().text();
  for (size_t size = 0; size < text.size(); ++size) {
    // An exact copy, so that reading past its end shows under a sanitizer.
    const std::vector<char> exact(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(size));
    Tokenizer tokenizer;
    ASSERT_FALSE(tokenizer.loadJson({exact.data(), exact.size()}).ok()) << size;
  }
}

TEST(TokenizerLoadTest, FailuresLeaveWhatWasLoaded) {
  Tokenizer tokenizer;
  ASSERT_THAT(load(small().text(), tokenizer), IsOk());
  EXPECT_FALSE(load("{}", tokenizer).ok());
  EXPECT_THAT(encoded(tokenizer, "abc"), ::testing::ElementsAre(257));
  EXPECT_FALSE(tokenizer.loadGguf({}).ok());
  EXPECT_THAT(encoded(tokenizer, "abc"), ::testing::ElementsAre(257));
  ASSERT_THAT(load(ByteVocabulary().text(), tokenizer), IsOk());
  EXPECT_THAT(encoded(tokenizer, "abc"), ::testing::ElementsAre('a', 'b', 'c'));
}

// Two bytes that no UTF-8 has, C0 and FF.
TEST(TokenizerLoadTest, BytesThatNoTextHasNeedNoToken) {
  EXPECT_THAT(statusOf(changed([](json& root) {
                root["model"]["vocab"].erase(spelled("\xC0"));
                root["model"]["vocab"].erase(spelled("\xFF"));
              })),
              IsOk());
  EXPECT_FALSE(
      statusOf(changed([](json& root) { root["model"]["vocab"].erase(spelled("\xF4")); })).ok());
}

TEST(TokenizerLoadTest, TokensOfNoBytesAreTheirOwnText) {
  Tokenizer tokenizer;
  ASSERT_THAT(
      load(changed([](json& root) { root["model"]["vocab"]["\xE4\xB8\xAD "] = 300; }), tokenizer),
      IsOk());
  EXPECT_EQ(tokenizer.bytesOf(300), "\xE4\xB8\xAD ");
  EXPECT_FALSE(tokenizer.hasToken(299));
  EXPECT_EQ(tokenizer.size(), 301U);
}

TEST(TokenizerLoadTest, FurtherTokensAreAdded) {
  Tokenizer tokenizer;
  const std::vector<AddedToken> further = {{258, "<|end|>", false}, {400, "<tts>", true}};
  ASSERT_THAT(tokenizer.loadJson(small().text(), further), IsOk());
  EXPECT_THAT(encoded(tokenizer, "<tts><|end|>"), ::testing::ElementsAre(400, 258));
  EXPECT_TRUE(tokenizer.isSpecial(400));
  EXPECT_TRUE(tokenizer.isSpecial(258));  // as the file says

  const std::vector<AddedToken> wrong = {{97, "<tts>", true}};
  EXPECT_THAT(tokenizer.loadJson(small().text(), wrong),
              IsInvalidFormat(R"(tokenizer.json: the added token "<tts>" has the id of "a", 97)"));
  const std::vector<AddedToken> negative = {{-1, "<tts>", true}};
  EXPECT_THAT(tokenizer.loadJson(small().text(), negative),
              IsInvalidFormat(R"(tokenizer.json: the further token "<tts>" has the id -1)"));
}

// ---- GGUF ----

// Metadata of a GGUF file, with the payloads that its values point to.
class GgufMetadata {
 public:
  GgufMetadata() {
    text("tokenizer.ggml.model", "gpt2");
    text("tokenizer.ggml.pre", "qwen35");
    std::vector<std::string> tokens;
    std::vector<uint64_t> types(256, 1);
    for (int byte = 0; byte < 256; ++byte)
      tokens.push_back(spelled(std::string(1, static_cast<char>(byte))));
    for (const char* more : {"ab", "<|end|>", "<think>", "[PAD259]"}) tokens.emplace_back(more);
    for (const uint64_t type : {1, 3, 4, 5}) types.push_back(type);
    texts("tokenizer.ggml.tokens", tokens);
    numbers("tokenizer.ggml.token_type", types);
    texts("tokenizer.ggml.merges", {"a b"});
  }

  void text(const std::string& key, const std::string& value) {
    set(key, kiv::GgufValueType::Str, false, 1, lengthAnd(value));
  }
  void texts(const std::string& key, const std::vector<std::string>& values) {
    std::string payload;
    for (const std::string& value : values) payload += lengthAnd(value);
    set(key, kiv::GgufValueType::Str, true, values.size(), payload);
  }
  void numbers(const std::string& key, const std::vector<uint64_t>& values) {
    std::string payload;
    for (const uint64_t value : values) payload += number(value, 4);
    set(key, kiv::GgufValueType::I32, true, values.size(), payload);
  }
  void remove(const std::string& key) { entries_.erase(key); }

  std::vector<kiv::GgufValue> values() const {
    std::vector<kiv::GgufValue> values;
    for (const auto& [key, entry] : entries_) {
      kiv::GgufValue value = entry.first;
      value.key = key;
      value.payload = entry.second;
      values.push_back(value);
    }
    return values;
  }

 private:
  void set(const std::string& key, kiv::GgufValueType type, bool array, size_t count,
           std::string payload) {
    kiv::GgufValue value;
    value.type = type;
    value.array = array;
    value.count = count;
    entries_[key] = {value, std::move(payload)};
  }

  std::map<std::string, std::pair<kiv::GgufValue, std::string>> entries_;
};

TEST(TokenizerLoadTest, GgufMetadataIsRead) {
  Tokenizer tokenizer;
  ASSERT_THAT(tokenizer.loadGguf(GgufMetadata().values()), IsOk());
  EXPECT_THAT(encoded(tokenizer, "ab<|end|><think>e\xCC\x81"),
              ::testing::ElementsAre(256, 257, 258, 0xC3, 0xA9));
  EXPECT_TRUE(tokenizer.isSpecial(257));
  EXPECT_TRUE(tokenizer.isAdded(258) && !tokenizer.isSpecial(258));
  EXPECT_FALSE(tokenizer.hasToken(259));
  EXPECT_EQ(tokenizer.size(), 260U);

  GgufMetadata plain;
  plain.text("tokenizer.ggml.pre", "gpt-2");
  ASSERT_THAT(tokenizer.loadGguf(plain.values()), IsOk());
  EXPECT_THAT(encoded(tokenizer, "e\xCC\x81"), ::testing::ElementsAre('e', 0xCC, 0x81));
}

TEST(TokenizerLoadTest, GgufMetadataOfOtherKindsIsRefusedByName) {
  struct Case {
    std::string message;
    std::function<void(GgufMetadata&)> change;
  };
  const std::vector<Case> cases = {
      {"tokenizer.ggml.model: missing", [](auto& m) { m.remove("tokenizer.ggml.model"); }},
      {R"(tokenizer.ggml.model: "llama", needs "gpt2": a byte-level vocabulary)",
       [](auto& m) { m.text("tokenizer.ggml.model", "llama"); }},
      {"tokenizer.ggml.pre: missing", [](auto& m) { m.remove("tokenizer.ggml.pre"); }},
      {"tokenizer.ggml.pre: not a text", [](auto& m) { m.numbers("tokenizer.ggml.pre", {1}); }},
      {R"(tokenizer.ggml.pre: the pattern "tekken" is not supported, needs "qwen35", "qwen2" or "gpt-2")",
       [](auto& m) { m.text("tokenizer.ggml.pre", "tekken"); }},
      {"tokenizer.ggml.tokens: not a list of texts",
       [](auto& m) { m.numbers("tokenizer.ggml.tokens", {1}); }},
      {"tokenizer.ggml.tokens: empty", [](auto& m) { m.texts("tokenizer.ggml.tokens", {}); }},
      {"tokenizer.ggml.tokens: entry 1 is not UTF-8",
       [](auto& m) {
         m.texts("tokenizer.ggml.tokens", {"a", "\xFF"});
       }},
      {"tokenizer.ggml.token_type: 2 entries for 260 tokens",
       [](auto& m) {
         m.numbers("tokenizer.ggml.token_type", {1, 1});
       }},
      {"tokenizer.ggml.token_type: token 3 has the type 6, needs 1 to 5",
       [](auto& m) {
         std::vector<uint64_t> types(260, 1);
         types[3] = 6;
         m.numbers("tokenizer.ggml.token_type", types);
       }},
      {R"(tokenizer.ggml.merges: entry 0 is "ab", needs two sides and one space)",
       [](auto& m) { m.texts("tokenizer.ggml.merges", {"ab"}); }},
      {R"(merge 0 joins "a" and "c", but the vocabulary has no token "ac")",
       [](auto& m) { m.texts("tokenizer.ggml.merges", {"a c"}); }},
  };
  for (const auto& [message, change] : cases) {
    GgufMetadata metadata;
    change(metadata);
    Tokenizer tokenizer;
    EXPECT_THAT(tokenizer.loadGguf(metadata.values()),
                IsInvalidFormat("GGUF tokenizer: " + message));
  }
}

TEST(TokenizerLoadTest, PublishedGpt2VocabularyEncodesAsKnown) {
  kiv::GgufFile file;
  ASSERT_THAT(file.open(ZEM_TEST_DATA "/vocab-gpt2.gguf"), IsOk());
  Tokenizer tokenizer;
  ASSERT_THAT(tokenizer.loadGguf(file.values()), IsOk());
  EXPECT_EQ(tokenizer.size(), 50257U);
  EXPECT_THAT(encoded(tokenizer, "Hello world"), ::testing::ElementsAre(15496, 995));
  EXPECT_THAT(encoded(tokenizer, "<|endoftext|>"), ::testing::ElementsAre(50256));
  for (const std::string text : {"It's 1,234 o'clock\xE2\x80\xA6  \n\tna\xC3\xAFve "
                                 "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E \xF0\x9F\x98\x80",
                                 " ", "\n\n\n x"}) {
    EXPECT_EQ(tokenizer.decode(encoded(tokenizer, text)), text);
  }
}

}  // namespace
}  // namespace zem::text
