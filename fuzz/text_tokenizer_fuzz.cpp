// SPDX-License-Identifier: Apache-2.0
// The exact tokenizer. A first byte 0: any text as tokenizer.json, and behind a byte FF,
// which no text has, a text to encode. Another first byte: a vocabulary made of what
// follows, which loads and encodes as it is defined, one step at a time.
#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "engine/text/byte_vocabulary.h"
#include "engine/text/plain_tokenizer.h"
#include "engine/text/tokenizer.h"
#include "engine/text/unicode/nfc.h"
#include "engine/text/unicode/utf8.h"
#include "fuzz.h"

namespace {

using zem::text::AddedTokens;
using zem::text::Tokenizer;
using zem::text::test::ByteVocabulary;
using zemfuzz::require;
using Ids = std::vector<int32_t>;

constexpr size_t kLongestText = 300;  // the plain steps take the square of it

std::string wellFormed(std::string_view bytes) {
  std::string text;
  zem::text::appendWellFormed(bytes, text);
  return text;
}

Ids encoded(const Tokenizer& tokenizer, const std::string& text, AddedTokens added) {
  Ids ids;
  require(tokenizer.encode(text, added, ids).ok(), "encode() fails");
  for (const int32_t id : ids) require(tokenizer.hasToken(id), "an id without a token");
  return ids;
}

void checkDecoding(const Tokenizer& tokenizer, const Ids& ids) {
  for (const bool skipSpecial : {false, true}) {
    zem::text::TextDecoder decoder(tokenizer, skipSpecial);
    std::string streamed;
    for (const int32_t id : ids) streamed += decoder.push(id);
    streamed += decoder.finish();
    require(streamed == tokenizer.decode(ids, skipSpecial), "decoding one by one differs");
    require(streamed == wellFormed(streamed), "decoded text is not well-formed");
  }
}

// Any text as a file: a tokenizer that works, or an error.
void readFile(std::string_view json, const std::string& text) {
  Tokenizer tokenizer;
  const kiv::Status status = tokenizer.loadJson(json);
  require(status.ok() == tokenizer.valid(), "a tokenizer in spite of an error");
  require(status.ok() || !status.message().empty(), "an error without a message");
  if (!status.ok()) return;
  for (const AddedTokens added :
       {AddedTokens::Recognised, AddedTokens::SpecialAsText, AddedTokens::AsText}) {
    checkDecoding(tokenizer, encoded(tokenizer, text, added));
  }
}

ByteVocabulary madeOf(zemfuzz::Input& in) {
  ByteVocabulary vocabulary;
  std::vector<std::string> tokens;
  for (int byte = 0; byte < 256; ++byte) tokens.emplace_back(1, static_cast<char>(byte));
  for (size_t count = in.byte() % 64; count > 0; --count) {
    const std::string left = tokens[in.number(2) % tokens.size()];
    const std::string right = tokens[in.number(2) % tokens.size()];
    if (left.size() + right.size() > 64) continue;
    vocabulary.merge(left, right);
    if (std::find(tokens.begin(), tokens.end(), left + right) == tokens.end()) {
      tokens.push_back(left + right);
    }
  }
  for (size_t count = in.byte() % 4; count > 0; --count) {
    const std::string text = "<" + wellFormed(in.take(in.byte() % 8)) + ">";
    const bool special = in.byte() % 2 != 0;
    const auto& added = vocabulary.root()["added_tokens"];
    const bool known = std::any_of(added.begin(), added.end(),
                                   [&](const auto& token) { return token["content"] == text; });
    if (!known && !vocabulary.root()["model"]["vocab"].contains(text)) {
      vocabulary.add(text, special);
    }
  }
  return vocabulary;
}

void encodeAsDefined(zemfuzz::Input& in) {
  ByteVocabulary vocabulary = madeOf(in);
  auto& root = vocabulary.root();
  const uint8_t flags = in.byte();
  if ((flags & 1) != 0) root["normalizer"] = nullptr;
  std::string_view regex = zem::text::test::kFamilyRegex;
  if ((flags & 2) != 0) regex = zem::text::test::kOlderRegex;
  if ((flags & 4) != 0) regex = zem::text::test::kGpt2Regex;
  root["pre_tokenizer"]["pretokenizers"][0]["pattern"]["Regex"] = regex;
  const std::string bytes = in.take(kLongestText);

  Tokenizer tokenizer;
  require(tokenizer.loadJson(vocabulary.text()).ok(), "loadJson() fails");
  const zem::text::test::PlainTokenizer plain(root);
  const std::string text = wellFormed(bytes);
  const Ids ids = encoded(tokenizer, bytes, AddedTokens::Recognised);
  require(ids == plain.encode(text), "encode() gives other ids");
  const Ids asText = encoded(tokenizer, bytes, AddedTokens::AsText);
  require(asText == plain.encode(text, false), "encode() gives other ids for plain text");
  const bool nfc = (flags & 1) == 0;
  require(tokenizer.decode(asText) == (nfc ? zem::text::unicode::toNfc(text) : text),
          "a text does not come back");
  checkDecoding(tokenizer, ids);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zemfuzz::Input in(data, size);
  if (in.byte() != 0) {
    encodeAsDefined(in);
    return 0;
  }
  const std::string rest = in.rest();
  const std::string_view json = std::string_view(rest).substr(0, rest.find('\xFF'));
  readFile(json, rest.substr(std::min(rest.size(), json.size() + 1)));
  return 0;
}
