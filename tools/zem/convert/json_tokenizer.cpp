// SPDX-License-Identifier: Apache-2.0
#include "convert/json_tokenizer.h"

#include <algorithm>
#include <map>
#include <utility>

#include "console/terminal.h"
#include "convert/json_file.h"

namespace zemtool {
namespace {

constexpr uint64_t kMaxTokenizerBytes = uint64_t{64} << 20;
constexpr uint64_t kMaxTokenizerConfigBytes = uint64_t{8} << 20;
constexpr uint64_t kMaxTemplateBytes = uint64_t{4} << 20;

class JsonTokenizerReader {
 public:
  JsonTokenizerReader(const std::string& folder, uint64_t rows) : folder_(folder), rows_(rows) {}

  SourceTokenizer read() {
    where_ = folder_ + "/tokenizer.json";
    if (!readFileIfAny(where_, kMaxTokenizerBytes, result_.asset)) {
      throw Failure(folder_ + ": has no tokenizer.json");
    }
    result_.assetName = "tokenizer.json";
    {
      const json root = parseJson(result_.asset, where_);
      readModel(root);
      if (const json* added = member(root, "added_tokens")) readAddedList(*added);
    }
    readConfig();
    return std::move(result_);
  }

 private:
  [[noreturn]] void fail(const std::string& problem) const {
    throw Failure(where_ + ": " + problem);
  }

  void readModel(const json& root) {
    const json* model = member(root, "model");
    if (model == nullptr || !model->is_object()) fail("has no model");
    const json* type = member(*model, "type");
    if (type != nullptr && *type != "BPE") fail("model.type is not \"BPE\"");
    requireByteLevel(root);
    const json* fallback = member(*model, "byte_fallback");
    if (fallback != nullptr && *fallback == true) {
      fail("model.byte_fallback is true, needs a byte-level vocabulary");
    }
    const json* vocab = member(*model, "vocab");
    if (vocab == nullptr || !vocab->is_object() || vocab->empty()) fail("has no model.vocab");
    for (const auto& [text, id] : vocab->items()) {
      SourceToken& token = tokenAt(id, text);
      if (token.kind != SourceTokenKind::Absent) {
        fail("tokens \"" + token.text + "\" and \"" + text + "\" have the same id");
      }
      token = {text, SourceTokenKind::Ordinary};
    }
    const json* merges = member(*model, "merges");
    if (merges != nullptr) readMerges(*merges);
  }

  // Said by the decoder, by the pre-tokenizer, or by one of a sequence of either.
  void requireByteLevel(const json& root) const {
    const auto isByteLevel = [](const json* part) {
      if (part == nullptr) return false;
      const json* type = member(*part, "type");
      return type != nullptr && *type == "ByteLevel";
    };
    for (const char* key : {"decoder", "pre_tokenizer"}) {
      const json* part = member(root, key);
      if (isByteLevel(part)) return;
      if (part == nullptr) continue;
      for (const char* list : {"decoders", "pretokenizers"}) {
        const json* parts = member(*part, list);
        if (parts == nullptr || !parts->is_array()) continue;
        if (std::any_of(parts->begin(), parts->end(),
                        [&](const json& p) { return isByteLevel(&p); })) {
          return;
        }
      }
    }
    fail("neither decoder nor pre_tokenizer is \"ByteLevel\", needs a byte-level vocabulary");
  }

  SourceToken& tokenAt(const json& id, const std::string& text) {
    if (!id.is_number_unsigned()) fail("the id of token \"" + text + "\" is not a whole number");
    const auto at = id.get<uint64_t>();
    if (at >= rows_) {
      fail("token \"" + text + "\" has the id " + std::to_string(at) + ", the embedding has " +
           std::to_string(rows_) + " rows");
    }
    if (at >= result_.tokens.size()) result_.tokens.resize(at + 1);
    return result_.tokens[at];
  }

  // Either "left right" or ["left", "right"].
  void readMerges(const json& merges) {
    if (!merges.is_array()) fail("model.merges is not a list");
    result_.merges.reserve(merges.size());
    for (const json& merge : merges) {
      SourceMerge rule;
      if (merge.is_string()) {
        const auto& text = merge.get_ref<const std::string&>();
        const size_t space = text.find(' ');
        if (space == std::string::npos) fail("the merge \"" + text + "\" has no two sides");
        rule = {text.substr(0, space), text.substr(space + 1)};
      } else if (merge.is_array() && merge.size() == 2 && merge[0].is_string() &&
                 merge[1].is_string()) {
        rule = {merge[0].get<std::string>(), merge[1].get<std::string>()};
      } else {
        fail("merge " + std::to_string(result_.merges.size()) + " is not two texts");
      }
      result_.merges.push_back(std::move(rule));
    }
  }

  void readAddedList(const json& list) {
    if (!list.is_array()) fail("added_tokens is not a list");
    for (const json& token : list) {
      const json* id = member(token, "id");
      const json* content = member(token, "content");
      if (id == nullptr || content == nullptr || !content->is_string()) {
        fail("an added token lacks its id or content");
      }
      addToken(*id, content->get<std::string>());
    }
  }

  // May stand in the vocabulary as well, with the same text.
  void addToken(const json& id, const std::string& text) {
    SourceToken& token = tokenAt(id, text);
    if (token.kind != SourceTokenKind::Absent && token.text != text) {
      fail("the added token \"" + text + "\" has the id of \"" + token.text + "\"");
    }
    token = {text, SourceTokenKind::Added};
  }

  void readConfig() {
    const std::string path = folder_ + "/tokenizer_config.json";
    std::string text;
    json config = json::object();
    if (readFileIfAny(path, kMaxTokenizerConfigBytes, text)) config = parseJson(text, path);
    where_ = path;
    readAddedMap(config);
    result_.eosId = idOf(config, "eos_token");
    result_.padId = idOf(config, "pad_token");
    // A runtime starts every sequence with the token as soon as there is one.
    const json* addBos = member(config, "add_bos_token");
    if (addBos == nullptr || *addBos != false) result_.bosId = idOf(config, "bos_token");
    readTemplate(config);
  }

  // {"151643": {"content": ...}, ...}: mostly what tokenizer.json has too.
  void readAddedMap(const json& config) {
    const json* added = member(config, "added_tokens_decoder");
    if (added == nullptr || !added->is_object()) return;
    for (const auto& [key, token] : added->items()) {
      const json* content = member(token, "content");
      const bool digits = !key.empty() && key.size() <= 9 &&
                          key.find_first_not_of("0123456789") == std::string::npos;
      if (!digits || content == nullptr || !content->is_string()) {
        fail("added_tokens_decoder has an entry without id or content");
      }
      addToken(json(static_cast<uint64_t>(std::stoul(key))), content->get<std::string>());
    }
  }

  // A text, or an object with the text as its content.
  int32_t idOf(const json& config, const char* key) const {
    const json* value = member(config, key);
    if (value != nullptr && value->is_object()) value = member(*value, "content");
    if (value == nullptr || !value->is_string()) return -1;
    const auto& text = value->get_ref<const std::string&>();
    const auto& tokens = result_.tokens;
    const auto found = std::find_if(tokens.begin(), tokens.end(), [&](const SourceToken& token) {
      return token.kind != SourceTokenKind::Absent && token.text == text;
    });
    return found == tokens.end() ? -1 : static_cast<int32_t>(found - tokens.begin());
  }

  void readTemplate(const json& config) {
    if (const json* given = member(config, "chat_template")) {
      takeTemplate(*given);
      return;
    }
    const std::string plain = folder_ + "/chat_template.jinja";
    if (readFileIfAny(plain, kMaxTemplateBytes, result_.chatTemplate)) return;
    const std::string wrapped = folder_ + "/chat_template.json";
    std::string text;
    if (!readFileIfAny(wrapped, kMaxTemplateBytes, text)) return;
    const json root = parseJson(text, wrapped);
    if (const json* given = member(root, "chat_template")) takeTemplate(*given);
  }

  // A text, or several with names, of which "default" is meant.
  void takeTemplate(const json& given) {
    if (given.is_string()) {
      result_.chatTemplate = given.get<std::string>();
      return;
    }
    if (!given.is_array()) return;
    for (const json& entry : given) {
      const json* name = member(entry, "name");
      const json* body = member(entry, "template");
      if (name == nullptr || body == nullptr || !body->is_string()) continue;
      if (result_.chatTemplate.empty() || *name == "default") {
        result_.chatTemplate = body->get<std::string>();
      }
    }
  }

  std::string folder_;
  uint64_t rows_;
  std::string where_;  // the file that is being read
  SourceTokenizer result_;
};

}  // namespace

SourceTokenizer readJsonTokenizer(const std::string& folder, uint64_t rows) {
  return JsonTokenizerReader(folder, rows).read();
}

}  // namespace zemtool
