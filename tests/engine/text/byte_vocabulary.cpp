// SPDX-License-Identifier: Apache-2.0
#include "engine/text/byte_vocabulary.h"

#include <array>

#include "engine/text/unicode/utf8.h"
#include "kiv/text/tokenizer_pieces.h"

namespace zem::text::test {
namespace {

using nlohmann::json;

// The characters of the bytes: printable Latin-1 ones are their own, the others follow
// from U+0100 on.
std::array<std::string, 256> spellings() {
  std::array<std::string, 256> spelled;
  uint32_t next = 0x100;
  for (uint32_t byte = 0; byte < 256; ++byte) {
    const bool printable = byte > 0x20 && byte != 0xAD && (byte < 0x7F || byte > 0xA0);
    appendUtf8(printable ? byte : next++, spelled[byte]);
  }
  return spelled;
}

std::string bytesOf(const std::string& learnt) {
  constexpr std::string_view kMarker = "\xC4\xA0";  // U+0120
  std::string bytes = learnt;
  for (size_t at = 0; (at = bytes.find(kMarker, at)) != std::string::npos;) {
    bytes.replace(at, kMarker.size(), " ");
  }
  return bytes;
}

}  // namespace

std::string spelled(std::string_view bytes) {
  static const std::array<std::string, 256> kSpellings = spellings();
  std::string out;
  for (const char c : bytes) out += kSpellings[static_cast<uint8_t>(c)];
  return out;
}

ByteVocabulary::ByteVocabulary(const std::vector<Merge>& merges) {
  const json byteLevel = {{"type", "ByteLevel"}, {"add_prefix_space", false}, {"use_regex", false}};
  const json split = {{"type", "Split"},
                      {"pattern", {{"Regex", kFamilyRegex}}},
                      {"behavior", "Isolated"},
                      {"invert", false}};
  json_ = {{"version", "1.0"},
           {"added_tokens", json::array()},
           {"normalizer", {{"type", "NFC"}}},
           {"pre_tokenizer", {{"type", "Sequence"}, {"pretokenizers", {split, byteLevel}}}},
           {"post_processor", byteLevel},
           {"decoder", byteLevel},
           {"model", {{"type", "BPE"}, {"vocab", json::object()}, {"merges", json::array()}}}};
  for (int byte = 0; byte < 256; ++byte) {
    json_["model"]["vocab"][spelled(std::string(1, static_cast<char>(byte)))] = byte;
  }
  for (const auto& [left, right] : merges) merge(left, right);
}

ByteVocabulary ByteVocabulary::fromLearnt(const kiv::TokenizerData& learnt) {
  ByteVocabulary vocabulary;
  for (const std::string& token : learnt.tokens) {
    const std::string bytes = bytesOf(token);
    if (bytes.size() < 2 || kiv::utf8Length(bytes) != bytes.size()) continue;
    for (size_t end = 1; end < bytes.size(); ++end) {
      vocabulary.merge(bytes.substr(0, end), bytes.substr(end, 1));
    }
  }
  for (const std::string& rule : learnt.merges) {
    const size_t space = rule.find(' ');
    vocabulary.merge(bytesOf(rule.substr(0, space)), bytesOf(rule.substr(space + 1)));
  }
  return vocabulary;
}

void ByteVocabulary::merge(const std::string& left, const std::string& right) {
  json& vocab = json_["model"]["vocab"];
  json_["model"]["merges"].push_back({spelled(left), spelled(right)});
  const std::string joined = spelled(left + right);
  if (!vocab.contains(joined)) vocab[joined] = next_++;
}

int32_t ByteVocabulary::add(const std::string& text, bool special, bool normalized) {
  json_["added_tokens"].push_back(
      {{"id", next_}, {"content", text}, {"special", special}, {"normalized", normalized}});
  return next_++;
}

int32_t ByteVocabulary::idOf(const std::string& bytes) const {
  return json_.at("model").at("vocab").at(spelled(bytes)).get<int32_t>();
}

}  // namespace zem::text::test
