// SPDX-License-Identifier: Apache-2.0
// Vocabularies from tokenizer.json.
#include <nlohmann/json.hpp>
#include <optional>
#include <set>

#include "engine/text/tokenizer/json_scanner.h"
#include "engine/text/tokenizer/read_error.h"
#include "engine/text/tokenizer/vocabulary.h"
#include "engine/text/unicode/utf8.h"

namespace zem::text {
namespace {

using nlohmann::json;

// Null, and absent, when there is no such member.
const json& member(const json& object, const char* key) {
  static const json kNull;
  if (!object.is_object()) return kNull;
  const auto found = object.find(key);
  return found == object.end() ? kNull : *found;
}

bool isType(const json& part, const char* type) { return member(part, "type") == type; }

bool isOn(const json& object, const char* key, bool otherwise) {
  const json& value = member(object, key);
  return value.is_boolean() ? value.get<bool>() : otherwise;
}

// A part for a message.
std::string shown(const json& part) {
  const json& type = member(part, "type");
  const json& told = type.is_null() ? part : type;
  return inQuotes(told.is_string() ? told.get<std::string>()
                                   : told.dump(-1, ' ', false, json::error_handler_t::replace));
}

// A part by itself, or all of a sequence.
std::vector<json> partsOf(const json& part, const char* list) {
  if (part.is_null()) return {};
  if (!isType(part, "Sequence")) return {part};
  const json& parts = member(part, list);
  if (!parts.is_array()) return {part};
  return {parts.begin(), parts.end()};
}

class JsonVocabularyReader {
 public:
  explicit JsonVocabularyReader(std::string_view text) : scanner_(text, result_.owned) {}

  Vocabulary read() {
    readRoot();
    if (!hasModel_) throw ReadError("model: missing");
    readNormalizer();
    readPreTokenizer();
    readDecoder();
    readAdded();
    return std::move(result_);
  }

 private:
  // Walks over an object; `take` takes the value of a key.
  template <typename Take>
  void readObject(const std::string& where, Take take) {
    std::set<std::string_view> seen;
    for (scanner_.enter('{'); scanner_.more('}');) {
      const std::string_view key = scanner_.key();
      if (!seen.insert(key).second) throw ReadError(where + inQuotes(key) + " occurs twice");
      take(key);
    }
  }

  void readRoot() {
    if (scanner_.peek() != '{') scanner_.fail("expected a JSON object");
    readObject("", [this](std::string_view key) {
      if (key == "model") {
        readModel();
      } else if (key == "normalizer") {
        normalizer_ = parsed("normalizer");
      } else if (key == "pre_tokenizer") {
        preTokenizer_ = parsed("pre_tokenizer");
      } else if (key == "decoder") {
        decoder_ = parsed("decoder");
      } else if (key == "added_tokens") {
        added_ = parsed("added_tokens");
      } else {
        (void)scanner_.skip();
      }
    });
    scanner_.end();
  }

  json parsed(const char* field) {
    const std::string_view text = scanner_.skip();
    try {
      return json::parse(text.begin(), text.end());
    } catch (const json::exception&) {
      throw ReadError(std::string(field) + ": not a JSON value, such as a number out of range");
    }
  }

  void readModel() {
    hasModel_ = true;
    if (scanner_.peek() != '{') throw ReadError("model: not an object");
    readObject("model: ", [this](std::string_view key) {
      if (key == "vocab") {
        readVocab();
      } else if (key == "merges") {
        readMerges();
      } else {
        checkModelSetting(std::string(key));
      }
    });
    if (result_.tokens.empty()) throw ReadError("model.vocab: missing or empty");
  }

  void checkModelSetting(const std::string& key) {
    const json value = parsed(("model." + key).c_str());
    const auto require = [&](bool fits, const char* needed) {
      if (fits || value.is_null()) return;
      throw ReadError("model." + key + ": " + shown(value) + ", needs " + needed);
    };
    const json kNothing("");
    if (key == "type") require(value == "BPE", "\"BPE\"");
    if (key == "dropout") require(value == 0, "none");
    if (key == "continuing_subword_prefix") require(value == kNothing, "none");
    if (key == "end_of_word_suffix") require(value == kNothing, "none");
    if (key == "byte_fallback") require(value == false, "false: a byte-level vocabulary");
    if (key == "ignore_merges") require(value == false, "false");
  }

  void readVocab() {
    if (scanner_.peek() != '{') throw ReadError("model.vocab: not an object");
    for (scanner_.enter('{'); scanner_.more('}');) {
      const std::string_view text = scanner_.key();
      const uint64_t id = scanner_.wholeNumber();
      std::string_view& token = tokenAt(id, "model.vocab: " + inQuotes(text));
      if (token.data() != nullptr) {
        throw ReadError("model.vocab: " + inQuotes(token) + " and " + inQuotes(text) +
                        " have the same id, " + std::to_string(id));
      }
      token = text;
    }
  }

  std::string_view& tokenAt(uint64_t id, const std::string& where) {
    if (id >= kMaxTokens) {
      throw ReadError(where + " has the id " + std::to_string(id) + ", needs one below " +
                      std::to_string(kMaxTokens));
    }
    if (id >= result_.tokens.size()) result_.tokens.resize(id + 1);
    return result_.tokens[id];
  }

  // Either "left right" or ["left", "right"].
  void readMerges() {
    if (scanner_.peek() != '[') throw ReadError("model.merges: not a list");
    for (scanner_.enter('['); scanner_.more(']');) {
      if (result_.merges.size() == kMaxMerges) {
        throw ReadError("model.merges: more than " + std::to_string(kMaxMerges) + " entries");
      }
      if (scanner_.peek() == '[') {
        result_.merges.push_back(readPair());
      } else {
        result_.merges.push_back(splitMerge(scanner_.string()));
      }
    }
  }

  std::string whereMerge() const {
    return "model.merges: entry " + std::to_string(result_.merges.size());
  }

  Vocabulary::Merge readPair() {
    Vocabulary::Merge merge;
    size_t count = 0;
    for (scanner_.enter('['); scanner_.more(']'); ++count) {
      (count == 0 ? merge.left : merge.right) = scanner_.string();
    }
    if (count != 2) {
      throw ReadError(whereMerge() + " has " + std::to_string(count) + " sides, needs 2");
    }
    return merge;
  }

  Vocabulary::Merge splitMerge(std::string_view text) const {
    const size_t space = text.find(' ');
    if (space == std::string_view::npos || text.find(' ', space + 1) != std::string_view::npos) {
      throw ReadError(whereMerge() + " is " + inQuotes(text) + ", needs two sides and one space");
    }
    return {text.substr(0, space), text.substr(space + 1)};
  }

  void readNormalizer() {
    result_.nfc = false;
    for (const json& part : partsOf(normalizer_, "normalizers")) {
      if (!isType(part, "NFC")) {
        throw ReadError("normalizer: " + shown(part) + " is not supported, needs \"NFC\" or none");
      }
      result_.nfc = true;
    }
  }

  // A ByteLevel, alone with its own pattern or behind a Split.
  void readPreTokenizer() {
    std::optional<SplitPattern> pattern;
    bool byteLevel = false;
    for (const json& part : partsOf(preTokenizer_, "pretokenizers")) {
      if (isType(part, "Split") && !byteLevel && !pattern) {
        pattern = readSplit(part);
      } else if (isType(part, "ByteLevel") && !byteLevel) {
        if (isOn(part, "add_prefix_space", true)) {
          throw ReadError("pre_tokenizer: add_prefix_space is true, needs false");
        }
        const bool own = isOn(part, "use_regex", true);
        if (own && pattern) throw ReadError("pre_tokenizer: two patterns, needs one");
        if (own) pattern = SplitPattern::Gpt2;
        byteLevel = true;
      } else {
        throw ReadError("pre_tokenizer: " + shown(part) +
                        " is not supported here, needs \"Split\" and \"ByteLevel\"");
      }
    }
    if (!byteLevel) throw ReadError("pre_tokenizer: no \"ByteLevel\", needs a byte-level one");
    if (!pattern) throw ReadError("pre_tokenizer: no pattern, needs a known one");
    result_.pattern = *pattern;
  }

  static SplitPattern readSplit(const json& part) {
    const json& regex = member(member(part, "pattern"), "Regex");
    if (!regex.is_string()) {
      throw ReadError("pre_tokenizer: the pattern of \"Split\" is no \"Regex\"");
    }
    if (member(part, "behavior") != "Isolated" || isOn(part, "invert", false)) {
      throw ReadError("pre_tokenizer: \"Split\" needs behavior \"Isolated\", not inverted");
    }
    const auto& text = regex.get_ref<const std::string&>();
    const auto known = patternOfRegex(text);
    if (!known) {
      throw ReadError("pre_tokenizer: the pattern " + inQuotes(text) +
                      " is not supported, needs the model family's or GPT-2's");
    }
    return *known;
  }

  void readDecoder() const {
    const std::vector<json> parts = partsOf(decoder_, "decoders");
    if (parts.size() == 1 && isType(parts[0], "ByteLevel")) return;
    throw ReadError("decoder: " + (parts.empty() ? "none" : shown(parts[0])) +
                    ", needs \"ByteLevel\"");
  }

  void readAdded() {
    if (added_.is_null()) return;
    if (!added_.is_array()) throw ReadError("added_tokens: not a list");
    for (size_t i = 0; i < added_.size(); ++i) {
      readAdded(added_[i], "added_tokens: entry " + std::to_string(i));
    }
  }

  void readAdded(const json& entry, const std::string& where) {
    const json& id = member(entry, "id");
    const json& content = member(entry, "content");
    if (!id.is_number_unsigned() || !content.is_string()) {
      throw ReadError(where + " lacks its id or content");
    }
    for (const char* key : {"lstrip", "rstrip", "single_word"}) {
      if (isOn(entry, key, false)) {
        throw ReadError(where + ": " + key + " is true, needs false");
      }
    }
    const auto number = id.get<uint64_t>();
    (void)tokenAt(number, where);
    const std::string& text = result_.owned.emplace_back(content.get<std::string>());
    result_.added.push_back({static_cast<int32_t>(number), text, isOn(entry, "special", false),
                             isOn(entry, "normalized", false)});
  }

  Vocabulary result_;
  JsonScanner scanner_;
  bool hasModel_ = false;
  json normalizer_;
  json preTokenizer_;
  json decoder_;
  json added_;
};

}  // namespace

std::string inQuotes(std::string_view text) {
  constexpr size_t kLongest = 200;
  std::string out = "\"";
  appendWellFormed(text.substr(0, kLongest), out);
  return out + (text.size() > kLongest ? "...\"" : "\"");
}

Vocabulary readJsonVocabulary(std::string_view text) {
  if (const size_t whole = wellFormedLength(text); whole != text.size()) {
    throw ReadError("byte " + std::to_string(whole) + ": not UTF-8");
  }
  return JsonVocabularyReader(text).read();
}

}  // namespace zem::text
