// SPDX-License-Identifier: Apache-2.0
#include "convert/gguf/gguf_tokenizer.h"

#include <limits>
#include <string_view>
#include <utility>
#include <vector>

#include "console/terminal.h"

namespace zemtool {
namespace {

constexpr uint64_t kMaxMerges = uint64_t{1} << 22;

// The file's token types.
enum TokenType : uint64_t {
  kNormal = 1,
  kUnknown = 2,
  kControl = 3,
  kUserDefined = 4,
  kUnused = 5
};

class GgufTokenizerReader {
 public:
  GgufTokenizerReader(const kiv::GgufFile& gguf, uint64_t rows) : gguf_(gguf), rows_(rows) {}

  SourceTokenizer read() {
    requireByteLevel();
    readTokens();
    readMerges();
    result_.eosId = tokenId("tokenizer.ggml.eos_token_id");
    result_.padId = tokenId("tokenizer.ggml.padding_token_id");
    // A runtime starts every sequence with the token as soon as there is one.
    bool addBos = true;
    if (const auto* value = gguf_.find("tokenizer.ggml.add_bos_token"))
      (void)value->getBool(addBos);
    if (addBos) result_.bosId = tokenId("tokenizer.ggml.bos_token_id");
    std::string_view text;
    const auto* chat = gguf_.find("tokenizer.chat_template");
    if (chat != nullptr && chat->getText(text)) result_.chatTemplate = text;
    writeAsset();
    return std::move(result_);
  }

 private:
  [[noreturn]] void fail(const std::string& problem) const {
    throw Failure(gguf_.file().path() + ": " + problem);
  }

  const kiv::GgufValue& require(const char* key) const {
    const kiv::GgufValue* value = gguf_.find(key);
    if (value == nullptr) fail(std::string("has no metadata '") + key + "'");
    return *value;
  }

  void requireByteLevel() const {
    std::string_view model;
    if (!require("tokenizer.ggml.model").getText(model) || model != "gpt2") {
      fail("tokenizer.ggml.model is \"" + std::string(model.substr(0, 80)) +
           "\", needs \"gpt2\": a byte-level vocabulary");
    }
  }

  void readTokens() {
    const kiv::GgufValue& tokens = require("tokenizer.ggml.tokens");
    const kiv::GgufValue& types = require("tokenizer.ggml.token_type");
    if (tokens.count > rows_) {
      fail("tokenizer.ggml.tokens has " + std::to_string(tokens.count) +
           " tokens, the embedding has " + std::to_string(rows_) + " rows");
    }
    if (types.count != tokens.count) {
      fail("tokenizer.ggml.token_type has " + std::to_string(types.count) + " entries for " +
           std::to_string(tokens.count) + " tokens");
    }
    std::vector<std::string_view> texts;
    std::vector<uint64_t> codes;
    if (!tokens.getTexts(texts)) fail("tokenizer.ggml.tokens is not a list of texts");
    if (!types.array || !types.getUints(codes)) {
      fail("tokenizer.ggml.token_type is not a list of whole numbers");
    }
    result_.tokens.reserve(texts.size());
    for (size_t i = 0; i < texts.size(); ++i) {
      result_.tokens.push_back({std::string(texts[i]), kindOf(codes[i])});
      if (codes[i] == kUnused) result_.tokens.back().text.clear();
    }
  }

  static SourceTokenKind kindOf(uint64_t type) {
    switch (type) {
      case kNormal:
        return SourceTokenKind::Ordinary;
      case kUnknown:
        return SourceTokenKind::Unknown;
      case kControl:
      case kUserDefined:
        return SourceTokenKind::Added;
      case kUnused:  // fills the rows up to the embedding's size
        return SourceTokenKind::Absent;
      default:
        return SourceTokenKind::Plain;
    }
  }

  void readMerges() {
    const kiv::GgufValue* merges = gguf_.find("tokenizer.ggml.merges");
    if (merges == nullptr) return;
    std::vector<std::string_view> texts;
    if (merges->count > kMaxMerges || !merges->getTexts(texts)) {
      fail("tokenizer.ggml.merges is not a list of texts, or has more than " +
           std::to_string(kMaxMerges));
    }
    result_.merges.reserve(texts.size());
    for (const std::string_view text : texts) {
      const size_t space = text.empty() ? std::string_view::npos : text.find(' ', 1);
      if (space == std::string_view::npos) {
        fail("tokenizer.ggml.merges: \"" + std::string(text.substr(0, 80)) + "\" has no two sides");
      }
      result_.merges.push_back(
          {std::string(text.substr(0, space)), std::string(text.substr(space + 1))});
    }
  }

  int32_t tokenId(const char* key) const {
    const kiv::GgufValue* value = gguf_.find(key);
    uint64_t id = 0;
    if (value == nullptr || !value->getUint(id) || id >= result_.tokens.size()) return -1;
    return static_cast<int32_t>(id);
  }

  void writeAsset() {
    std::string entries;
    uint64_t count = 0;
    for (const kiv::GgufValue& value : gguf_.values()) {
      if (!value.key.starts_with("tokenizer.")) continue;
      entries += value.entry;
      ++count;
    }
    constexpr uint64_t kNoTensors = 0;
    constexpr uint32_t kVersion = 3;
    std::string& asset = result_.asset;
    asset = "GGUF";
    asset.append(reinterpret_cast<const char*>(&kVersion), sizeof kVersion);
    asset.append(reinterpret_cast<const char*>(&kNoTensors), sizeof kNoTensors);
    asset.append(reinterpret_cast<const char*>(&count), sizeof count);
    asset += entries;
    result_.assetName = "tokenizer.gguf";
  }

  const kiv::GgufFile& gguf_;
  uint64_t rows_;
  SourceTokenizer result_;
};

}  // namespace

SourceTokenizer readGgufTokenizer(const kiv::GgufFile& gguf, uint64_t rows) {
  return GgufTokenizerReader(gguf, rows).read();
}

}  // namespace zemtool
