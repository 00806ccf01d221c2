// SPDX-License-Identifier: Apache-2.0
// Encoding as it is defined, one step at a time and slow.
#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "engine/text/byte_vocabulary.h"
#include "engine/text/plain_regex.h"
#include "engine/text/unicode/nfc.h"

namespace zem::text::test {

// For vocabularies of a ByteVocabulary without added tokens that are normalised.
class PlainTokenizer {
 public:
  explicit PlainTokenizer(const nlohmann::json& source)
      : regex_(source["pre_tokenizer"]["pretokenizers"][0]["pattern"]["Regex"]
                   .get_ref<const std::string&>()),
        nfc_(!source["normalizer"].is_null()) {
    for (const auto& [text, id] : source["model"]["vocab"].items()) ids_[text] = id;
    size_t rank = 0;
    for (const auto& merge : source["model"]["merges"]) {
      ranks_[{merge[0].get<std::string>(), merge[1].get<std::string>()}] = rank++;
    }
    for (const auto& added : source["added_tokens"]) added_[added["content"]] = added["id"];
  }

  std::vector<int32_t> encode(const std::string& text, bool recogniseAdded = true) const {
    std::vector<int32_t> out;
    std::string plain;
    for (size_t at = 0; at < text.size();) {
      const std::string added = recogniseAdded ? addedAt(text, at) : "";
      if (added.empty()) {
        plain += text[at++];
        continue;
      }
      encodePlain(plain, out);
      plain.clear();
      out.push_back(added_.at(added));
      at += added.size();
    }
    encodePlain(plain, out);
    return out;
  }

 private:
  std::string addedAt(const std::string& text, size_t at) const {
    std::string longest;
    for (const auto& [added, id] : added_) {
      if (added.size() > longest.size() && text.compare(at, added.size(), added) == 0) {
        longest = added;
      }
    }
    return longest;
  }

  void encodePlain(const std::string& text, std::vector<int32_t>& out) const {
    for (const std::string& piece : regex_.pieces(nfc_ ? unicode::toNfc(text) : text)) {
      std::vector<std::string> symbols;
      for (const char byte : piece) symbols.push_back(spelled(std::string(1, byte)));
      while (mergeBest(symbols)) {
      }
      for (const std::string& symbol : symbols) out.push_back(ids_.at(symbol));
    }
  }

  bool mergeBest(std::vector<std::string>& symbols) const {
    size_t best = SIZE_MAX;
    size_t place = 0;
    for (size_t i = 0; i + 1 < symbols.size(); ++i) {
      const auto rule = ranks_.find({symbols[i], symbols[i + 1]});
      if (rule == ranks_.end() || rule->second >= best) continue;
      best = rule->second;
      place = i;
    }
    if (best == SIZE_MAX) return false;
    symbols[place] += symbols[place + 1];
    symbols.erase(symbols.begin() + static_cast<std::ptrdiff_t>(place) + 1);
    return true;
  }

  PlainRegex regex_;
  bool nfc_;
  std::map<std::string, int32_t> ids_;
  std::map<std::pair<std::string, std::string>, size_t> ranks_;
  std::map<std::string, int32_t> added_;
};

}  // namespace zem::text::test
