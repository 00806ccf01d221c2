// SPDX-License-Identifier: Apache-2.0
#include "engine/text/tokenizer.h"

#include <algorithm>
#include <utility>

#include "engine/text/tokenizer/codec.h"
#include "engine/text/tokenizer/read_error.h"
#include "engine/text/tokenizer/vocabulary.h"
#include "engine/text/unicode/utf8.h"
#include "kiv/container/gguf.h"

namespace zem::text {
namespace {

using kiv::Status;
using kiv::StatusCode;

constexpr size_t kMaxJsonBytes = size_t{1} << 30U;
constexpr size_t kMaxTextBytes = size_t{1} << 30U;
// To replace bytes that are not UTF-8 makes a text at most three times as long, and so does NFC.
static_assert(3 * kMaxTextBytes <= ByteMerges::kMaxPieceBytes);
constexpr size_t kBytesAnId = 4;  // of prose, or more

void addFurther(std::span<const AddedToken> further, Vocabulary& vocabulary) {
  for (const AddedToken& token : further) {
    if (token.id < 0 || static_cast<uint64_t>(token.id) >= kMaxTokens) {
      throw ReadError("the further token " + inQuotes(token.text) + " has the id " +
                      std::to_string(token.id));
    }
    const auto listed = [&token](const Vocabulary::Added& added) {
      return added.id == token.id && added.text == token.text;
    };
    auto& added = vocabulary.added;
    if (std::any_of(added.begin(), added.end(), listed)) continue;
    const auto at = static_cast<size_t>(token.id);
    if (at >= vocabulary.tokens.size()) vocabulary.tokens.resize(at + 1);
    added.push_back({token.id, token.text, token.special, false});
  }
}

// The texts in a row, well-formed as they are taken, with the length of each in `stretches`.
std::string joined(std::span<const TextPart> parts, std::vector<Stretch>& stretches) {
  std::string text;
  for (const TextPart& part : parts) {
    const size_t before = text.size();
    appendWellFormed(part.text, text);
    stretches.push_back({text.size() - before, part.added});
  }
  return text;
}

}  // namespace

Tokenizer::Tokenizer() = default;
Tokenizer::~Tokenizer() = default;
Tokenizer::Tokenizer(Tokenizer&& other) noexcept = default;
Tokenizer& Tokenizer::operator=(Tokenizer&& other) noexcept = default;

Status Tokenizer::loadJson(std::string_view json, std::span<const AddedToken> further) {
  try {
    if (json.size() > kMaxJsonBytes) {
      throw ReadError(std::to_string(json.size()) + " bytes, at most " +
                      std::to_string(kMaxJsonBytes) + " are read");
    }
    Vocabulary vocabulary = readJsonVocabulary(json);
    addFurther(further, vocabulary);
    codec_ = std::make_unique<const Codec>(vocabulary);
    return {};
  } catch (const ReadError& error) {
    return {StatusCode::InvalidFormat, std::string("tokenizer.json: ") + error.what()};
  }
}

Status Tokenizer::loadGguf(std::span<const kiv::GgufValue> values) {
  try {
    codec_ = std::make_unique<const Codec>(readGgufVocabulary(values));
    return {};
  } catch (const ReadError& error) {
    return {StatusCode::InvalidFormat, std::string("GGUF tokenizer: ") + error.what()};
  }
}

Status Tokenizer::encode(std::span<const TextPart> parts, std::vector<int32_t>& ids) const {
  ids.clear();
  if (!valid()) return {StatusCode::InvalidFormat, "tokenizer: not loaded"};
  size_t bytes = 0;
  for (const TextPart& part : parts) {
    if (part.text.size() > kMaxTextBytes - bytes) {
      return {StatusCode::Unsupported, "tokenizer: a text of more than 1 GiB"};
    }
    bytes += part.text.size();
  }
  const bool asItIs = parts.size() == 1 && wellFormedLength(parts[0].text) == parts[0].text.size();
  std::vector<Stretch> stretches;
  std::string owned;
  std::string_view text;
  if (asItIs) {
    text = parts[0].text;
    stretches.push_back({text.size(), parts[0].added});
  } else {
    owned = joined(parts, stretches);
    text = owned;
  }
  ids.reserve(text.size() / kBytesAnId);
  Encoding(*codec_, text.size(), ids).encode(text, stretches);
  return {};
}

Status Tokenizer::encode(std::string_view text, AddedTokens added,
                         std::vector<int32_t>& ids) const {
  const TextPart part{text, added};
  return encode(std::span(&part, 1), ids);
}

std::string Tokenizer::decode(std::span<const int32_t> ids, bool skipSpecial) const {
  std::string bytes;
  for (const int32_t id : ids) {
    if (!skipSpecial || !isSpecial(id)) bytes += bytesOf(id);
  }
  if (wellFormedLength(bytes) == bytes.size()) return bytes;
  std::string text;
  appendWellFormed(bytes, text);
  return text;
}

size_t Tokenizer::size() const { return valid() ? codec_->tokens.size() : 0; }

std::string_view Tokenizer::bytesOf(int32_t id) const {
  return valid() ? codec_->tokens.bytesOf(id) : std::string_view();
}

bool Tokenizer::hasToken(int32_t id) const {
  return valid() && codec_->tokens.has(id, TokenTable::kPresent);
}

bool Tokenizer::isAdded(int32_t id) const {
  return valid() && codec_->tokens.has(id, TokenTable::kAdded);
}

bool Tokenizer::isSpecial(int32_t id) const {
  return valid() && codec_->tokens.has(id, TokenTable::kSpecial);
}

std::optional<int32_t> Tokenizer::addedToken(std::string_view text) const {
  if (!valid()) return {};
  for (const AddedTokenSet* set : {&codec_->rawAdded, &codec_->normalizedAdded}) {
    if (const int32_t id = set->idOf(text); id >= 0) return id;
  }
  return {};
}

std::string TextDecoder::push(int32_t id) {
  if (skipSpecial_ && tokenizer_.isSpecial(id)) return {};
  held_ += tokenizer_.bytesOf(id);
  std::string text;
  std::string_view left = held_;
  while (!left.empty()) {
    const size_t whole = wellFormedLength(left);
    text += left.substr(0, whole);
    left.remove_prefix(whole);
    if (left.empty()) break;
    const Utf8Start start = utf8Start(left);
    if (start.state == Utf8Start::State::Cut) break;
    text += kReplacement;
    left.remove_prefix(start.length);
  }
  held_ = std::string(left);
  return text;
}

std::string TextDecoder::finish() {
  std::string text;
  appendWellFormed(held_, text);
  held_.clear();
  return text;
}

}  // namespace zem::text
