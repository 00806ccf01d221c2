// SPDX-License-Identifier: Apache-2.0
// Vocabularies from the metadata of GGUF files.
#include <algorithm>
#include <utility>

#include "engine/text/tokenizer/read_error.h"
#include "engine/text/tokenizer/vocabulary.h"
#include "engine/text/unicode/utf8.h"

namespace zem::text {
namespace {

// The file's token types.
enum TokenType : uint64_t {
  kNormal = 1,
  kUnknown = 2,
  kControl = 3,
  kUserDefined = 4,
  kUnused = 5,
};

class GgufVocabularyReader {
 public:
  explicit GgufVocabularyReader(std::span<const kiv::GgufValue> values) : values_(values) {}

  Vocabulary read() {
    requireByteLevel();
    readPattern();
    readTokens();
    readMerges();
    return std::move(result_);
  }

 private:
  [[noreturn]] static void fail(const char* key, const std::string& problem) {
    throw ReadError(std::string(key) + ": " + problem);
  }

  const kiv::GgufValue* find(const char* key) const {
    const auto found = std::find_if(values_.begin(), values_.end(),
                                    [key](const auto& value) { return value.key == key; });
    return found == values_.end() ? nullptr : &*found;
  }

  const kiv::GgufValue& require(const char* key) const {
    const kiv::GgufValue* value = find(key);
    if (value == nullptr) fail(key, "missing");
    return *value;
  }

  std::string_view requireText(const char* key) const {
    std::string_view text;
    if (!require(key).getText(text)) fail(key, "not a text");
    return text;
  }

  void requireByteLevel() const {
    constexpr const char* kKey = "tokenizer.ggml.model";
    const std::string_view model = requireText(kKey);
    if (model != "gpt2") fail(kKey, inQuotes(model) + ", needs \"gpt2\": a byte-level vocabulary");
  }

  // The pattern's name tells whether texts were normalised before it.
  void readPattern() {
    constexpr const char* kKey = "tokenizer.ggml.pre";
    const std::string_view name = requireText(kKey);
    const auto pattern = patternOfGgufName(name);
    if (!pattern) {
      fail(kKey, "the pattern " + inQuotes(name) +
                     " is not supported, needs \"qwen35\", \"qwen2\" or \"gpt-2\"");
    }
    result_.pattern = *pattern;
    result_.nfc = *pattern != SplitPattern::Gpt2;
  }

  std::vector<std::string_view> readTexts(const char* key, uint64_t most) const {
    const kiv::GgufValue& value = require(key);
    if (value.count > most) {
      fail(key,
           std::to_string(value.count) + " entries, at most " + std::to_string(most) + " are read");
    }
    std::vector<std::string_view> texts;
    if (!value.getTexts(texts)) fail(key, "not a list of texts");
    for (size_t i = 0; i < texts.size(); ++i) {
      if (wellFormedLength(texts[i]) == texts[i].size()) continue;
      fail(key, "entry " + std::to_string(i) + " is not UTF-8");
    }
    return texts;
  }

  void readTokens() {
    constexpr const char* kTypes = "tokenizer.ggml.token_type";
    const auto texts = readTexts("tokenizer.ggml.tokens", kMaxTokens);
    if (texts.empty()) fail("tokenizer.ggml.tokens", "empty");
    std::vector<uint64_t> types;
    const kiv::GgufValue& value = require(kTypes);
    if (value.count != texts.size()) {
      fail(kTypes, std::to_string(value.count) + " entries for " + std::to_string(texts.size()) +
                       " tokens");
    }
    if (!value.array || !value.getUints(types)) fail(kTypes, "not a list of whole numbers");
    result_.tokens.resize(texts.size());
    for (size_t i = 0; i < texts.size(); ++i) {
      const auto id = static_cast<int32_t>(i);
      switch (types[i]) {
        case kNormal:
          result_.tokens[i] = texts[i];
          break;
        case kUnknown:
        case kControl:
        case kUserDefined:
          result_.added.push_back({id, texts[i], types[i] != kUserDefined, false});
          break;
        case kUnused:  // fills the rows up to the embedding's size
          break;
        default:
          fail(kTypes, "token " + std::to_string(i) + " has the type " + std::to_string(types[i]) +
                           ", needs 1 to 5");
      }
    }
  }

  void readMerges() {
    constexpr const char* kKey = "tokenizer.ggml.merges";
    if (find(kKey) == nullptr) return;
    const auto texts = readTexts(kKey, kMaxMerges);
    result_.merges.reserve(texts.size());
    for (const std::string_view text : texts) {
      const size_t space = text.find(' ');
      if (space == std::string_view::npos || text.find(' ', space + 1) != std::string_view::npos) {
        fail(kKey, "entry " + std::to_string(result_.merges.size()) + " is " + inQuotes(text) +
                       ", needs two sides and one space");
      }
      result_.merges.push_back({text.substr(0, space), text.substr(space + 1)});
    }
  }

  std::span<const kiv::GgufValue> values_;
  Vocabulary result_;
};

}  // namespace

Vocabulary readGgufVocabulary(std::span<const kiv::GgufValue> values) {
  return GgufVocabularyReader(values).read();
}

}  // namespace zem::text
