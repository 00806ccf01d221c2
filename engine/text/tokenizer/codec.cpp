// SPDX-License-Identifier: Apache-2.0
#include "engine/text/tokenizer/codec.h"

#include <algorithm>
#include <array>
#include <utility>

#include "engine/text/tokenizer/read_error.h"
#include "engine/text/tokenizer/spelling_index.h"
#include "engine/text/unicode/nfc.h"
#include "engine/text/unicode/properties.h"
#include "engine/text/unicode/utf8.h"
#include "kiv/text/byte_level.h"

namespace zem::text {
namespace {

static_assert(kMaxTokens <= ByteMerges::kMaxIds && kMaxMerges <= ByteMerges::kMaxRules);

// The first points that spell bytes, and one more than the last.
constexpr uint32_t kFirstSpelling = '!';
constexpr uint32_t kSpellingsEnd = 0x144;

// Bytes that no well-formed UTF-8 has.
bool isNeverText(size_t byte) { return byte == 0xC0 || byte == 0xC1 || byte > 0xF4; }

std::array<int32_t, 256> byteIdsOf(const SpellingIndex& ids) {
  std::array<int32_t, 256> byteIds{};
  byteIds.fill(-1);
  for (uint32_t point = kFirstSpelling; point < kSpellingsEnd; ++point) {
    std::string spelled;
    std::string byte;
    appendUtf8(point, spelled);
    if (!kiv::byteLevelToBytes(spelled, byte)) continue;
    byteIds[static_cast<uint8_t>(byte[0])] = ids.find(spelled);
  }
  for (size_t byte = 0; byte < byteIds.size(); ++byte) {
    if (byteIds[byte] >= 0 || isNeverText(byte)) continue;
    throw ReadError("the vocabulary has no token for the byte " + std::to_string(byte) +
                    ", needs one for every byte of UTF-8");
  }
  return byteIds;
}

std::vector<ByteMerges::Rule> rulesOf(const Vocabulary& vocabulary, const SpellingIndex& ids) {
  std::vector<ByteMerges::Rule> rules;
  rules.reserve(vocabulary.merges.size());
  std::string joined;
  for (const Vocabulary::Merge& merge : vocabulary.merges) {
    joined.assign(merge.left).append(merge.right);
    const auto idOf = [&](std::string_view side) {
      const int32_t id = ids.find(side);
      if (id >= 0) return id;
      throw ReadError("merge " + std::to_string(rules.size()) + " joins " + inQuotes(merge.left) +
                      " and " + inQuotes(merge.right) + ", but the vocabulary has no token " +
                      inQuotes(side));
    };
    // Mostly the tokens stand in the order of the rules that make them.
    const size_t next = rules.empty() ? 0 : static_cast<size_t>(rules.back().result) + 1;
    const bool inOrder = next < vocabulary.tokens.size() && vocabulary.tokens[next] == joined;
    rules.push_back(
        {idOf(merge.left), idOf(merge.right), inOrder ? static_cast<int32_t>(next) : idOf(joined)});
  }
  return rules;
}

// What a token says of itself: its bytes, or its own text where it spells none.
void appendToken(std::string_view spelled, std::string& bytes, TokenTable& tokens) {
  if (spelled.data() == nullptr) {
    tokens.append({}, 0);
    return;
  }
  if (!kiv::byteLevelToBytes(spelled, bytes)) bytes = spelled;
  tokens.append(bytes, TokenTable::kPresent);
}

void checkAdded(const Vocabulary& vocabulary, const SpellingIndex& ids,
                const Vocabulary::Added& added) {
  const auto& tokens = vocabulary.tokens;
  const auto at = static_cast<size_t>(added.id);
  if (at < tokens.size() && tokens[at].data() != nullptr && tokens[at] != added.text) {
    throw ReadError("the added token " + inQuotes(added.text) + " has the id of " +
                    inQuotes(tokens[at]) + ", " + std::to_string(added.id));
  }
  const int32_t other = ids.find(added.text);
  if (other >= 0 && other != added.id) {
    throw ReadError("the added token " + inQuotes(added.text) + " has the id " +
                    std::to_string(added.id) + ", in the vocabulary it has " +
                    std::to_string(other));
  }
}

std::vector<const Vocabulary::Added*> addedById(const Vocabulary& vocabulary,
                                                const SpellingIndex& ids) {
  std::vector<const Vocabulary::Added*> byId(vocabulary.tokens.size());
  for (const Vocabulary::Added& added : vocabulary.added) {
    checkAdded(vocabulary, ids, added);
    const Vocabulary::Added*& place = byId[static_cast<size_t>(added.id)];
    if (place != nullptr && place->text != added.text) {
      throw ReadError("the added tokens " + inQuotes(place->text) + " and " + inQuotes(added.text) +
                      " have the same id, " + std::to_string(added.id));
    }
    place = &added;
  }
  return byId;
}

}  // namespace

Codec::Codec(const Vocabulary& vocabulary) : pattern(vocabulary.pattern), nfc(vocabulary.nfc) {
  const SpellingIndex ids(vocabulary.tokens);
  if (const int32_t id = ids.repeated(); id >= 0) {
    throw ReadError("the token " + inQuotes(vocabulary.tokens[static_cast<size_t>(id)]) +
                    " occurs twice");
  }
  merges.build(byteIdsOf(ids), rulesOf(vocabulary, ids));

  const auto added = addedById(vocabulary, ids);
  std::string bytes;
  for (size_t id = 0; id < vocabulary.tokens.size(); ++id) {
    if (added[id] == nullptr) {
      appendToken(vocabulary.tokens[id], bytes, tokens);
      continue;
    }
    const auto& [itsId, text, special, normalized] = *added[id];
    const uint8_t flags = TokenTable::kPresent | TokenTable::kAdded;
    tokens.append(text, special ? flags | TokenTable::kSpecial : flags);
    AddedTokenSet& set = normalized ? normalizedAdded : rawAdded;
    const std::string wanted(text);
    set.add(itsId, normalized && nfc ? unicode::toNfc(wanted) : wanted);
  }
  rawAdded.build();
  normalizedAdded.build();
}

namespace {

// The part of `stretches` from `begin` on, `length` bytes long.
std::vector<Stretch> partOf(const std::vector<Stretch>& stretches, size_t begin, size_t length) {
  std::vector<Stretch> part;
  size_t at = 0;
  for (const Stretch& stretch : stretches) {
    const size_t from = std::max(at, begin);
    const size_t to = std::min(at + stretch.length, begin + length);
    if (from < to) part.push_back({to - from, stretch.added});
    at += stretch.length;
  }
  return part;
}

// The normalised text, with stretches as long as what becomes of them. One may only
// end where normalising the rest apart makes no difference, so some move a little.
std::string normalized(std::string_view text, std::vector<Stretch>& stretches) {
  std::string out;
  size_t at = 0;
  size_t planned = 0;
  for (Stretch& stretch : stretches) {
    planned += stretch.length;
    size_t end = std::max(at, planned);
    while (end < text.size()) {
      size_t next = end;
      if (unicode::Properties(nextPoint(text, next)).startsAfresh()) break;
      end = next;
    }
    const size_t before = out.size();
    out += unicode::toNfc(text.substr(at, end - at));
    stretch.length = out.size() - before;
    at = end;
  }
  return out;
}

}  // namespace

std::vector<Encoding::Match> Encoding::findAdded(const AddedTokenSet& set, std::string_view text,
                                                 const std::vector<Stretch>& stretches) const {
  std::vector<Match> matches;
  if (set.empty()) return matches;
  size_t at = 0;
  for (size_t i = 0; i < stretches.size();) {
    const AddedTokens added = stretches[i].added;
    size_t end = at;
    for (; i < stretches.size() && stretches[i].added == added; ++i) end += stretches[i].length;
    while (added != AddedTokens::AsText && at < end) {
      const auto [position, length, id] = set.find(text.substr(0, end), at);
      const bool asText =
          added == AddedTokens::SpecialAsText && codec_.tokens.has(id, TokenTable::kSpecial);
      if (id >= 0 && !asText) matches.push_back({position, length, id});
      at = position + length;
    }
    at = end;
  }
  return matches;
}

void Encoding::encode(std::string_view text, const std::vector<Stretch>& stretches) {
  size_t at = 0;
  const auto encodeTo = [&](size_t end) {
    if (at < end) encodeBetween(text.substr(at, end - at), partOf(stretches, at, end - at));
  };
  for (const Match& match : findAdded(codec_.rawAdded, text, stretches)) {
    encodeTo(match.position);
    ids_.push_back(match.id);
    at = match.position + match.length;
  }
  encodeTo(text.size());
}

void Encoding::encodeBetween(std::string_view text, std::vector<Stretch> stretches) {
  if (codec_.nfc && unicode::nfcLength(text) < text.size()) {
    text = normalized_.emplace_back(normalized(text, stretches));
  }
  size_t at = 0;
  for (const Match& match : findAdded(codec_.normalizedAdded, text, stretches)) {
    encodePlain(text.substr(at, match.position - at));
    ids_.push_back(match.id);
    at = match.position + match.length;
  }
  encodePlain(text.substr(at));
}

void Encoding::encodePlain(std::string_view text) {
  while (!text.empty()) {
    const size_t length = pieceLength(codec_.pattern, text);
    encodePiece(text.substr(0, length));
    text.remove_prefix(length);
  }
}

void Encoding::encodePiece(std::string_view piece) {
  if (piece.size() > kiv::PieceMemo::kLongestPiece) {
    codec_.merges.encode(piece, scratch_, ids_);
    return;
  }
  kiv::PieceMemo::Entry& entry = memo_.entryOf(piece);
  const size_t first = ids_.size();
  if (entry.holds(piece)) {
    ids_.resize(first + entry.idCount);
    std::copy_n(ids_.data() + entry.firstId, entry.idCount, ids_.data() + first);
    return;
  }
  codec_.merges.encode(piece, scratch_, ids_);
  entry = {piece.data(), first, static_cast<uint32_t>(piece.size()),
           static_cast<uint32_t>(ids_.size() - first)};
}

}  // namespace zem::text
