// SPDX-License-Identifier: Apache-2.0
// tokenizer.json files made for tests.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kiv/tokenizer.h"

namespace zem::text::test {

inline constexpr std::string_view kFamilyRegex =
    R"((?i:'s|'t|'re|'ve|'m|'ll|'d)|[^\r\n\p{L}\p{N}]?[\p{L}\p{M}]+|\p{N}| ?[^\s\p{L}\p{M}\p{N}]+[\r\n]*|\s*[\r\n]+|\s+(?!\S)|\s+)";
inline constexpr std::string_view kOlderRegex =
    R"((?i:'s|'t|'re|'ve|'m|'ll|'d)|[^\r\n\p{L}\p{N}]?\p{L}+|\p{N}| ?[^\s\p{L}\p{N}]+[\r\n]*|\s*[\r\n]+|\s+(?!\S)|\s+)";
inline constexpr std::string_view kGpt2Regex =
    R"('s|'t|'re|'ve|'m|'ll|'d| ?\p{L}+| ?\p{N}+| ?[^\s\p{L}\p{N}]+|\s+(?!\S)|\s+)";

// How a vocabulary spells `bytes`: one printable character a byte.
std::string spelled(std::string_view bytes);

// A vocabulary of the 256 bytes (byte b has the id b), and of a token for each merge, in
// order, that is new: left and right are given as bytes.
class ByteVocabulary {
 public:
  using Merge = std::pair<std::string, std::string>;

  explicit ByteVocabulary(const std::vector<Merge>& merges = {});
  // The rules of a vocabulary that was learnt character by character, behind rules that
  // make its characters.
  static ByteVocabulary fromLearnt(const kiv::TokenizerData& learnt);

  void merge(const std::string& left, const std::string& right);
  // The next id.
  int32_t add(const std::string& text, bool special, bool normalized = false);
  int32_t idOf(const std::string& bytes) const;

  nlohmann::json& root() { return json_; }
  std::string text() const { return json_.dump(); }

 private:
  int32_t next_ = 256;
  nlohmann::json json_;
};

}  // namespace zem::text::test
