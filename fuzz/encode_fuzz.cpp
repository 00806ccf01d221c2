// SPDX-License-Identifier: Apache-2.0
// Texts and vocabularies of any bytes: ids and texts are those that the plain rules
// give, one step at a time.
#include <string>
#include <vector>

#include "fuzz.h"
#include "kiv/plain_encoder.h"
#include "kiv/tokenizer.h"

namespace {

using zemfuzz::require;

// Counts in front, so that a short input has tokens, rules and a text.
kiv::TokenizerData readVocabulary(zemfuzz::Input& in) {
  kiv::TokenizerData data;
  const size_t tokens = 1 + in.byte() % 64;
  const size_t merges = in.byte() % 64;
  const uint8_t flags = in.byte();
  for (size_t i = 0; i < tokens; ++i) {
    const uint8_t kind = in.byte();
    data.tokens.push_back(in.take(kind & 31));
    data.tokenTypes.push_back(kind >> 5);
  }
  for (size_t i = 0; i < merges; ++i) data.merges.push_back(in.take(in.byte() & 31));
  if ((flags & 1) != 0) data.tokenTypes.pop_back();
  if ((flags & 2) != 0) data.bosId = static_cast<int32_t>(in.number(4));
  if ((flags & 4) != 0) data.unkId = static_cast<int32_t>(in.number(4));
  return data;
}

int digit(char c) {
  const std::string digits = "0123456789abcdef";
  const size_t at = digits.find(c >= 'A' && c <= 'F' ? static_cast<char>(c - 'A' + 'a') : c);
  return at == std::string::npos ? -1 : static_cast<int>(at);
}

std::string plainDecode(const kiv::TokenizerData& data, const std::vector<int32_t>& ids) {
  std::string text;
  for (const int32_t id : ids) {
    if (id < 0 || id >= static_cast<int64_t>(data.tokens.size())) continue;
    const auto at = static_cast<size_t>(id);
    std::string token = data.tokens[at];
    const int32_t type = at < data.tokenTypes.size() ? data.tokenTypes[at] : 0;
    size_t marker = 0;
    while (type != 2 && type != 3 && (marker = token.find("\xE2\x96\x81")) != std::string::npos) {
      token.replace(marker, 3, " ");
    }
    text += token;
  }
  std::string result;
  for (size_t at = 0; at < text.size();) {
    const std::string s = text.substr(at, 6);
    const bool byte = s.size() == 6 && s.substr(0, 3) == "<0x" && s[5] == '>' && digit(s[3]) >= 0 &&
                      digit(s[4]) >= 0;
    result.push_back(byte ? static_cast<char>(digit(s[3]) * 16 + digit(s[4])) : text[at]);
    at += byte ? 6 : 1;
  }
  return result;
}

void checkDecode(const kiv::Tokenizer& tokenizer, const std::vector<int32_t>& ids) {
  std::string text;
  require(tokenizer.decode(ids, text).ok(), "decode() fails");
  require(text == plainDecode(tokenizer.data(), ids), "decode() gives another text");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zemfuzz::Input in(data, size);
  const kiv::TokenizerData vocabulary = readVocabulary(in);
  std::vector<int32_t> any;
  for (size_t count = in.byte() % 16; count > 0; --count) {
    any.push_back(static_cast<int32_t>(static_cast<int8_t>(in.byte())));
  }
  const std::string text = in.rest();

  kiv::Tokenizer tokenizer;
  require(tokenizer.load(vocabulary).ok(), "load() fails");
  std::vector<int32_t> ids;
  require(tokenizer.encode(text, ids, true).ok(), "encode() fails");
  require(ids == zemtest::PlainEncoder(vocabulary).encode(text), "encode() gives other ids");
  checkDecode(tokenizer, ids);
  checkDecode(tokenizer, any);
  return 0;
}
